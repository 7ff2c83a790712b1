// bmm, the RWKV operators and expert grouping: products and groups against references, of the RWKV operators that all
// is written, and what is written in place only by calls that are answered.
#include <ATen/Functions.h>

#include <algorithm>
#include <cmath>

#include "fuzz/surface.hpp"
#include "module/linear_xpu.hpp"
#include "ops/moe.hpp"
#include "rwkv/rwkv.hpp"

namespace fuzz {
namespace {

// Tensors that a call writes in place, as they were before.
struct in_place {
  std::vector<at::Tensor> tensors;
  std::vector<std::vector<uint8_t>> before;

  explicit in_place(std::vector<at::Tensor> written) : tensors(std::move(written)) {
    for (const at::Tensor& t : tensors) before.push_back(bytes_of(t));
  }
  void check_untouched(const char* name) const {
    for (size_t i = 0; i < tensors.size(); ++i) {
      if (bytes_of(tensors[i]) != before[i]) wrong("%s was refused and wrote all the same", name);
    }
  }
};

// Fresh memory is not-a-numbers: an element that nobody wrote shows.
void check_written(const char* name, const at::Tensor& result) {
  for (int64_t i = 0; i < result.numel(); ++i) {
    if (std::isnan(value_at(result, i))) wrong("%s: element %ld is not a number", name, i);
  }
}

at::ScalarType float_or_half(byte_source& source) { return source.below(2) != 0 ? at::kHalf : at::kFloat; }

// An answer of get_moe_indexes against what it has to be.
void check_moe(const at::Tensor& selected, int32_t n_experts) {
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

}  // namespace

void bmm(byte_source& source) {
  const int64_t batch = 1 + source.below(3), m = source.below(40), k = source.below(40), n = source.below(40);
  const contents c = pick_contents(source);
  tensor_maker make(source, source.word(4));
  const at::Tensor a = make.floats({batch, m, k}, at::kFloat, c), b = make.floats({batch, k, n}, at::kFloat, c);
  const int64_t more = static_cast<int64_t>(source.below(4) + 1) % 4 - 1;  // from one too few to two more
  at::Tensor out = make.floats({std::max<int64_t>(0, batch * m * n + more)}, at::kFloat, contents::dense);
  const bool overlaps = source.rarely();
  if (overlaps && !make.distorted()) out = source.below(2) != 0 ? a : b;
  const bool good = !make.distorted() && !overlaps && more >= 0;
  const in_place written({out});
  if (!answers("bmm", good, make.on_cpu(), [&] { corvane::bmm(a, b, out); })) return written.check_untouched("bmm");
  if (!good) return;
  for (int64_t i = batch * m * n; i < out.numel(); ++i) {
    if (value_at(out, i) != reinterpret_cast<const float*>(written.before[0].data())[out.storage_offset() + i]) {
      wrong("bmm wrote behind its product");
    }
  }
  if (make.unusual()) return;
  const precision p = precision_of(at::kFloat);
  for (int64_t i = 0; i < batch * m * n; ++i) {
    const int64_t of = i / (m * n), row = i / n % m, column = i % n;
    expected e;
    double magnitude = 0;
    for (int64_t j = 0; j < k; ++j) {
      const double term = value_at(a, (of * m + row) * k + j) * value_at(b, (of * k + j) * n + column);
      e.value += term;
      magnitude += std::abs(term);
    }
    e.tolerance = static_cast<double>(k + 1) * p.unit * magnitude;
    if (!agrees(value_at(out, i), e)) wrong("bmm: element %ld is %.9g, not %.9g", i, value_at(out, i), e.value);
  }
}

void rwkv_v4(byte_source& source) {
  const int64_t batch = 1 + source.below(3), tokens = source.below(6), hidden = 32 * (1 + source.below(3));
  const at::ScalarType dtype = source.rarely() ? source.pick(floating_types) : float_or_half(source);
  const contents c = pick_contents(source);
  const int64_t said_hidden = source.rarely() ? source.below(100) : hidden;
  tensor_maker make(source, source.word(4));
  const at::Tensor decay = make.floats({hidden}, dtype, c), first = make.floats({hidden}, dtype, c);
  const at::Tensor key = make.floats({batch, tokens, said_hidden}, dtype, c);
  const at::Tensor value = make.floats({batch, tokens, said_hidden}, dtype, c);
  std::vector<at::Tensor> states;
  for (const float start : {0.0f, 0.0f, -1e38f}) {
    states.push_back(make.floats({batch, hidden}, at::kFloat, contents::dense));
    if (!make.distorted()) std::fill_n(states.back().data_ptr<float>(), states.back().numel(), start);
  }
  const in_place written(states);
  const bool good = !make.distorted() && said_hidden == hidden && (dtype == at::kFloat || dtype == at::kHalf);
  at::Tensor result;
  if (!answers("rwkv_linear_attention_v4", good, make.on_cpu(), [&] {
        result = corvane::rwkv_linear_attention_v4(decay, first, key, value, states[0], states[1], states[2]);
      })) {
    return written.check_untouched("rwkv_linear_attention_v4");
  }
  if (!good || make.unusual()) return;
  check_written("rwkv_linear_attention_v4", result);
}

void rwkv_v5(byte_source& source) {
  const int64_t batch = 1 + source.below(2), heads = 1 + source.below(3), tokens = source.below(4), size = 64;
  const int64_t last = source.rarely() ? source.below(130) : size;
  const contents c = pick_contents(source);
  const bool transposed = source.below(2) != 0;  // as a model has them: tokens before heads
  tensor_maker make(source, source.word(4));
  const at::Tensor decay = make.floats({heads, last}, at::kFloat, c), first = make.floats({heads, last}, at::kFloat, c);
  at::Tensor tokens_of[3];  // receptance, key, value
  for (at::Tensor& t : tokens_of) {
    if (transposed) {
      t = make.floats({batch, tokens, heads, last}, at::kFloat, c);
      if (!make.distorted()) t = t.transpose(1, 2);  // of absurd sizes the framework itself ends the process
    } else {
      t = make.floats({batch, heads, tokens, last}, at::kFloat, c);
    }
  }
  at::Tensor state = make.floats({batch, heads, last, last}, at::kFloat, c);
  const in_place written({state});
  const bool good = !make.distorted() && last == size;
  at::Tensor result;
  if (!answers("rwkv_linear_attention_v5", good, make.on_cpu(), [&] {
        result = corvane::rwkv_linear_attention_v5(decay, first, tokens_of[0], tokens_of[1], tokens_of[2], state);
      })) {
    return written.check_untouched("rwkv_linear_attention_v5");
  }
  if (!good || make.unusual()) return;
  check_written("rwkv_linear_attention_v5", result);
}

void time_shift(byte_source& source) {
  const int64_t batch = source.below(3), tokens = source.below(5), hidden = 64 * (1 + source.below(3)),
                mixes = source.below(4);
  const at::ScalarType dtype = source.rarely() ? source.pick(floating_types) : float_or_half(source);
  const contents c = pick_contents(source);
  const int64_t said_hidden = source.rarely() ? source.below(200) : hidden;
  tensor_maker make(source, source.word(4));
  const at::Tensor tokens_now = make.floats({batch, tokens, said_hidden}, dtype, c);
  const at::Tensor shifted = make.floats({batch, tokens, said_hidden}, dtype, c);
  const at::Tensor mix = make.floats({mixes, 1, said_hidden}, dtype, c);
  const bool good = !make.distorted() && said_hidden == hidden && (dtype == at::kFloat || dtype == at::kHalf);
  at::Tensor result;
  if (!answers("rwkv_time_shift", good, make.on_cpu(),
               [&] { result = corvane::rwkv_time_shift(tokens_now, shifted, mix); }))
    return;
  if (!good || make.unusual()) return;
  check_written("rwkv_time_shift", result);
}

void moe(byte_source& source) {
  constexpr int64_t experts[] = {8, 0, 1, 64, -1, -2147483648};
  const auto n_experts = static_cast<int32_t>(source.pick(experts));
  tensor_maker make(source, source.word(4));
  at::Tensor selected = make.integers({source.below(8), source.below(5)}, at::kInt, n_experts);
  if (!make.distorted() && !source.rarely()) {  // where it belongs; else the device's tensor has to be refused
    const at::Tensor host = at::empty(selected.sizes(), at::TensorOptions(at::kCPU).dtype(at::kInt));
    std::copy_n(selected.data_ptr<int32_t>(), selected.numel(), host.data_ptr<int32_t>());
    selected = host;
  }
  check_moe(selected, n_experts);
}

}  // namespace fuzz
