// The gated MLP from iq2_xxs weights: integer dot products with 8-bit activations.
#include "fused/mlp_frame.hpp"
#include "linear/q8_1_dots.hpp"

namespace corvane {

// Two output rows to a group, 32 work-items each: the second dimension.
template <class T>
void mlp_forward_iq2_xxs_kernel(const uint8_t* input, const mlp_arguments<T>& a, c10::Device device) {
  constexpr std::size_t rows_per_group = 2, block_groups = tree_rows / rows_per_group;
  const auto row_blocks = static_cast<uint32_t>(a.state_size / detail::block_elements);
  staged_row<iq2_xxs_dots> row(row_blocks);

  const auto prepare = [&row, input] { row.fill(input); };
  const auto kernel = [&row, &a, row_blocks](const sycl::group_block<2>& block) {
    simd<T, 16> sums[2][tree_rows];
    for (auto& of_weight : sums) std::fill_n(of_weight, tree_rows, simd<T, 16>::zero());
    const uint64_t first_row = block.first(0) * rows_per_group;
    // A row beyond the end skips its arithmetic.
    const uint64_t count = std::min<uint64_t>(block.count(0) * rows_per_group, a.output_size - first_row);
    for (uint64_t r = 0; r < count; ++r) {
      for (unsigned w = 0; w < 2; ++w) {
        const uint8_t* weight = w == 0 ? a.first : a.second;
        sycl::f32x16 sum{};
        for_each_dot<iq2_xxs_dots>(weight + (first_row + r) * row_blocks * iq2_xxs_dots::block_bytes, row.data(),
                                   row_blocks, [&](sycl::f32x16 dots) { sum += dots; });
        sums[w][r] = simd<T, 16>::from_float(sum);
      }
    }
    store_gated(a.activation, sums, a.output + first_row, count);
  };
  launch<2>(device, {mlp_source, mlp_iq2_xxs.name},
            {{(a.output_size + 1) / rows_per_group * 32, rows_per_group}, {32, 2}}, sycl::sub_group_size{32},
            sycl::prepared_kernel{prepare, sycl::block_kernel<2, decltype(kernel)>{{block_groups, 1}, kernel}});
}

#define INSTANCE(T) template void mlp_forward_iq2_xxs_kernel<T>(const uint8_t*, const mlp_arguments<T>&, c10::Device);
CORVANE_FOR_ELEMENT_TYPES(INSTANCE)

}  // namespace corvane
