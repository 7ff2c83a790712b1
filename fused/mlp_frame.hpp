// What the kernels of the gated MLP share: the ending, and for the formats that are multiplied in T the whole kernel.
#pragma once

#include <algorithm>

#include "fused/mlp_kernels.hpp"
#include "fused/row_dots.hpp"
#include "module/frame/launch.hpp"
#include "platform/sycl/math.hpp"

namespace corvane {

// Output rows that a block of work-groups finishes together, one to a lane.
constexpr unsigned gated_rows = 16;

namespace detail {

// (1 + tanh(x)) for the tanh form: tanh to within a few 2^-24, absolute.
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

// The ending of work-item 0 for `rows` neighbouring output rows, at most gated_rows, whose dot products with the two
// weights are in gate and up; entries behind them are not looked at.
template <class T>
void store_gated(mlp_activation form, const T* gate, const T* up, T* output, std::size_t rows) {
  T results[gated_rows];
  gated(form, simd<T, 16>::load(gate), simd<T, 16>::load(up)).store(results);
  std::copy_n(results, rows, output);
}

// A work-group makes ROWS_PER_WG output rows, from the same rows of both weights.
template <class Reader, class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void gated_mlp(const mlp_kernel& which, const T* input, const mlp_arguments<T>& a, c10::Device device) {
  constexpr std::size_t block_groups = gated_rows / ROWS_PER_WG;
  const typename Reader::planes weights[2] = {Reader::locate(a.first, a.state_size, a.output_size),
                                              Reader::locate(a.second, a.state_size, a.output_size)};
  const auto units = static_cast<uint32_t>(a.state_size / unit_elements);
  const uint64_t groups = (a.output_size + ROWS_PER_WG - 1) / ROWS_PER_WG;
  launch_row<T> row(input, units);

  const auto prepare = [&row] { row.prepare(); };
  const auto kernel = [&row, &weights, &a, units](const sycl::group_block<1>& block) {
    T sums[2][gated_rows] = {};  // of the two weights
    const uint64_t first_row = block.first(0) * ROWS_PER_WG;
    for (unsigned g = 0; g < block.count(0); ++g) {
      row_list<ROWS_PER_WG> rows;
      rows.ahead = ROWS_PER_WG * units;
      for (unsigned r = 0; r < ROWS_PER_WG; ++r) {
        // A row past the end reads the last row again; it is not written.
        const uint64_t n = std::min(first_row + g * ROWS_PER_WG + r, a.output_size - 1);
        rows.first_unit[r] = static_cast<uint32_t>(n) * units;
      }
      for (unsigned w = 0; w < 2; ++w) row_dots<Reader>(row, weights[w], rows, &sums[w][g * ROWS_PER_WG]);
    }
    const uint64_t count = std::min<uint64_t>(block.count(0) * ROWS_PER_WG, a.output_size - first_row);
    store_gated(a.activation, sums[0], sums[1], a.output + first_row, count);
  };
  launch<1>(device, {mlp_source, which.name}, {{groups * WG_SIZE}, {WG_SIZE}}, sycl::sub_group_size{SG_SIZE},
            sycl::prepared_kernel{prepare, sycl::block_kernel<1, decltype(kernel)>{{block_groups}, kernel}});
}

}  // namespace corvane
