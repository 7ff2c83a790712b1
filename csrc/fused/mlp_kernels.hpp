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

// What the kernel reads the input row as: values of T, or 8-bit blocks (formats/q8_1.hpp).
template <int32_t Id, class T>
using mlp_input = one_row_input<Id, T>;

// input (state_size). One body for each format that has the kernel and each element type.
template <int32_t Id, class T>
void gated_mlp(const kernel_launch& how, const mlp_input<Id, T>* input, const mlp_arguments<T>& arguments,
               c10::Device device);

}  // namespace corvane
