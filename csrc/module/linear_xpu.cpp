#include "module/linear_xpu.hpp"

#include <ATen/record_function.h>

#include <initializer_list>

#include "frame/argument.hpp"
#include "fused/projections.hpp"
#include "linear/forward.hpp"
#include "ops/bmm.hpp"
#include "ops/dequantize.hpp"

namespace corvane {
namespace {

// Both checks of a tensor come before the next tensor's. `floating`: those of all arguments that may carry a gradient.
void check_tensors(const char* wrapper, std::initializer_list<argument> tensors,
                   std::initializer_list<argument> floating) {
  const origin where{"linear_xpu", wrapper};
  for (const argument& a : tensors) {
    check_on_xpu(a, where);
    check_contiguous(a, where);
  }
  check_no_gradients(floating, where);
}

// Runs the body inside a profiler record named `label`, whose one input is `recorded`.
template <class Body>
auto recorded_call(const char* label, const at::Tensor& recorded, const Body& body) {
  at::RecordFunction record(at::RecordScope::FUNCTION);
  if (record.isActive()) {
    constexpr int64_t no_sequence_number = -1;
    if (record.needsInputs()) {
      const c10::IValue inputs[1] = {recorded};
      record.before(label, c10::ArrayRef<const c10::IValue>(inputs, 1), no_sequence_number);
    } else {
      record.before(label, no_sequence_number);
    }
  }
  return body();
}

}  // namespace

at::Tensor linear_forward_new(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t row_hint) {
  check_tensors("linear_forward_new", {{"input", input}, {"weights", weight}}, {{"input", input}});
  return recorded_call("vorel_qlinear_forward", input, [&] { return linear_forward(input, weight, qtype, row_hint); });
}

std::vector<at::Tensor> linear_xpu_qkv(const at::Tensor& input, const at::Tensor& weight_q, const at::Tensor& weight_k,
                                       const at::Tensor& weight_v, const at::Tensor& position_ids,
                                       const at::Tensor& cache_k, const at::Tensor& cache_v, int32_t src_0_qtype,
                                       int32_t src_0_vtype, int64_t kv_seq_len, int64_t head_size, float rope_base) {
  check_tensors("linear_xpu_qkv",
                {{"input", input}, {"weight_q", weight_q}, {"weight_k", weight_k}, {"weight_v", weight_v}},
                {{"input", input}, {"cache_k", cache_k}, {"cache_v", cache_v}});
  return recorded_call("vorel_qkv_forward", input, [&] {
    return forward_qkv_body(input, weight_q, weight_k, weight_v, {}, position_ids, cache_k, cache_v, src_0_qtype,
                            src_0_vtype, kv_seq_len, head_size, rope_base);
  });
}

std::vector<at::Tensor> linear_xpu_qkv_bias(const at::Tensor& input, const at::Tensor& weight_q,
                                            const at::Tensor& weight_k, const at::Tensor& weight_v,
                                            const at::Tensor& bias_q, const at::Tensor& bias_k,
                                            const at::Tensor& bias_v, const at::Tensor& position_ids,
                                            const at::Tensor& cache_k, const at::Tensor& cache_v, int32_t src_0_qtype,
                                            int32_t src_0_vtype, int64_t kv_seq_len, int64_t head_size,
                                            float rope_base) {
  check_tensors("linear_xpu_qkv_bias",
                {{"input", input}, {"weight_q", weight_q}, {"weight_k", weight_k}, {"weight_v", weight_v}},
                {{"input", input},
                 {"bias_q", bias_q},
                 {"bias_k", bias_k},
                 {"bias_v", bias_v},
                 {"cache_k", cache_k},
                 {"cache_v", cache_v}});
  return recorded_call("vorel_qkv_bias_forward", input, [&] {
    return forward_qkv_body(input, weight_q, weight_k, weight_v, {bias_q, bias_k, bias_v}, position_ids, cache_k,
                            cache_v, src_0_qtype, src_0_vtype, kv_seq_len, head_size, rope_base);
  });
}

std::vector<at::Tensor> linear_xpu_qk(const at::Tensor& input, const at::Tensor& weight_q, const at::Tensor& weight_k,
                                      const at::Tensor& position_ids, const at::Tensor& cache_k, int32_t src_0_qtype,
                                      int64_t kv_seq_len, int64_t head_size, float rope_base) {
  check_tensors("linear_xpu_qk", {{"input", input}, {"weight_q", weight_q}, {"weight_k", weight_k}},
                {{"input", input}, {"cache_k", cache_k}});
  return recorded_call("vorel_qk_forward", input, [&] {
    return forward_qk_body(input, weight_q, weight_k, position_ids, cache_k, src_0_qtype, kv_seq_len, head_size,
                           rope_base);
  });
}

at::Tensor dequant(const at::Tensor& input, const at::Tensor& weight, int32_t qtype) {
  check_tensors("dequant", {{"input", input}, {"weight", weight}}, {});  // the input's data is not read
  return recorded_call("vorel_xpu_dequant", weight, [&] { return dequant_body(input, weight, qtype); });
}

at::Tensor bmm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& c) {
  check_tensors("bmm", {{"A", a}, {"B", b}, {"C", c}}, {{"A", a}, {"B", b}, {"C", c}});
  return recorded_call("vorel_bmm", a, [&] { return bmm_xpu(a, b, c); });
}

at::Tensor dequantize_rows(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t state_size,
                           int64_t output_size) {
  check_tensors("dequantize_rows", {{"input", input}, {"weight", weight}}, {});  // neither is floating
  return recorded_call("vorel_dequantize_rows", input,
                       [&] { return dequantize_rows_body(input, weight, qtype, state_size, output_size); });
}

}  // namespace corvane
