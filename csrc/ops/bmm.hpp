// Batch matrix product into a tensor of the caller's.
#pragma once

#include <ATen/core/Tensor.h>

namespace corvane {

// A (batch, M, K), B (batch, K, N), C of at least batch * M * N elements; all float and contiguous, as the wrapper has
// checked. Returns C, whose first elements are the product in the order (batch, M, N).
at::Tensor bmm_xpu(at::Tensor a, at::Tensor b, at::Tensor c);

}  // namespace corvane
