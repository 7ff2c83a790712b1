// Dot products of the input row with a few weight rows, as numbers: what the fused kernels make before their endings.
// Apart from the kernels, so that a format is compiled once per element type and not once per launch geometry.
#pragma once

#include "linear/row_accumulation.hpp"

namespace corvane {

// The input row of a launch, made ready in its first phase (see sycl::prepared_kernel).
template <class T>
using launch_row = prepared_row<T>;

template <class Reader, class T, unsigned Rows>
void row_dots(const launch_row<T>& input, const typename Reader::planes& weight, const row_list<Rows>& rows,
              T* results) {
  simd<T, 16> sums[Rows];
  for (auto& sum : sums) sum = simd<T, 16>::zero();
  accumulate_rows<Reader>(input.view(), weight, rows, input.units(), sums);
  for (unsigned r = 0; r < Rows; ++r) results[r] = sum_tree(sums[r]);
}

}  // namespace corvane
