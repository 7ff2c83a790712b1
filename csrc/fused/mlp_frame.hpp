// What the kernels of the gated MLP share: the ending, and for the formats that are multiplied in T the whole kernel.
#pragma once

#include <algorithm>

#include "frame/launch.hpp"
#include "fused/mlp_kernels.hpp"
#include "fused/row_dots.hpp"
#include "platform/sycl/math.hpp"

namespace corvane {

namespace detail {

// 1 + tanh(x); the absolute error of tanh is a few 2^-24.
CORVANE_INLINE sycl::f32x16 one_plus_tanh(sycl::f32x16 x) { return 1.0f + (1.0f - 2.0f / (sycl::exp(x + x) + 1.0f)); }

}  // namespace detail

// activation(gate) * up, the activation in float. In double `up` keeps its precision, and the SiLU form divides first.
template <class T>
CORVANE_INLINE simd<T, 16> gated(mlp_activation form, const simd<T, 16>& gate, const simd<T, 16>& up) {
  using sycl::f32x16;
  const f32x16 g = gate.to_float();
  f32x16 factor;
  if (form == mlp_activation::silu) {
    const f32x16 divisor = 1.0f + sycl::exp(-g);
    if constexpr (!std::is_same_v<T, double>) return simd<T, 16>::from_float((g * up.to_float()) / divisor);
    factor = g / divisor;
  } else {
    constexpr float root = 0.7978845834732056f;     // 0x3F4C422A, sqrt(2 / pi)
    constexpr float cubic = 0.044714998453855515f;  // 0x3D372713
    factor = 0.5f * g * detail::one_plus_tanh(root * (g + cubic * (g * g * g)));
    if constexpr (!std::is_same_v<T, double>) return simd<T, 16>::from_float(factor * up.to_float());
  }
  return up * simd<T, 16>::exact(factor);
}

// The tree and the ending for tree_rows neighbouring output rows, of which `rows` exist. sums: their dot products with
// either weight, spread over the lanes.
template <class T>
CORVANE_INLINE void store_gated(mlp_activation form, const simd<T, 16> (&sums)[2][tree_rows], T* output,
                                uint64_t rows) {
  T results[tree_rows];
  gated(form, sum_trees(sums[0]), sum_trees(sums[1])).store(results);
  std::copy_n(results, rows, output);
}

// A work-group makes ROWS_PER_WG output rows, from the same rows of both weights.
template <class Reader, class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void gated_mlp(const mlp_kernel& which, const T* input, const mlp_arguments<T>& a, c10::Device device) {
  constexpr std::size_t block_groups = tree_rows / ROWS_PER_WG;
  const typename Reader::planes weights[2] = {Reader::locate(a.first, a.state_size, a.output_size),
                                              Reader::locate(a.second, a.state_size, a.output_size)};
  const auto units = static_cast<uint32_t>(a.state_size / unit_elements);
  const uint64_t groups = (a.output_size + ROWS_PER_WG - 1) / ROWS_PER_WG;
  prepared_row<T> row(input, units);

  const auto prepare = [&row] { row.prepare(); };
  const auto kernel = [&row, &weights, &a, units](const sycl::group_block<1>& block) {
    const uint64_t first_row = block.first(0) * ROWS_PER_WG;
    simd<T, 16> sums[2][tree_rows];
    for (auto& of_weight : sums) std::fill_n(of_weight, tree_rows, simd<T, 16>::zero());
    for (unsigned g = 0; g < block.count(0); ++g) {
      const auto rows = rows_from<ROWS_PER_WG>(first_row + g * ROWS_PER_WG, a.output_size, units);
      // The weights in turn, as on a device. Sixteen rows of one and then of the other: float 4 % slower, Half 2 %
      // faster.
      for (unsigned w = 0; w < 2; ++w) {
        simd<T, 16> group_sums[ROWS_PER_WG];
        row_dots<Reader>(row, weights[w], rows, group_sums);
        std::copy_n(group_sums, ROWS_PER_WG, sums[w] + g * ROWS_PER_WG);
      }
    }
    store_gated(a.activation, sums, a.output + first_row, std::min<uint64_t>(tree_rows, a.output_size - first_row));
  };
  launch<1>(device, {mlp_source, which.name}, {{groups * WG_SIZE}, {WG_SIZE}}, sycl::sub_group_size{SG_SIZE},
            sycl::prepared_kernel{prepare, sycl::block_kernel<1, decltype(kernel)>{{block_groups}, kernel}});
}

}  // namespace corvane
