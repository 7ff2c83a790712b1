// The fused start of attention for one token: query, key and value projections of one input row, rotary embedding, and
// the write of key and value into the caller's caches, in one launch. On pointers and sizes.
#pragma once

#include <array>
#include <cstdint>

#include "linear/one_row.hpp"

namespace corvane {

constexpr const char* projection_source = "linear_xpu_fused_qkv_kernel";

// One matrix and where its results go: element e of head h stands at output[base_offset + h * head_stride + e].
template <class T>
struct projection {
  T* output;
  const uint8_t* weight;  // packed (rows, state_size)
  const T* bias;          // (rows), or null
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

// input (state_size): of T, or as 8-bit blocks for a format that is read so (takes_eight_bit_input); then the value
// weight has the format that the support row names. Biases are added where they are given. Matrices: 3, or 2 for query
// and key alone. For formats whose support row has the kernel.
template <class T, unsigned Matrices>
void project_row(int32_t qtype, const kernel_launch& how, const void* input,
                 const projection_arguments<T, Matrices>& arguments, c10::Device device);

}  // namespace corvane
