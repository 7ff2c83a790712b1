// The entry wrappers: what stands between the binding and the bodies of the checked operators. A wrapper checks device
// and layout, opens one profiler record and calls the body. Shapes and formats: see the bodies' headers.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <vector>

namespace corvane {

at::Tensor linear_forward_new(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t row_hint);

std::vector<at::Tensor> linear_xpu_qkv(const at::Tensor& input, const at::Tensor& weight_q, const at::Tensor& weight_k,
                                       const at::Tensor& weight_v, const at::Tensor& position_ids,
                                       const at::Tensor& cache_k, const at::Tensor& cache_v, int32_t src_0_qtype,
                                       int32_t src_0_vtype, int64_t kv_seq_len, int64_t head_size, float rope_base);

std::vector<at::Tensor> linear_xpu_qkv_bias(const at::Tensor& input, const at::Tensor& weight_q,
                                            const at::Tensor& weight_k, const at::Tensor& weight_v,
                                            const at::Tensor& bias_q, const at::Tensor& bias_k,
                                            const at::Tensor& bias_v, const at::Tensor& position_ids,
                                            const at::Tensor& cache_k, const at::Tensor& cache_v, int32_t src_0_qtype,
                                            int32_t src_0_vtype, int64_t kv_seq_len, int64_t head_size,
                                            float rope_base);

std::vector<at::Tensor> linear_xpu_qk(const at::Tensor& input, const at::Tensor& weight_q, const at::Tensor& weight_k,
                                      const at::Tensor& position_ids, const at::Tensor& cache_k, int32_t src_0_qtype,
                                      int64_t kv_seq_len, int64_t head_size, float rope_base);

at::Tensor dequant(const at::Tensor& input, const at::Tensor& weight, int32_t qtype);

at::Tensor bmm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& c);

at::Tensor dequantize_rows(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t state_size,
                           int64_t output_size);

}  // namespace corvane
