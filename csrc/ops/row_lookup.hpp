// Row look-up: chosen rows of a packed weight, expanded to float. Launchers on pointers and sizes.
//
//   weight       packed (output_size, state_size)
//   row_numbers  (batch, sequence), each from 0 to output_size - 1: the caller has seen to that
//   output       state_size / 256 super-blocks for each row number, without a gap
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

namespace corvane {

void xpu_dequantize_rows_kernel_q2_k(const uint8_t* weight, const int64_t* row_numbers, float* output, uint64_t batch,
                                     uint64_t sequence, uint64_t state_size, uint64_t output_size, c10::Device device);
void xpu_dequantize_rows_kernel_q4_k(const uint8_t* weight, const int64_t* row_numbers, float* output, uint64_t batch,
                                     uint64_t sequence, uint64_t state_size, uint64_t output_size, c10::Device device);

}  // namespace corvane
