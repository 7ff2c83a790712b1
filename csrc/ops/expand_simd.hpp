// The explicit-SIMD family of expansion kernels: a thread expands as many blocks as make its load of codes 256 bytes
// wide. Launchers on one pointer for each plane of the weight, for an output of T = Half or float; both are computed in
// Half, q4_k and q6_k in float.
//
//   nb      blocks of the weight, a multiple of what a thread expands (blocks_per_thread), or the launch is refused
//   output  nb blocks of dense values
#pragma once

#include <c10/core/Device.h>
#include <c10/util/Half.h>

#include <cstdint>

#include "formats/registry.hpp"

namespace corvane {

using c10::Half;

// Blocks that a thread of a format's kernel expands; 0: the format has no such kernel.
constexpr unsigned blocks_per_thread(int32_t id) {
  switch (id) {
    case qtype_q4_0:
    case qtype_q4_1:
    case qtype_fp4:
    case qtype_fp6:
      return 8;
    case qtype_q8_0:
    case qtype_fp8_e4m3:
    case qtype_fp8_e5m2:
      return 4;
    case qtype_fp6_k:
    case qtype_q4_k:
    case qtype_q6_k:
      return 2;
    default:
      return 0;
  }
}

template <class T>
void dequantize_q4_0_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb, c10::Device device);
template <class T>
void dequantize_q4_1_kernel(const uint8_t* codes, const uint8_t* pairs, T* output, uint64_t nb, c10::Device device);
template <class T>
void dequantize_fp4_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb, c10::Device device);
template <class T>
void dequantize_q8_0_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb, c10::Device device);
template <class T>
void dequantize_fp8_e4m3_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb,
                                c10::Device device);
// The scales are not read.
template <class T>
void dequantize_fp8_e5m2_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb,
                                c10::Device device);
template <class T>
void dequantize_fp6_kernel(const uint8_t* high, const uint8_t* low, const uint8_t* scales, T* output, uint64_t nb,
                           c10::Device device);
template <class T>
void dequantize_fp6_k_kernel(const uint8_t* high, const uint8_t* low, const uint8_t* sub_scales, const uint8_t* scales,
                             T* output, uint64_t nb, c10::Device device);
template <class T>
void dequantize_q4_k_kernel(const uint8_t* codes, const uint8_t* sub_scales, const uint8_t* scales, T* output,
                            uint64_t nb, c10::Device device);
template <class T>
void dequantize_q6_k_kernel(const uint8_t* high, const uint8_t* low, const uint8_t* sub_scales, const uint8_t* scales,
                            T* output, uint64_t nb, c10::Device device);

}  // namespace corvane
