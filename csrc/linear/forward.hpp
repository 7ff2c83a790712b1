// The body of forward_new: a linear layer straight from a packed weight.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace corvane {

// input (rows, state_size), of a floating dtype, contiguous; weight: packed bytes of (output_size, state_size) in the
// format `qtype`, contiguous; row_hint: the caller's count of rows, which the tile path of q4_0 asks for.
// Returns (rows, output_size) in the input's dtype on the weight's device.
at::Tensor linear_forward(at::Tensor input, at::Tensor weight, int32_t qtype, int64_t row_hint);

}  // namespace corvane
