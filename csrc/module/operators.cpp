// torch.ops.corvane: the operators for the framework's compiler and exporter, which need to know what a call writes and
// what its results look like. The same bodies as the functions of the module corvane, but for what the framework cannot
// express: a result that is a view of an argument. bmm and the projections return no such results; the projections take
// caches with room for the new position instead of returning longer views of them.
#include <ATen/ops/empty.h>
#include <torch/library.h>

#include "formats/registry.hpp"
#include "frame/check.hpp"
#include "fused/mlp.hpp"
#include "module/linear_xpu.hpp"
#include "rwkv/rwkv.hpp"

namespace corvane {
namespace {

using at::Tensor;

// --- calls -----------------------------------------------------------------------------------------------------------

// The framework's integers are wider than the bodies' ids: cut to 32 bits, one that names no format might name one.
int32_t format_id(int64_t qtype, const char* function) {
  if (qtype != static_cast<int32_t>(qtype)) check_format(qtype, {"operators", function});
  return static_cast<int32_t>(qtype);
}

// The positions before the new one: what the bodies take for the cache, with the room behind it.
Tensor filled(const Tensor& cache, int64_t positions, const char* name) {
  TORCH_CHECK(cache.dim() == 4 && positions >= 0 && positions < cache.size(2), name,
              " must be (1, heads, positions, head_size) with room for position ", positions, ", found ",
              cache.sizes());
  return cache.narrow(2, 0, positions);
}

Tensor forward_new(const Tensor& input, const Tensor& weight, int64_t qtype, int64_t row_hint) {
  return linear_forward_new(input, weight, format_id(qtype, "forward_new"), row_hint);
}

Tensor forward_qkv(const Tensor& input, const Tensor& weight_q, const Tensor& weight_k, const Tensor& weight_v,
                   const Tensor& position_ids, const Tensor& cache_k, const Tensor& cache_v, int64_t qtype,
                   int64_t vtype, int64_t kv_seq_len, int64_t head_size, double rope_base) {
  return linear_xpu_qkv(input, weight_q, weight_k, weight_v, position_ids, filled(cache_k, kv_seq_len, "cache_k"),
                        filled(cache_v, kv_seq_len, "cache_v"), format_id(qtype, "forward_qkv"),
                        format_id(vtype, "forward_qkv"), kv_seq_len, head_size, static_cast<float>(rope_base))[0];
}

Tensor forward_qkv_bias(const Tensor& input, const Tensor& weight_q, const Tensor& weight_k, const Tensor& weight_v,
                        const Tensor& bias_q, const Tensor& bias_k, const Tensor& bias_v, const Tensor& position_ids,
                        const Tensor& cache_k, const Tensor& cache_v, int64_t qtype, int64_t vtype, int64_t kv_seq_len,
                        int64_t head_size, double rope_base) {
  return linear_xpu_qkv_bias(input, weight_q, weight_k, weight_v, bias_q, bias_k, bias_v, position_ids,
                             filled(cache_k, kv_seq_len, "cache_k"), filled(cache_v, kv_seq_len, "cache_v"),
                             format_id(qtype, "forward_qkv_bias"), format_id(vtype, "forward_qkv_bias"), kv_seq_len,
                             head_size, static_cast<float>(rope_base))[0];
}

Tensor forward_qk(const Tensor& input, const Tensor& weight_q, const Tensor& weight_k, const Tensor& position_ids,
                  const Tensor& cache_k, int64_t qtype, int64_t kv_seq_len, int64_t head_size, double rope_base) {
  return linear_xpu_qk(input, weight_q, weight_k, position_ids, filled(cache_k, kv_seq_len, "cache_k"),
                       format_id(qtype, "forward_qk"), kv_seq_len, head_size, static_cast<float>(rope_base))[0];
}

Tensor call_dequant(const Tensor& input, const Tensor& weight, int64_t qtype) {
  return dequant(input, weight, format_id(qtype, "dequant"));
}

void call_bmm(const Tensor& a, const Tensor& b, const Tensor& c) { bmm(a, b, c); }

Tensor call_mlp(const Tensor& input, const Tensor& first, const Tensor& second, int64_t batch_size, int64_t state_size,
                int64_t output_size, int64_t activation, int64_t qtype) {
  return mlp_forward_xpu(input, first, second, batch_size, state_size, output_size, activation,
                         format_id(qtype, "mlp_forward_xpu"));
}

Tensor call_v4(const Tensor& time_decay, const Tensor& time_first, const Tensor& key, const Tensor& value,
               const Tensor& num_state, const Tensor& den_state, const Tensor& max_state) {
  return rwkv_linear_attention_v4(time_decay, time_first, key, value, num_state, den_state, max_state);
}

Tensor call_v5(const Tensor& time_decay, const Tensor& time_first, const Tensor& receptance, const Tensor& key,
               const Tensor& value, const Tensor& state) {
  return rwkv_linear_attention_v5(time_decay, time_first, receptance, key, value, state);
}

Tensor call_time_shift(const Tensor& hidden, const Tensor& shifted, const Tensor& mix) {
  return rwkv_time_shift(hidden, shifted, mix);
}

Tensor call_dequantize_rows(const Tensor& input, const Tensor& weight, int64_t qtype, int64_t state_size,
                            int64_t output_size) {
  return dequantize_rows(input, weight, format_id(qtype, "dequantize_rows"), state_size, output_size);
}

// --- shapes of results, on tensors without data ----------------------------------------------------------------------

int64_t output_size(const Tensor& weight, int64_t state_size, int64_t qtype, const char* function) {
  const origin here{"operators", function};
  if (weight.dim() < 1) fail(here, "a weight must have at least one dimension");
  return derive_output_size(weight.sym_size(0).guard_int(__FILE__, __LINE__), state_size, format_id(qtype, function),
                            here);
}

c10::SymInt second_size(const Tensor& input) {
  TORCH_CHECK(input.dim() >= 2, "input must have two dimensions, found ", input.dim());
  return input.sym_size(1);
}

int64_t state_size_of(const Tensor& input) { return second_size(input).guard_int(__FILE__, __LINE__); }

Tensor shape_of_forward_new(const Tensor& input, const Tensor& weight, int64_t qtype, int64_t /*row_hint*/) {
  const int64_t columns = output_size(weight, state_size_of(input), qtype, "forward_new");
  return at::empty_symint({input.sym_size(0), columns}, weight.options().dtype(input.dtype()));
}

Tensor shape_of_query(const Tensor& input, const Tensor& weight_q, int64_t qtype, int64_t head_size) {
  const int64_t rows = output_size(weight_q, state_size_of(input), qtype, "forward_qkv");
  TORCH_CHECK(head_size >= 1, "head_size must be even and at least 2, found ", head_size);
  return at::empty({1, rows / head_size, 1, head_size}, input.options());
}

Tensor shape_of_qkv(const Tensor& input, const Tensor& weight_q, const Tensor&, const Tensor&, const Tensor&,
                    const Tensor&, const Tensor&, int64_t qtype, int64_t, c10::SymInt, int64_t head_size, double) {
  return shape_of_query(input, weight_q, qtype, head_size);
}

Tensor shape_of_qkv_bias(const Tensor& input, const Tensor& weight_q, const Tensor&, const Tensor&, const Tensor&,
                         const Tensor&, const Tensor&, const Tensor&, const Tensor&, const Tensor&, int64_t qtype,
                         int64_t, c10::SymInt, int64_t head_size, double) {
  return shape_of_query(input, weight_q, qtype, head_size);
}

Tensor shape_of_qk(const Tensor& input, const Tensor& weight_q, const Tensor&, const Tensor&, const Tensor&,
                   int64_t qtype, c10::SymInt, int64_t head_size, double) {
  return shape_of_query(input, weight_q, qtype, head_size);
}

Tensor shape_of_dequant(const Tensor& input, const Tensor& weight, int64_t qtype) {
  const int64_t columns = state_size_of(input);
  return at::empty({output_size(weight, columns, qtype, "dequant"), columns}, weight.options().dtype(input.dtype()));
}

void shape_of_bmm(const Tensor&, const Tensor&, const Tensor&) {}

Tensor shape_of_mlp(const Tensor& input, const Tensor& first, const Tensor&, int64_t, int64_t, int64_t output_size,
                    int64_t, int64_t) {
  return at::empty({1, output_size}, first.options().dtype(input.dtype()));
}

Tensor shape_of_v4(const Tensor&, const Tensor&, const Tensor& key, const Tensor&, const Tensor&, const Tensor&,
                   const Tensor&) {
  return at::empty_symint(key.sym_sizes(), key.options());
}

Tensor shape_of_v5(const Tensor&, const Tensor&, const Tensor&, const Tensor& key, const Tensor&, const Tensor&) {
  TORCH_CHECK(key.dim() == 4, "key must have four dimensions, found ", key.dim());
  return at::empty_symint({key.sym_size(0), key.sym_size(2), key.sym_size(1), key.sym_size(3)}, key.options());
}

Tensor shape_of_time_shift(const Tensor& hidden, const Tensor&, const Tensor& mix) {
  TORCH_CHECK(hidden.dim() == 3 && mix.dim() == 3, "hidden and mix must have three dimensions");
  return at::empty_symint({mix.sym_size(0), hidden.sym_size(0), hidden.sym_size(1), hidden.sym_size(2)},
                          hidden.options());
}

Tensor shape_of_rows(const Tensor& input, const Tensor& weight, int64_t, int64_t state_size, int64_t) {
  const c10::SymInt sequence = second_size(input);
  return at::empty_symint({input.sym_size(0), sequence, state_size}, weight.options().dtype(at::kFloat));
}

// --- registration ----------------------------------------------------------------------------------------------------

TORCH_LIBRARY(corvane, library) {
  library.def("forward_new(Tensor input, Tensor weight, int qtype, int row_hint) -> Tensor");
  library.def(
      "forward_qkv(Tensor input, Tensor weight_q, Tensor weight_k, Tensor weight_v, Tensor position_ids, "
      "Tensor(a!) cache_k, Tensor(b!) cache_v, int src_0_qtype, int src_0_vtype, SymInt kv_seq_len, int head_size, "
      "float rope_base=10000.0) -> Tensor");
  library.def(
      "forward_qkv_bias(Tensor input, Tensor weight_q, Tensor weight_k, Tensor weight_v, Tensor bias_q, Tensor bias_k, "
      "Tensor bias_v, Tensor position_ids, Tensor(a!) cache_k, Tensor(b!) cache_v, int src_0_qtype, int src_0_vtype, "
      "SymInt kv_seq_len, int head_size, float rope_base) -> Tensor");
  library.def(
      "forward_qk(Tensor input, Tensor weight_q, Tensor weight_k, Tensor position_ids, Tensor(a!) cache_k, "
      "int src_0_qtype, SymInt kv_seq_len, int head_size, float rope_base) -> Tensor");
  library.def("dequant(Tensor input, Tensor weight, int qtype) -> Tensor");
  library.def("bmm(Tensor a, Tensor b, Tensor(a!) c) -> ()");
  library.def(
      "mlp_forward_xpu(Tensor input, Tensor first, Tensor second, int batch_size, int state_size, int output_size, "
      "int activation, int qtype) -> Tensor");
  library.def(
      "rwkv_linear_attention_v4(Tensor time_decay, Tensor time_first, Tensor key, Tensor value, Tensor(a!) num_state, "
      "Tensor(b!) den_state, Tensor(c!) max_state) -> Tensor");
  library.def(
      "rwkv_linear_attention_v5(Tensor time_decay, Tensor time_first, Tensor receptance, Tensor key, Tensor value, "
      "Tensor(a!) state) -> Tensor");
  library.def("rwkv_time_shift(Tensor hidden, Tensor shifted, Tensor mix) -> Tensor");
  library.def("dequantize_rows(Tensor input, Tensor weight, int qtype, int state_size, int output_size) -> Tensor");
}

// Not for XPU tensors alone: the bodies themselves refuse others, in their own words.
TORCH_LIBRARY_IMPL(corvane, CompositeExplicitAutograd, library) {
  library.impl("forward_new", &forward_new);
  library.impl("forward_qkv", &forward_qkv);
  library.impl("forward_qkv_bias", &forward_qkv_bias);
  library.impl("forward_qk", &forward_qk);
  library.impl("dequant", &call_dequant);
  library.impl("bmm", &call_bmm);
  library.impl("mlp_forward_xpu", &call_mlp);
  library.impl("rwkv_linear_attention_v4", &call_v4);
  library.impl("rwkv_linear_attention_v5", &call_v5);
  library.impl("rwkv_time_shift", &call_time_shift);
  library.impl("dequantize_rows", &call_dequantize_rows);
}

TORCH_LIBRARY_IMPL(corvane, Meta, library) {
  library.impl("forward_new", &shape_of_forward_new);
  library.impl("forward_qkv", &shape_of_qkv);
  library.impl("forward_qkv_bias", &shape_of_qkv_bias);
  library.impl("forward_qk", &shape_of_qk);
  library.impl("dequant", &shape_of_dequant);
  library.impl("bmm", &shape_of_bmm);
  library.impl("mlp_forward_xpu", &shape_of_mlp);
  library.impl("rwkv_linear_attention_v4", &shape_of_v4);
  library.impl("rwkv_linear_attention_v5", &shape_of_v5);
  library.impl("rwkv_time_shift", &shape_of_time_shift);
  library.impl("dequantize_rows", &shape_of_rows);
}

}  // namespace
}  // namespace corvane
