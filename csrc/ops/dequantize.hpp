// The bodies of the operators dequant and dequantize_rows, which show expansion and row look-up to callers.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace corvane {

// The packed weight as a dense matrix (output_size, state_size) on the weight's device. The input gives the dtype and,
// as its second size, state_size; its data is not read. A format that dequant has no kernel for yields a matrix with
// whatever its memory held.
at::Tensor dequant_body(const at::Tensor& input, const at::Tensor& weight, int32_t qtype);

// Rows of a packed weight of output_size rows, as float (batch, sequence, state_size). input: 64-bit row numbers
// (batch, sequence). The result of a format without row look-up holds whatever its memory held.
at::Tensor dequantize_rows_body(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t state_size,
                                int64_t output_size);

}  // namespace corvane
