// The gated MLP: dot products of the same rows of two weights, and their ending.
#include "fused/mlp_kernels.hpp"

#include "formats/q8_1_dots.hpp"
#include "formats/readers.hpp"
#include "linear/row_dots.hpp"
#include "platform/sycl/math.hpp"

namespace corvane {
namespace {

// 1 + tanh(x); the absolute error of tanh is a few 2^-24.
CORVANE_INLINE sycl::f32x16 one_plus_tanh(sycl::f32x16 x) { return 1.0f + (1.0f - 2.0f / (sycl::exp(x + x) + 1.0f)); }

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
    factor = 0.5f * g * one_plus_tanh(root * (g + cubic * (g * g * g)));
    if constexpr (!std::is_same_v<T, double>) return simd<T, 16>::from_float(factor * up.to_float());
  }
  return up * simd<T, 16>::exact(factor);
}

// The ending for up to sixteen output rows.
template <class T>
void store_gated(const mlp_arguments<T>& a, const simd<T, 16> (&totals)[2], uint64_t first_row, unsigned rows) {
  store_rows(gated(a.activation, totals[0], totals[1]), a.output + first_row, rows);
}

// In T, by units.
template <int32_t Id, class T>
void gated_units(const kernel_launch& how, const T* input, const mlp_arguments<T>& a, c10::Device device) {
  using reader = scaled_reader_of<Id>;
  const typename reader::planes weights[2] = {reader::locate(a.first, a.state_size, a.output_size),
                                              reader::locate(a.second, a.state_size, a.output_size)};
  const auto units = static_cast<uint32_t>(a.state_size / unit_elements);
  const auto dots = scaled_row_dots<Id, T>();
  prepared_row<reader, T> row(input, units);
  launch_rows(
      device, {mlp_source, how.name}, how.sizes, a.output_size, [&row] { row.prepare(); },
      [&](uint64_t first_row, unsigned rows) {
        for_rows<T, 2, fused_rows<T>>(
            rows,
            [&](unsigned r, auto& sums) {
              const auto list = rows_from<fused_rows<T>>(first_row + r, a.output_size, units);
              // The weights in turn, as on a device.
              for (unsigned w = 0; w < 2; ++w) {
                dots(row.view(), 0, weights[w], list, units,
                     reinterpret_cast<simd<T, 16>(&)[1][fused_rows<T>]>(sums[w]));
              }
            },
            [&](const auto& totals) { store_gated(a, totals, first_row, rows); });
      });
}

// Integer dot products with 8-bit activations. Two output rows to a group, the second dimension.
template <int32_t Id, class T>
void gated_q8_1(const kernel_launch& how, const uint8_t* input, const mlp_arguments<T>& a, c10::Device device) {
  using dots = dots_of<Id>;
  const auto blocks = static_cast<uint32_t>(a.state_size / detail::super_block_elements);
  const uint8_t* weights[2] = {a.first, a.second};
  staged_row<dots> row(blocks);
  launch_rows<2>(
      device, {mlp_source, how.name}, how.sizes, a.output_size, [&row, input] { row.fill(input); },
      [&](uint64_t first_row, unsigned rows) {
        for_rows<T, 2>(
            rows,
            [&](unsigned r, auto& sums) {
              for (unsigned w = 0; w < 2; ++w) {
                const uint8_t* at = weights[w] + (first_row + r) * blocks * dots::block_bytes;
                sycl::f32x16 lanes{};
                for_each_dot<dots>(at, row.data(), blocks, [&](sycl::f32x16 products) { lanes += products; });
                sums[w][0] = simd<T, 16>::from_float(lanes);
              }
            },
            [&](const auto& totals) { store_gated(a, totals, first_row, rows); });
      });
}

}  // namespace

template <class T>
void gated_mlp(int32_t qtype, const kernel_launch& how, const void* input, const mlp_arguments<T>& arguments,
               c10::Device device) {
  constexpr auto has_mlp = [](const format_support& s) { return s.mlp.kernel.name != nullptr; };
  with_format<has_mlp>(qtype, [&](auto id) {
    if constexpr (takes_eight_bit_input(support[id])) {
      gated_q8_1<id>(how, static_cast<const uint8_t*>(input), arguments, device);
    } else {
      gated_units<id>(how, static_cast<const T*>(input), arguments, device);
    }
  });
}

#define INSTANCE(T) \
  template void gated_mlp(int32_t, const kernel_launch&, const void*, const mlp_arguments<T>&, c10::Device);
CORVANE_FOR_ELEMENT_TYPES(INSTANCE)

}  // namespace corvane
