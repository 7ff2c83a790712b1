// The fused start of attention for one token: query, key and value projections of one input row, rotary embedding, and
// the write of key and value into the caller's caches, in one launch. Launchers on pointers and sizes; definitions: one
// source per format.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <array>
#include <cstdint>

#include "formats/registry.hpp"

namespace corvane {

using c10::BFloat16;
using c10::Half;

constexpr const char* projection_source = "linear_xpu_fused_qkv_kernel";

// One matrix and where its results go: element e of head h stands at output[base_offset + h * head_stride + e].
template <class T>
struct projection {
  T* output;
  const uint8_t* weight;  // packed (rows, state_size)
  const T* bias;          // (rows), for the kernels that add it
  uint32_t rows;          // whole heads
  uint64_t base_offset;   // elements
  uint64_t head_stride;   // elements
};

constexpr unsigned value_matrix = 2;  // after query and key; it is not rotated

template <class T, unsigned Matrices>
struct projection_arguments {
  std::array<projection<T>, Matrices> matrices;  // query, key and, of three, value
  uint64_t state_size;                           // a multiple of the format's block
  uint32_t head_size;                            // even
  const int64_t* position_ids;                   // the first is the token's position
  float theta_scale;                             // rope_base to the power -2 / head_size
};

template <class T>
using qkv_arguments = projection_arguments<T, 3>;

// What the host has to know of a kernel.
struct projection_kernel {
  const char* name;
  int32_t id;          // format that picks it, of the query and key weights
  int32_t value_id;    // format that it reads the value weight in
  unsigned sub_blk_h;  // elements that a work-item of a device takes of a row in one step: state_size is refused if no
                       // multiple of them
};

constexpr projection_kernel q4_0_qkv{"qlinear_xpu_kernel_q4_0_2x16_qkv", qtype_q4_0, qtype_q4_0, 16};
constexpr projection_kernel fp4_qkv{"qlinear_xpu_kernel_fp4_2x16_qkv", qtype_fp4, qtype_fp4, 16};
constexpr projection_kernel fp8_e5m2_qkv{"qlinear_xpu_kernel_fp8_e5m2_2x8_qkv", qtype_fp8_e5m2, qtype_fp8_e5m2, 8};
constexpr projection_kernel fp6_qkv{"qlinear_xpu_kernel_fp6_qkv", qtype_fp6, qtype_fp6, 16};
constexpr projection_kernel iq2_xxs_qkv{"qlinear_xpu_kernel_iq2_xxs_qkv", qtype_iq2_xxs, qtype_q2_k, 1};
constexpr projection_kernel iq2_xxs_qk{"qlinear_xpu_kernel_iq2_xxs_qk", qtype_iq2_xxs, qtype_iq2_xxs, 1};

// input (state_size). BIAS: the kernel adds the biases.
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS>
void qlinear_xpu_kernel_q4_0_2x16_qkv(const T* input, const qkv_arguments<T>& arguments, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS>
void qlinear_xpu_kernel_fp4_2x16_qkv(const T* input, const qkv_arguments<T>& arguments, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS>
void qlinear_xpu_kernel_fp8_e5m2_2x8_qkv(const T* input, const qkv_arguments<T>& arguments, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS>
void qlinear_xpu_kernel_fp6_qkv(const T* input, const qkv_arguments<T>& arguments, c10::Device device);

// input: quantised to 8-bit blocks (state_size / 32). The value weight is q2_k. No biases.
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_iq2_xxs_qkv(const uint8_t* input, const qkv_arguments<T>& arguments, c10::Device device);

// The same for query and key alone.
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_iq2_xxs_qk(const uint8_t* input, const projection_arguments<T, 2>& arguments,
                                   c10::Device device);

}  // namespace corvane
