// One input row as blocks of 8-bit integers, and the kernels that multiply it with iq2_xxs, iq1_s and q2_k weights:
// their inner loops are integer dot products. Definitions: linear/kernel_q8_1.cpp.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

#include "formats/reader.hpp"

namespace corvane {

// 32 consecutive elements of the row.
struct block_q8_1 {
  Half d;         // scale
  Half s;         // sum of the elements, not of the codes
  int8_t qs[32];  // element / d, rounded
};
static_assert(sizeof(block_q8_1) == 36);

constexpr int64_t q8_1_elements = 32;

// Bytes of a quantised row.
constexpr int64_t q8_1_bytes(int64_t state_size) {
  return state_size / q8_1_elements * static_cast<int64_t>(sizeof(block_q8_1));
}

// input (state_size) to activations (state_size / 32 blocks). state_size is a multiple of 256, any other is refused;
// rows is 1.
template <class T>
void quantize_xpu_kernel_q8_1(const T* input, uint8_t* activations, uint64_t rows, uint64_t state_size,
                              c10::Device device);

// weight packed (output_size, state_size), activations of the row, output (output_size). The host waits for the kernel,
// so that the activations may go when these return. state_size is a multiple of 256, any other is refused.
template <class T>
void qlinear_xpu_kernel_iq2_xxs_q8_1(const uint8_t* weight, const uint8_t* activations, T* output, uint64_t rows,
                                     uint64_t state_size, uint64_t output_size, c10::Device device);
template <class T>
void qlinear_xpu_kernel_iq1_s_q8_1(const uint8_t* weight, const uint8_t* activations, T* output, uint64_t rows,
                                   uint64_t state_size, uint64_t output_size, c10::Device device);
template <class T>
void qlinear_xpu_kernel_q2_k_q8_1(const uint8_t* weight, const uint8_t* activations, T* output, uint64_t rows,
                                  uint64_t state_size, uint64_t output_size, c10::Device device);

}  // namespace corvane
