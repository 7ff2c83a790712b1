// The general family of expansion kernels: launchers on pointers and sizes that turn a packed weight into a dense
// matrix of T = Half, float, double or BFloat16. Definitions: one source per family of formats.
//
//   weight  packed (output_size, state_size)
//   output  (output_size, state_size); elements behind the last whole super-block are left as they are
//
// Each refuses a state_size that is not a multiple of 64.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>

namespace corvane {

using c10::BFloat16;
using c10::Half;

// --- a work-group for each output row; 1xN: N elements of a work-item in a pass. SG_SIZE: required sub-group size ---

template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_q4_0_1x4(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                            c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_q4_0_1x2(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                            c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_q4_1_1x4(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                            c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_q4_1_1x2(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                            c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_nf4_1x4(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                           c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_nf4_1x2(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                           c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_fp4_1x4(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                           c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_fp4_1x2(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                           c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_q8_0_1x2(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                            c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_q8_0_1x1(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                            c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2(const uint8_t* weight, T* output, uint64_t state_size,
                                                uint64_t output_size, c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1(const uint8_t* weight, T* output, uint64_t state_size,
                                                uint64_t output_size, c10::Device device);

// --- work-groups of 256 elements, over row ends -------------------------------------------------------------------

template <class T>
void qlinear_xpu_dequantize_kernel_q5_0(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                        c10::Device device);
template <class T>
void qlinear_xpu_dequantize_kernel_q5_1(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                        c10::Device device);
template <class T>
void qlinear_xpu_dequantize_kernel_nf3_new(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                           c10::Device device);

// --- a work-group for each super-block -----------------------------------------------------------------------------

template <class T>
void qlinear_xpu_dequantize_kernel_q2_k(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                        c10::Device device);
template <class T>
void qlinear_xpu_dequantize_kernel_q4_k(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                        c10::Device device);
template <class T>
void qlinear_xpu_dequantize_kernel_q5_k(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                        c10::Device device);
template <class T>
void qlinear_xpu_dequantize_kernel_q6_k(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                        c10::Device device);
template <class T>
void qlinear_xpu_dequantize_kernel_iq2_xxs(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                           c10::Device device);
template <class T>
void qlinear_xpu_dequantize_kernel_iq1_s(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                                         c10::Device device);

// --- tiles: tile_rows rows of the weight from first_row on, into tile (tile_rows, state_size) ------------------------

template <class T, unsigned SG_SIZE>
void qlinear_xpu_tile_dequantize_kernel_q4_0_1x4(const uint8_t* weight, T* tile, uint64_t state_size,
                                                 uint64_t output_size, uint64_t tile_rows, uint64_t first_row,
                                                 c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_tile_dequantize_kernel_q4_0_1x2(const uint8_t* weight, T* tile, uint64_t state_size,
                                                 uint64_t output_size, uint64_t tile_rows, uint64_t first_row,
                                                 c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_tile_dequantize_kernel_q8_0_1x1(const uint8_t* weight, T* tile, uint64_t state_size,
                                                 uint64_t output_size, uint64_t tile_rows, uint64_t first_row,
                                                 c10::Device device);
template <class T, unsigned SG_SIZE>
void qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1(const uint8_t* weight, T* tile, uint64_t state_size,
                                                     uint64_t output_size, uint64_t tile_rows, uint64_t first_row,
                                                     c10::Device device);

}  // namespace corvane
