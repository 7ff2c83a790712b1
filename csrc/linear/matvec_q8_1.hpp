// The one-row kernels on 8-bit activations: integer dot products of a row with iq2_xxs, iq1_s and q2_k weights. 32
// work-items to a row on a device, 16 lanes here.
#pragma once

#include "formats/q8_1_dots.hpp"
#include "linear/row_frame.hpp"

namespace corvane {

// The host waits for the kernel, so that the activations may go when this returns. A lane sums its dot products in
// float; its sum becomes a value of sum_of<T> before the lanes are added.
template <class Dots,
          class T>  // output
void matvec_q8_1(const kernel_launch& how, const uint8_t* activations, const uint8_t* weight, T* output,
                 uint64_t state_size, uint64_t output_size, c10::Device device) {
  using sum = typename Dots::template sum_of<T>;
  const auto blocks = static_cast<uint32_t>(state_size / detail::super_block_elements);
  staged_row<Dots> row(blocks);
  launch_rows<2>(
      device, {linear_source, how.name}, how.sizes, output_size, [&] { row.fill(activations); },
      [&](uint64_t first_row, unsigned rows) {
        for_rows<sum>(
            rows,
            [&](unsigned r, auto& sums) {
              const uint8_t* at = weight + (first_row + r) * blocks * Dots::block_bytes;
              sycl::f32x16 lanes{};
              for_each_dot<Dots>(at, row.data(), blocks, [&](sycl::f32x16 dots) { lanes += dots; });
              sums[0][0] = simd<sum, 16>::from_float(lanes);
            },
            [&](const auto& totals) { store_rows(totals[0], output + first_row, rows); });
      },
      host_wait::yes);
}

}  // namespace corvane
