#include "ops/moe.hpp"

#include <string>
#include <utility>

#include "frame/check.hpp"

namespace corvane {

// The result has two lists for each expert, some 200 bytes once they are Python's: beyond this number a machine's
// memory may end, and the process with it. No layer has a thousandth of it.
constexpr int32_t most_experts = 1 << 24;

std::vector<std::vector<std::vector<int32_t>>> get_moe_indexes(at::Tensor selected_experts, int32_t n_experts) {
  using lists = std::vector<std::vector<int32_t>>;
  const origin where{"moe", "get_moe_indexes"};
  const int32_t* expert = selected_experts.data_ptr<int32_t>();
  check(selected_experts.dim() == 2, where, "selected_experts.dim() == 2");
  check(selected_experts.is_contiguous(), where, "selected_experts.is_contiguous()");
  check(selected_experts.is_cpu(), where, "selected_experts must be in host memory: move it with .cpu()");
  if (n_experts > most_experts) {
    fail(where, "n_experts must be at most " + std::to_string(most_experts) + ", found " + std::to_string(n_experts));
  }
  lists positions(static_cast<size_t>(n_experts)), tokens(positions.size());  // a negative number: std::length_error

  const int64_t selections = selected_experts.numel(), n_selected = selected_experts.size(1);
  for (int64_t at = 0; at < selections; ++at) {
    const int64_t token = at / n_selected, position = at % n_selected;
    const int32_t e = expert[at];
    if (e < 0 || e >= n_experts) {
      fail(where, "selected_experts[" + std::to_string(token) + "][" + std::to_string(position) + "] is " +
                      std::to_string(e) + ", which is none of " + std::to_string(n_experts) + " experts");
    }
    positions[e].push_back(static_cast<int32_t>(position));
    tokens[e].push_back(static_cast<int32_t>(token));
  }
  return {std::move(positions), std::move(tokens)};
}

}  // namespace corvane
