// get_moe_indexes against what its result has to be, for two fuzzers.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <exception>
#include <vector>

#include "fuzz/wrong.hpp"
#include "ops/moe.hpp"

namespace fuzz {

inline void check_moe(const at::Tensor& selected, int32_t n_experts) {
  bool good = selected.scalar_type() == at::kInt && selected.dim() == 2 && selected.is_contiguous() &&
              selected.is_cpu() && n_experts >= 0;
  for (int64_t i = 0; good && i < selected.numel(); ++i) {
    const int32_t e = selected.data_ptr<int32_t>()[i];
    good = e >= 0 && e < n_experts;
  }
  std::vector<std::vector<std::vector<int32_t>>> result;
  try {
    result = corvane::get_moe_indexes(selected, n_experts);
  } catch (const std::exception& refusal) {
    if (good) wrong("get_moe_indexes refused a good table: %s", refusal.what());
    return;
  }
  if (!good) wrong("get_moe_indexes took a table that it has to refuse");
  if (result.size() != 2) wrong("get_moe_indexes: %zu lists", result.size());
  // Ascending entries that all name the expert, and as many of them as the table has: there is no other such result.
  int64_t entries = 0;
  for (int32_t e = 0; e < n_experts; ++e) {
    const auto &positions = result[0].at(static_cast<size_t>(e)), &tokens = result[1].at(static_cast<size_t>(e));
    if (positions.size() != tokens.size()) wrong("get_moe_indexes: expert %d has more positions than tokens", e);
    int64_t last = -1;
    for (size_t i = 0; i < tokens.size(); ++i, ++entries) {
      const int64_t at = tokens[i] * selected.size(1) + positions[i];
      const bool inside = positions[i] >= 0 && positions[i] < selected.size(1) && at < selected.numel();
      if (!inside || at <= last || selected.data_ptr<int32_t>()[at] != e) {
        wrong("get_moe_indexes: entry %zu of expert %d is token %d, position %d", i, e, tokens[i], positions[i]);
      }
      last = at;
    }
  }
  if (entries != selected.numel()) wrong("get_moe_indexes: %ld entries", entries);
}

}  // namespace fuzz
