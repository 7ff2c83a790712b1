// A few input rows against a packed weight: a weight byte is decoded once for two input rows, in float for four. On
// pointers and sizes; instances for the four element types and both group sizes.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>

namespace corvane {

// input (rows, state_size), weight packed (output_size, state_size), output (rows, output_size).
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q4_0_2x16_by_batch(const T* input, const uint8_t* weight, T* output, uint64_t rows,
                                           uint64_t state_size, uint64_t output_size, c10::Device device);

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_nf4_2x16_batch(const T* input, const uint8_t* weight, T* output, uint64_t rows,
                                       uint64_t state_size, uint64_t output_size, c10::Device device);

}  // namespace corvane
