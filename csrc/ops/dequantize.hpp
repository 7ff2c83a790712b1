// Expansion on tensors: the bodies of the operators dequant and dequantize_rows, and whole-weight expansion into a
// given tensor, by which the linear path reaches the explicit-SIMD kernels.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace corvane {

// The packed weight as a dense matrix (output_size, state_size) on the weight's device. The input gives the dtype and,
// as its second size, state_size; its data is not read. A format that dequant has no kernel for yields a matrix with
// whatever its memory held.
at::Tensor dequant_body(const at::Tensor& input, const at::Tensor& weight, int32_t qtype);

// Rows of a packed q2_k or q4_k weight of output_size rows, as float (batch, sequence, state_size).
// input: 64-bit row numbers (batch, sequence). The result of another format holds whatever its memory held.
at::Tensor dequantize_rows_body(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t state_size,
                                int64_t output_size);

// Each fills `output`, (output_size, state_size) of float or Half, from the packed weight, and returns it. The number
// of blocks must be a multiple of what a thread of the kernel expands (blocks_per_thread).
at::Tensor dequantize_q4_0(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_q4_1(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_fp4(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_q8_0(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_fp8_e4m3(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_fp8_e5m2(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_fp6(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_fp6_k(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_q4_k(const at::Tensor& weight, at::Tensor output);
at::Tensor dequantize_q6_k(const at::Tensor& weight, at::Tensor output);

}  // namespace corvane
