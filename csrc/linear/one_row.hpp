// Which kernel serves one input row of a format.
#pragma once

#include "formats/registry.hpp"
#include "linear/kernels.hpp"
#include "linear/kernels_k.hpp"

namespace corvane {

// Formats whose kernels take the input row as 8-bit blocks (linear/q8_1.hpp), not as it is.
constexpr bool quantises_input(int32_t id) { return id == qtype_iq2_xxs || id == qtype_q2_k || id == qtype_iq1_s; }

// Formats whose one-row kernel has no size parameters: the same on all device classes.
constexpr bool same_on_all_classes(int32_t id) { return quantises_input(id) || id == qtype_q5_k; }

// input (K), weight packed (N, K), output (N).
template <int32_t Id, class T, unsigned SG, unsigned WG, unsigned Q4Rows>
void one_row_kernel(const T* input, const uint8_t* weight, T* output, uint64_t k, uint64_t n, c10::Device device) {
  if constexpr (Id == qtype_q4_0) {
    qlinear_xpu_kernel_q4_0_2x16<T, SG, WG, Q4Rows>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_q4_1) {
    qlinear_xpu_kernel_q4_1_2x16<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_q5_0) {
    qlinear_xpu_kernel_q5_0<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_q5_1) {
    qlinear_xpu_kernel_q5_1<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_q8_0) {
    qlinear_xpu_kernel_q8_0_2x8<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_nf4) {
    qlinear_xpu_kernel_nf4_2x16<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_nf3) {
    qlinear_xpu_kernel_nf3_2x16<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_fp8_e4m3) {
    qlinear_xpu_kernel_fp8_e4m3_2x8<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_fp4) {
    qlinear_xpu_kernel_fp4_2x16<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_fp8_e5m2) {
    qlinear_xpu_kernel_fp8_e5m2_2x8<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_q6_k) {
    qlinear_xpu_kernel_q6_k_2x16<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_q4_k) {
    qlinear_xpu_kernel_q4_k_2x16<T, SG, WG>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_q5_k) {
    qlinear_xpu_kernel_q5_k<T>(input, weight, output, 1, k, n, device);
  } else if constexpr (Id == qtype_fp6) {
    qlinear_xpu_kernel_fp6_2x16<T, SG, WG, 2>(input, weight, output, 1, k, n, device);
  } else {
    static_assert(Id == qtype_fp6_k, "no kernel takes one plain row of this format");
    qlinear_xpu_kernel_fp6_k_2x16<T, SG, WG, 2>(input, weight, output, 1, k, n, device);
  }
}

}  // namespace corvane
