// The expansion kernels by their names, with the sizes of a launch as template values: thin over expansion.hpp, which
// takes name and sizes from the support row.
#pragma once

#include <string_view>

#include "ops/expansion.hpp"

namespace corvane {

// Whole weights by the general family: weight packed (output_size, state_size), output (output_size, state_size).
// M(name, format, member of the support row).
#define CORVANE_ROW_EXPANSIONS(M)                                           \
  M(qlinear_xpu_dequantize_kernel_q4_0_1x4, qtype_q4_0, on_class_0)         \
  M(qlinear_xpu_dequantize_kernel_q4_0_1x2, qtype_q4_0, elsewhere)          \
  M(qlinear_xpu_dequantize_kernel_q4_1_1x4, qtype_q4_1, on_class_0)         \
  M(qlinear_xpu_dequantize_kernel_q4_1_1x2, qtype_q4_1, elsewhere)          \
  M(qlinear_xpu_dequantize_kernel_nf4_1x4, qtype_nf4, on_class_0)           \
  M(qlinear_xpu_dequantize_kernel_nf4_1x2, qtype_nf4, elsewhere)            \
  M(qlinear_xpu_dequantize_kernel_fp4_1x4, qtype_fp4, on_class_0)           \
  M(qlinear_xpu_dequantize_kernel_fp4_1x2, qtype_fp4, elsewhere)            \
  M(qlinear_xpu_dequantize_kernel_q8_0_1x2, qtype_q8_0, on_class_0)         \
  M(qlinear_xpu_dequantize_kernel_q8_0_1x1, qtype_q8_0, elsewhere)          \
  M(qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2, qtype_fp8_e5m2, on_class_0) \
  M(qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1, qtype_fp8_e5m2, elsewhere)
#define CORVANE_OTHER_EXPANSIONS(M)                                  \
  M(qlinear_xpu_dequantize_kernel_q5_0, qtype_q5_0, elsewhere)       \
  M(qlinear_xpu_dequantize_kernel_q5_1, qtype_q5_1, elsewhere)       \
  M(qlinear_xpu_dequantize_kernel_nf3_new, qtype_nf3, elsewhere)     \
  M(qlinear_xpu_dequantize_kernel_q2_k, qtype_q2_k, elsewhere)       \
  M(qlinear_xpu_dequantize_kernel_q4_k, qtype_q4_k, elsewhere)       \
  M(qlinear_xpu_dequantize_kernel_q5_k, qtype_q5_k, elsewhere)       \
  M(qlinear_xpu_dequantize_kernel_q6_k, qtype_q6_k, elsewhere)       \
  M(qlinear_xpu_dequantize_kernel_iq2_xxs, qtype_iq2_xxs, elsewhere) \
  M(qlinear_xpu_dequantize_kernel_iq1_s, qtype_iq1_s, elsewhere)
// `rows` rows of a weight from first_row on.
#define CORVANE_TILE_EXPANSIONS(M)                                       \
  M(qlinear_xpu_tile_dequantize_kernel_q4_0_1x4, qtype_q4_0, on_class_0) \
  M(qlinear_xpu_tile_dequantize_kernel_q4_0_1x2, qtype_q4_0, elsewhere)  \
  M(qlinear_xpu_tile_dequantize_kernel_q8_0_1x1, qtype_q8_0, elsewhere)  \
  M(qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1, qtype_fp8_e5m2, elsewhere)
// Whole weights by the explicit-SIMD family, T = float or Half. Planes are those of a weight of nb blocks in a row.
#define CORVANE_EXPLICIT_SIMD_EXPANSIONS(M)     \
  M(dequantize_q4_0_kernel, qtype_q4_0)         \
  M(dequantize_q4_1_kernel, qtype_q4_1)         \
  M(dequantize_fp4_kernel, qtype_fp4)           \
  M(dequantize_q8_0_kernel, qtype_q8_0)         \
  M(dequantize_fp8_e4m3_kernel, qtype_fp8_e4m3) \
  M(dequantize_fp8_e5m2_kernel, qtype_fp8_e5m2) \
  M(dequantize_fp6_kernel, qtype_fp6)           \
  M(dequantize_fp6_k_kernel, qtype_fp6_k)       \
  M(dequantize_q4_k_kernel, qtype_q4_k)         \
  M(dequantize_q6_k_kernel, qtype_q6_k)

#define CORVANE_ONE(...) +1
static_assert(CORVANE_ROW_EXPANSIONS(CORVANE_ONE) ==
                  2 * count_formats([](const format_support& s) { return s.general.cut == expansion_cut::row; }),
              "every general expansion by rows is named above");
static_assert(CORVANE_OTHER_EXPANSIONS(CORVANE_ONE) == count_formats([](const format_support& s) {
                return s.general.cut != expansion_cut::none && s.general.cut != expansion_cut::row;
              }),
              "every other general expansion is named above");
static_assert(CORVANE_TILE_EXPANSIONS(CORVANE_ONE) ==
                  count_formats([](const format_support& s) { return s.tile.elsewhere.name != nullptr; }) +
                      count_formats([](const format_support& s) { return s.tile.on_class_0.name != nullptr; }),
              "every tile kernel is named above");
static_assert(CORVANE_EXPLICIT_SIMD_EXPANSIONS(CORVANE_ONE) ==
                  count_formats([](const format_support& s) { return s.explicit_simd.kernel != nullptr; }),
              "every explicit-SIMD kernel is named above");
#undef CORVANE_ONE

#define CORVANE_DECLARE(NAME, ID, MEMBER)                                                                      \
  static_assert(std::string_view(#NAME) == support[ID].general.MEMBER.name);                                   \
  template <class T, unsigned SG_SIZE>                                                                         \
  void NAME(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size, c10::Device device) { \
    expand_general<T>(ID, SG_SIZE == 32 ? 0 : 1, {weight, state_size, output_size, device}, {output});         \
  }
CORVANE_ROW_EXPANSIONS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

#define CORVANE_DECLARE(NAME, ID, MEMBER)                                                                      \
  static_assert(std::string_view(#NAME) == support[ID].general.MEMBER.name);                                   \
  template <class T>                                                                                           \
  void NAME(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size, c10::Device device) { \
    expand_general<T>(ID, 1, {weight, state_size, output_size, device}, {output});                             \
  }
CORVANE_OTHER_EXPANSIONS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

#define CORVANE_DECLARE(NAME, ID, MEMBER)                                                                     \
  static_assert(std::string_view(#NAME) == support[ID].tile.MEMBER.name);                                     \
  template <class T, unsigned SG_SIZE>                                                                        \
  void NAME(const uint8_t* weight, T* tile, uint64_t state_size, uint64_t output_size, uint64_t rows,         \
            uint64_t first_row, c10::Device device) {                                                         \
    expand_tile(ID, SG_SIZE == 32 ? 0 : 1, {weight, state_size, output_size, device}, first_row, rows, tile); \
  }
CORVANE_TILE_EXPANSIONS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

#define CORVANE_DECLARE(NAME, ID)                                                \
  static_assert(std::string_view(#NAME) == support[ID].explicit_simd.kernel);    \
  template <class T>                                                             \
  void NAME(const uint8_t* weight, T* output, uint64_t nb, c10::Device device) { \
    const uint64_t block = registry[ID].block_elements;                          \
    expand_explicit_simd<T>(ID, {weight, block * nb, 1, device}, {output});      \
  }
CORVANE_EXPLICIT_SIMD_EXPANSIONS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

}  // namespace corvane
