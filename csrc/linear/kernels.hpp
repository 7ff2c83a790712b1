// The kernels of the linear layer by their names, with the sizes of a launch as template values: thin over one body for
// each format and element type. Launchers take name and sizes from the support row instead (formats/support.hpp).
#pragma once

#include <string_view>

#include "linear/one_row.hpp"
#include "linear/small_batch.hpp"

namespace corvane {

// input (state_size) to activations (state_size / 32 blocks of formats/q8_1.hpp). state_size is a multiple of 256, any
// other is refused; rows is 1.
template <class T>
void quantize_xpu_kernel_q8_1(const T* input, uint8_t* activations, uint64_t rows, uint64_t state_size,
                              c10::Device device);

// M(name, format): one input row (state_size) against weight, packed (output_size, state_size), to output
// (output_size). `rows` is not used.
#define CORVANE_ONE_ROW_KERNELS(M)                   \
  M(qlinear_xpu_kernel_q4_0_2x16, qtype_q4_0)        \
  M(qlinear_xpu_kernel_q4_1_2x16, qtype_q4_1)        \
  M(qlinear_xpu_kernel_q5_0, qtype_q5_0)             \
  M(qlinear_xpu_kernel_q5_1, qtype_q5_1)             \
  M(qlinear_xpu_kernel_q8_0_2x8, qtype_q8_0)         \
  M(qlinear_xpu_kernel_nf4_2x16, qtype_nf4)          \
  M(qlinear_xpu_kernel_nf3_2x16, qtype_nf3)          \
  M(qlinear_xpu_kernel_fp8_e4m3_2x8, qtype_fp8_e4m3) \
  M(qlinear_xpu_kernel_fp4_2x16, qtype_fp4)          \
  M(qlinear_xpu_kernel_fp8_e5m2_2x8, qtype_fp8_e5m2) \
  M(qlinear_xpu_kernel_q6_k_2x16, qtype_q6_k)        \
  M(qlinear_xpu_kernel_q4_k_2x16, qtype_q4_k)        \
  M(qlinear_xpu_kernel_fp6_2x16, qtype_fp6)          \
  M(qlinear_xpu_kernel_fp6_k_2x16, qtype_fp6_k)
#define CORVANE_ONE_SIZE_KERNELS(M) M(qlinear_xpu_kernel_q5_k, qtype_q5_k)
#define CORVANE_Q8_1_KERNELS(M)                     \
  M(qlinear_xpu_kernel_iq2_xxs_q8_1, qtype_iq2_xxs) \
  M(qlinear_xpu_kernel_iq1_s_q8_1, qtype_iq1_s)     \
  M(qlinear_xpu_kernel_q2_k_q8_1, qtype_q2_k)
#define CORVANE_SMALL_BATCH_KERNELS(M)                 \
  M(qlinear_xpu_kernel_q4_0_2x16_by_batch, qtype_q4_0) \
  M(qlinear_xpu_kernel_nf4_2x16_batch, qtype_nf4)

#define CORVANE_ONE(NAME, ID) +1
static_assert(CORVANE_ONE_ROW_KERNELS(CORVANE_ONE) CORVANE_ONE_SIZE_KERNELS(CORVANE_ONE)
                      CORVANE_Q8_1_KERNELS(CORVANE_ONE) == count_formats([](const format_support&) { return true; }),
              "every format's one-row kernel is named above");
static_assert(CORVANE_SMALL_BATCH_KERNELS(CORVANE_ONE) ==
                  count_formats([](const format_support& s) { return s.small_batch.kernel != nullptr; }),
              "every small-batch kernel is named above");
#undef CORVANE_ONE

#define CORVANE_NAMED(NAME, ID) static_assert(std::string_view(#NAME) == support[ID].one_row.kernel.name);
CORVANE_ONE_ROW_KERNELS(CORVANE_NAMED)
CORVANE_ONE_SIZE_KERNELS(CORVANE_NAMED)
CORVANE_Q8_1_KERNELS(CORVANE_NAMED)
#undef CORVANE_NAMED

#define CORVANE_DECLARE(NAME, ID)                                                                                   \
  template <class T, unsigned SG_SIZE, unsigned WG_SIZE,                                                            \
            unsigned ROWS_PER_WG = support[ID].one_row.kernel.elsewhere.rows>                                       \
  void NAME(const T* input, const uint8_t* weight, T* output, uint64_t, uint64_t state_size, uint64_t output_size,  \
            c10::Device device) {                                                                                   \
    launch_one_row<ID, T>({#NAME, {SG_SIZE, WG_SIZE, ROWS_PER_WG}}, input, weight, output, state_size, output_size, \
                          device);                                                                                  \
  }
CORVANE_ONE_ROW_KERNELS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

#define CORVANE_DECLARE(NAME, ID)                                                                                  \
  template <class T>                                                                                               \
  void NAME(const T* input, const uint8_t* weight, T* output, uint64_t, uint64_t state_size, uint64_t output_size, \
            c10::Device device) {                                                                                  \
    launch_one_row<ID, T>({#NAME, support[ID].one_row.kernel.elsewhere}, input, weight, output, state_size,        \
                          output_size, device);                                                                    \
  }
CORVANE_ONE_SIZE_KERNELS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

// activations: the input row in 8-bit blocks. The host waits for the kernel.
#define CORVANE_DECLARE(NAME, ID)                                                                                 \
  template <class T>                                                                                              \
  void NAME(const uint8_t* weight, const uint8_t* activations, T* output, uint64_t, uint64_t state_size,          \
            uint64_t output_size, c10::Device device) {                                                           \
    launch_one_row<ID, T>({#NAME, support[ID].one_row.kernel.elsewhere}, activations, weight, output, state_size, \
                          output_size, device);                                                                   \
  }
CORVANE_Q8_1_KERNELS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

// input (rows, state_size), output (rows, output_size).
#define CORVANE_DECLARE(NAME, ID)                                                                                \
  static_assert(std::string_view(#NAME) == support[ID].small_batch.kernel);                                      \
  template <class T, unsigned SG_SIZE, unsigned WG_SIZE>                                                         \
  void NAME(const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,                \
            uint64_t output_size, c10::Device device) {                                                          \
    launch_small_batch(ID, {#NAME, {SG_SIZE, WG_SIZE, 2}}, input, weight, output, rows, state_size, output_size, \
                       device);                                                                                  \
  }
CORVANE_SMALL_BATCH_KERNELS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

}  // namespace corvane
