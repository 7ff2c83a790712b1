// The one-row kernels of the formats with super-blocks of 256 elements, on pointers and sizes. Definitions: one source
// per format. The kernels that take 8-bit activations are in linear/q8_1.hpp.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>

namespace corvane {

using c10::BFloat16;
using c10::Half;

// input (state_size), weight packed (output_size, state_size), output (output_size); `rows` is not used. state_size is
// a multiple of 256: the kernels refuse any other.
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q4_k_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                  uint64_t output_size, c10::Device device);

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q6_k_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                  uint64_t output_size, c10::Device device);

template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void qlinear_xpu_kernel_fp6_k_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                   uint64_t output_size, c10::Device device);

template <class T>
void qlinear_xpu_kernel_q5_k(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                             uint64_t output_size, c10::Device device);

}  // namespace corvane
