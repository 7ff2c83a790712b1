// Dot products of the input row with a few weight rows, still spread over the lanes: what the fused kernels make before
// their endings. Apart from the kernels, so that a format is compiled once per element type and not once per launch
// geometry.
#pragma once

#include "linear/row_accumulation.hpp"
#include "linear/row_sums.hpp"

namespace corvane {

template <class Reader, class T, unsigned Rows>
void row_dots(const prepared_row<T>& input, const typename Reader::planes& weight, const row_list<Rows>& rows,
              simd<T, 16> (&sums)[Rows]) {
  for (auto& sum : sums) sum = simd<T, 16>::zero();
  accumulate_rows<Reader>(input.view(), weight, rows, input.units(), sums);
}

}  // namespace corvane
