// Fused projections from iq2_xxs weights, the value weight being q2_k: integer dot products with 8-bit activations.
#include "fused/qkv_frame.hpp"
#include "linear/q8_1_dots.hpp"

namespace corvane {
namespace {

// The products of the groups of a row are converted to T before they are summed.
template <class Dots, class T>
simd<T, 16> row_dot(const projection<T>& matrix, uint32_t row, const staged_row<Dots>& input, uint32_t blocks) {
  auto sum = simd<T, 16>::zero();
  for_each_dot<Dots>(matrix.weight + uint64_t{row} * blocks * Dots::block_bytes, input.data(), blocks,
                     [&](sycl::f32x16 dots) { sum = sum + simd<T, 16>::from_float(dots); });
  return sum;
}

template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned Matrices>
void project_q8_1(const projection_kernel& which, const uint8_t* input, const projection_arguments<T, Matrices>& a,
                  c10::Device device) {
  const auto blocks = static_cast<uint32_t>(a.state_size / detail::block_elements);
  staged_row<iq2_xxs_dots> row(blocks);
  staged_row<q2_k_dots> row_of_value(Matrices == 3 ? blocks : 0);
  launch_projections<T, SG_SIZE, WG_SIZE, false>(
      which, a, device,
      [&row, &row_of_value, input] {
        row.fill(input);
        if (Matrices == 3) row_of_value.fill(input);
      },
      [&row, &row_of_value, &a, blocks](unsigned m, const rotary_pair& pair, simd<T, 16>(&sums)[2]) {
        const projection<T>& matrix = a.matrices[m];
        for (unsigned r = 0; r < 2; ++r) {
          const uint32_t n = r == 0 ? pair.row : pair.partner();
          sums[r] = m == value_matrix ? row_dot(matrix, n, row_of_value, blocks) : row_dot(matrix, n, row, blocks);
        }
      });
}

}  // namespace

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_iq2_xxs_qkv(const uint8_t* input, const qkv_arguments<T>& arguments, c10::Device device) {
  project_q8_1<T, SG_SIZE, WG_SIZE>(iq2_xxs_qkv, input, arguments, device);
}

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_iq2_xxs_qk(const uint8_t* input, const projection_arguments<T, 2>& arguments,
                                   c10::Device device) {
  project_q8_1<T, SG_SIZE, WG_SIZE>(iq2_xxs_qk, input, arguments, device);
}

#define INSTANCES(T)                                                                                             \
  template void qlinear_xpu_kernel_iq2_xxs_qkv<T, 32, 32>(const uint8_t*, const qkv_arguments<T>&, c10::Device); \
  template void qlinear_xpu_kernel_iq2_xxs_qk<T, 32, 32>(const uint8_t*, const projection_arguments<T, 2>&,      \
                                                         c10::Device);
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
