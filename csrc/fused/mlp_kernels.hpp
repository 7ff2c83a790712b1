// The gated first half of a feed-forward layer for one input row x, in one launch: activation(first x) times (second
// x). Launchers on pointers and sizes; definitions: one source per format.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>

#include "formats/registry.hpp"

namespace corvane {

using c10::BFloat16;
using c10::Half;

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

// A kernel by name, its format, the elements that a work-item of a device takes of a row in one step (state_size is
// refused if no multiple of them), and the label of its dispatch on the element type.
struct mlp_kernel {
  const char* name;
  int32_t id;
  unsigned sub_blk_h;
  const char* label;
};

constexpr mlp_kernel mlp_q4_0{"mlp_forward_q4_0_kernel", qtype_q4_0, 16, "mlp_forward_q4_0_xpu_t"};
constexpr mlp_kernel mlp_fp4{"mlp_forward_fp4_kernel", qtype_fp4, 16, "mlp_forward_fp4_xpu_t"};
constexpr mlp_kernel mlp_fp8_e5m2{"mlp_forward_fp8_e5m2_kernel", qtype_fp8_e5m2, 8, "mlp_forward_fp8_e5m2_xpu_t"};
constexpr mlp_kernel mlp_fp6{"mlp_forward_fp6_kernel", qtype_fp6, 16, "mlp_forward_fp6_xpu_t"};
constexpr mlp_kernel mlp_iq2_xxs{"mlp_forward_iq2_xxs_kernel", qtype_iq2_xxs, 1, "mlp_forward_iq2_xxs_xpu"};

// input (state_size).
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void mlp_forward_q4_0_kernel(const T* input, const mlp_arguments<T>& arguments, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void mlp_forward_fp4_kernel(const T* input, const mlp_arguments<T>& arguments, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void mlp_forward_fp8_e5m2_kernel(const T* input, const mlp_arguments<T>& arguments, c10::Device device);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void mlp_forward_fp6_kernel(const T* input, const mlp_arguments<T>& arguments, c10::Device device);

// input: quantised to 8-bit blocks (state_size / 32).
template <class T>
void mlp_forward_iq2_xxs_kernel(const uint8_t* input, const mlp_arguments<T>& arguments, c10::Device device);

}  // namespace corvane
