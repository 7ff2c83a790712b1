// The kernels of the linear path: launchers on pointers and sizes. Definitions: one source per format or family.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>

namespace corvane {

using c10::BFloat16;
using c10::Half;

// input (state_size), weight packed (output_size, state_size), output (output_size); `rows` is not used.
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void qlinear_xpu_kernel_q4_0_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                  uint64_t output_size, c10::Device device);

// One input row on the other formats of 64-element blocks: arguments as above, two rows to a group.
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q4_1_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                  uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_nf4_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                 uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_fp4_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                 uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_nf3_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                 uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void qlinear_xpu_kernel_fp6_2x16(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                 uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q8_0_2x8(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                                 uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_fp8_e4m3_2x8(const T* input, const uint8_t* weight, T* output, uint64_t rows,
                                     uint64_t state_size, uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_fp8_e5m2_2x8(const T* input, const uint8_t* weight, T* output, uint64_t rows,
                                     uint64_t state_size, uint64_t output_size, c10::Device device);

// One row to a group.
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q5_0(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                             uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q5_1(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                             uint64_t output_size, c10::Device device);

}  // namespace corvane
