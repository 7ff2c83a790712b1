// The entry wrappers: what stands between the binding and the bodies of the checked operators. A wrapper checks device
// and layout, opens one profiler record and calls the body.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <vector>

namespace corvane {

at::Tensor linear_forward_new(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t row_hint);

}  // namespace corvane
