// The fused kernels by their names, with the sizes of a launch as template values: thin over one body for each format
// and element type. Launchers take name and sizes from the support row instead (formats/support.hpp).
#pragma once

#include <string_view>

#include "fused/mlp_kernels.hpp"
#include "fused/qkv_kernels.hpp"

namespace corvane {

// M(name, format)
#define CORVANE_QKV_KERNELS(M)                           \
  M(qlinear_xpu_kernel_q4_0_2x16_qkv, qtype_q4_0)        \
  M(qlinear_xpu_kernel_fp4_2x16_qkv, qtype_fp4)          \
  M(qlinear_xpu_kernel_fp8_e5m2_2x8_qkv, qtype_fp8_e5m2) \
  M(qlinear_xpu_kernel_fp6_qkv, qtype_fp6)               \
  M(qlinear_xpu_kernel_iq2_xxs_qkv, qtype_iq2_xxs)
#define CORVANE_MLP_KERNELS(M)                   \
  M(mlp_forward_q4_0_kernel, qtype_q4_0)         \
  M(mlp_forward_fp4_kernel, qtype_fp4)           \
  M(mlp_forward_fp8_e5m2_kernel, qtype_fp8_e5m2) \
  M(mlp_forward_fp6_kernel, qtype_fp6)           \
  M(mlp_forward_iq2_xxs_kernel, qtype_iq2_xxs)

#define CORVANE_ONE(NAME, ID) +1
static_assert(CORVANE_QKV_KERNELS(CORVANE_ONE) ==
                  count_formats([](const format_support& s) { return s.qkv.kernel.name != nullptr; }),
              "every QKV kernel is named above");
static_assert(CORVANE_MLP_KERNELS(CORVANE_ONE) ==
                  count_formats([](const format_support& s) { return s.mlp.kernel.name != nullptr; }),
              "every MLP kernel is named above");
#undef CORVANE_ONE

// BIAS is told by the arguments, whose biases are null without.
#define CORVANE_DECLARE(NAME, ID)                                                                              \
  static_assert(std::string_view(#NAME) == support[ID].qkv.kernel.name);                                       \
  template <class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS = false>                                    \
  void NAME(const one_row_input<ID, T>* input, const qkv_arguments<T>& arguments, c10::Device device) {        \
    check((arguments.matrices[0].bias != nullptr) == BIAS, {projection_source, #NAME}, "biases as BIAS says"); \
    project_row(ID, {#NAME, {SG_SIZE, WG_SIZE, 2}}, input, arguments, device);                                 \
  }
CORVANE_QKV_KERNELS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

static_assert(std::string_view("qlinear_xpu_kernel_iq2_xxs_qk") == support[qtype_iq2_xxs].qk.kernel.name);
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_iq2_xxs_qk(const uint8_t* input, const projection_arguments<T, 2>& arguments,
                                   c10::Device device) {
  project_row(qtype_iq2_xxs, {"qlinear_xpu_kernel_iq2_xxs_qk", {SG_SIZE, WG_SIZE, 2}}, input, arguments, device);
}

#define CORVANE_DECLARE(NAME, ID)                                                                       \
  static_assert(std::string_view(#NAME) == support[ID].mlp.kernel.name);                                \
  template <class T, unsigned SG_SIZE = 32, unsigned WG_SIZE = 32, unsigned ROWS_PER_WG = 2>            \
  void NAME(const one_row_input<ID, T>* input, const mlp_arguments<T>& arguments, c10::Device device) { \
    gated_mlp(ID, {#NAME, {SG_SIZE, WG_SIZE, ROWS_PER_WG}}, input, arguments, device);                  \
  }
CORVANE_MLP_KERNELS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

}  // namespace corvane
