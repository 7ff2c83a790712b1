// The matrix-vector kernel of the formats with blocks of 64 elements: one input row against a packed weight, y[n] = sum
// over k of x[k] * W[n][k], all arithmetic in T. A format enters through its reader alone (formats/reader.hpp).
#pragma once

#include "linear/row_dots.hpp"
#include "linear/row_frame.hpp"
#include "platform/sycl/tuning.hpp"

namespace corvane {

template <class Reader,
          class T>  // input, output and sums: Half, float, double, BFloat16
void matvec(const kernel_launch& how, const T* input, const uint8_t* weight, T* output, uint64_t state_size,
            uint64_t output_size, c10::Device device) {
  constexpr unsigned together = sycl::tuning::rows_side_by_side<T>;
  const typename Reader::planes planes = Reader::locate(weight, state_size, output_size);
  const auto units = static_cast<uint32_t>(state_size / unit_elements);
  prepared_row<Reader, T> row(input, units);
  launch_rows(
      device, {linear_source, how.name}, how.sizes, output_size, [&row] { row.prepare(); },
      [&](uint64_t first_row, unsigned rows) {
        for_rows<T, 1, together>(
            rows,
            [&](unsigned r, auto& sums) {
              const auto list = rows_from<together>(first_row + r, output_size, units);
              row_dots<Reader, 1>(row.view(), 0, planes, list, units, sums);
            },
            [&](const auto& totals) { store_rows(totals[0], output + first_row, rows); });
      });
}

}  // namespace corvane
