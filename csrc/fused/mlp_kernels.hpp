// The gated first half of a feed-forward layer for one input row x, in one launch: activation(first x) times (second
// x). On pointers and sizes.
#pragma once

#include "linear/one_row.hpp"

namespace corvane {

constexpr const char* mlp_source = "mlp_xpu_kernel";

enum class mlp_activation : uint8_t { silu, tanh };

template <class T>
struct mlp_arguments {
  const uint8_t* first;   // packed (output_size, state_size)
  const uint8_t* second;  // packed (output_size, state_size)
  T* output;              // (output_size)
  uint64_t state_size;    // a multiple of the format's block
  uint64_t output_size;
  mlp_activation activation;
};

// input (state_size): of T, or as 8-bit blocks for a format that is read so (takes_eight_bit_input). For formats whose
// support row has the kernel.
template <class T>
void gated_mlp(int32_t qtype, const kernel_launch& how, const void* input, const mlp_arguments<T>& arguments,
               c10::Device device);

}  // namespace corvane
