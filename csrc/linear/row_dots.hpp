// Dot products of input rows with a few weight rows, still spread over lanes: the part that all kernels share that walk
// weight rows by units. Which rows, and what becomes of their sums, is the caller's.
#pragma once

#include <algorithm>
#include <cstdint>

#include "linear/row_input.hpp"
#include "platform/sycl/tuning.hpp"

namespace corvane {

constexpr unsigned rows_together = 2;  // weight rows that a small batch walks side by side
template <class T>
constexpr unsigned fused_rows = sycl::tuning::rows_side_by_side<T>;  // and a fused kernel

// Which rows are read together, and how far ahead of them the next ones lie, which are asked for meanwhile: of several
// streams the processor loses track by itself.
template <unsigned Rows>
struct row_list {
  uint32_t first_unit[Rows];  // unit of each row's first element
  uint32_t ahead;             // units from a row to the one that takes its place next
};

// Neighbouring rows of `units` units, from first_row on. A row past the end reads the last row again, so that nothing
// beyond the weight is touched; it is not written.
template <unsigned Rows>
CORVANE_INLINE row_list<Rows> rows_from(uint64_t first_row, uint64_t output_size, uint32_t units) {
  row_list<Rows> rows;
  rows.ahead = Rows * units;
  for (unsigned r = 0; r < Rows; ++r) {
    rows.first_unit[r] = static_cast<uint32_t>(std::min(first_row + r, output_size - 1)) * units;
  }
  return rows;
}

// Adds to sums[i][r], for each input i and row r, input . row in T, a part of it to each lane. A lane adds up the
// products of a unit (64 elements, four lanes' worth; in groups of two units eight) and scales them once. `units` units
// make a row; the next input begins `stride` lanes behind this one. Defined in row_dots_body.hpp.
template <class Reader, unsigned Inputs, class T, unsigned Rows>
void row_dots(const row_input<T>& input, uint64_t stride, const typename Reader::planes& weight,
              const row_list<Rows>& rows, uint32_t units, simd<T, 16> (&sums)[Inputs][Rows]);

template <class Reader, class T>
using row_dots_function = void (*)(const row_input<T>&, uint64_t, const typename Reader::planes&,
                                   const row_list<fused_rows<T>>&, uint32_t, simd<T, 16> (&)[1][fused_rows<T>]);

// row_dots of one input with the format's scales, for the fused kernels; null for a format of another row scheme.
// Compiled with the format's one-row kernel.
template <int32_t Id, class T>
row_dots_function<scaled_reader_of<Id>, T> scaled_row_dots();

}  // namespace corvane
