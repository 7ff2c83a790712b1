// The entry wrappers: what stands between the binding and the bodies of the checked operators. A wrapper checks device
// and layout, opens one profiler record and calls the body. Shapes and formats: see the bodies' headers.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <vector>

namespace corvane {

at::Tensor linear_forward_new(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t row_hint);

at::Tensor dequant(const at::Tensor& input, const at::Tensor& weight, int32_t qtype);

at::Tensor bmm(const at::Tensor& a, const at::Tensor& b, const at::Tensor& c);

at::Tensor dequantize_rows(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t state_size,
                           int64_t output_size);

}  // namespace corvane
