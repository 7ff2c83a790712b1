// What a step of one row does between its products, each in one pass: the framework's CPU operators take five to a
// dozen for it, and beside kernels that sweep the caches an operator costs what its code does to fetch again.
#pragma once

#include <ATen/core/Tensor.h>

namespace xpu {

// The root-mean-square norm of the rows of `x`, float (..., size) and contiguous, times `weight`, float (size): x /
// sqrt(mean(x^2) + epsilon) * weight in float, rounded to `dtype` (float, Half, BFloat16). A `delta` of x's shape, of
// any of these types, is added to x first, in place.
at::Tensor rms_norm(const at::Tensor& x, const at::Tensor& weight, double epsilon, at::ScalarType dtype,
                    const c10::optional<at::Tensor>& delta);

// Attention of one position: query (1, heads, 1, head_size), keys and values (1, kv_heads, length, head_size) with
// contiguous rows, all of one type (float, Half, BFloat16); head_size a multiple of 16. Query head h asks key and value
// head h / (heads / kv_heads): softmax(query key^T / sqrt(head_size)) value, in float, rounded once. The result is
// (1, heads * head_size).
at::Tensor row_attention(const at::Tensor& query, const at::Tensor& keys, const at::Tensor& values);

}  // namespace xpu
