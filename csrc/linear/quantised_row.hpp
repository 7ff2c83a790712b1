// The input row of an operator as a tensor of 8-bit blocks, for the kernels that take it so.
#pragma once

#include <ATen/core/Tensor.h>
#include <ATen/ops/empty.h>

#include "formats/q8_1.hpp"
#include "linear/kernels.hpp"

namespace corvane {

// input: state_size contiguous elements of T. The tensor may go once the kernel that reads it is queued: the
// allocator's memory is reused in the order of the stream.
template <class T>
at::Tensor quantised_row(const at::Tensor& input, uint64_t state_size) {
  at::Tensor blocks = at::empty({q8_1_bytes(static_cast<int64_t>(state_size))},
                                at::TensorOptions().device(input.device()).dtype(c10::ScalarType::Byte));
  quantize_xpu_kernel_q8_1(input.data_ptr<T>(), blocks.data_ptr<uint8_t>(), 1, state_size, input.device());
  return blocks;
}

}  // namespace corvane
