// Sums of code times input along weight rows: the part that all matrix-vector kernels, small batches, fused projections
// and the gated MLP share. Which rows, and what becomes of their sums, is the caller's.
#pragma once

#include <cstdint>

#include "formats/reader.hpp"

namespace corvane {

// Which rows a work-group reads, and how far ahead of them the next group's lie.
template <unsigned Rows>
struct row_list {
  uint32_t first_unit[Rows];  // unit of each row's first element
  uint32_t ahead;             // units from a row to the one that takes its place in the next group: fetched meanwhile
};

namespace detail {

// Units u to u + Units - 1 of all rows. The Rows * Units dot products are staged side by side: in Half and BFloat16
// each operation waits 10 to 20 cycles for the rounding of the one before it in its own chain.
template <class Reader, class T, unsigned Rows, unsigned Units>
CORVANE_INLINE void accumulate_units(const T* input, const typename Reader::planes& weight, const row_list<Rows>& rows,
                                     uint32_t u, simd<T, 16> (&sum)[Rows]) {
  constexpr unsigned run = Reader::shared_scale / 16;  // lane values under one scale
  constexpr unsigned chains = Rows * Units;            // chain c: row c % Rows, unit u + c / Rows
  const auto unit = [&](unsigned c) { return rows.first_unit[c % Rows] + u + c / Rows; };
  const auto x = [&](unsigned c, unsigned v) {
    return simd<T, 16>::load(input + unit_elements * (u + c / Rows) + 16 * v);
  };
  if constexpr (Rows > 1) {
    for (unsigned c = 0; c < chains; ++c) Reader::prefetch(weight, unit(c) + rows.ahead);
  }
  typename Reader::raw codes[chains];
  for (unsigned c = 0; c < chains; ++c) codes[c] = Reader::fetch(weight, unit(c));
  for (unsigned v = 0; v < 4; v += run) {
    simd<T, 16> dot[chains];
    for (unsigned c = 0; c < chains; ++c) dot[c] = x(c, v) * Reader::template decode<T>(codes[c], v);
    for (unsigned i = v + 1; i < v + run; ++i) {
      for (unsigned c = 0; c < chains; ++c) {
        dot[c] = multiply_add(x(c, i), Reader::template decode<T>(codes[c], i), dot[c]);
      }
    }
    for (unsigned c = 0; c < chains; ++c) {
      sum[c % Rows] = multiply_add(dot[c], Reader::template scale<T>(weight, unit(c), v), sum[c % Rows]);
    }
    if constexpr (Reader::has_offset) {
      simd<T, 16> sum_x[Units];
      for (unsigned n = 0; n < Units; ++n) sum_x[n] = x(n * Rows, v);
      for (unsigned i = v + 1; i < v + run; ++i) {
        for (unsigned n = 0; n < Units; ++n) sum_x[n] = sum_x[n] + x(n * Rows, i);
      }
      for (unsigned c = 0; c < chains; ++c) {
        sum[c % Rows] = multiply_add(sum_x[c / Rows], Reader::template offset<T>(weight, unit(c), v), sum[c % Rows]);
      }
    }
  }
}

// Chains that are worth staging: more for types with long roundings, fewer where a value takes two registers.
template <class T>
constexpr unsigned staged_chains = sizeof(T) == 2 ? 8 : 2;

}  // namespace detail

// Adds to sums[r], for each row r, input . row in T: lane t takes elements t, t + 16, t + 32, t + 48 of every unit. A
// run under one scale is summed first and scaled once. `units` units of 64 elements make a row; input holds 64 * units.
template <class Reader, class T, unsigned Rows>
CORVANE_INLINE void accumulate_rows(const T* input, const typename Reader::planes& weight, const row_list<Rows>& rows,
                                    uint32_t units, simd<T, 16> (&sums)[Rows]) {
  constexpr unsigned step = detail::staged_chains<T> > Rows ? detail::staged_chains<T> / Rows : 1;
  simd<T, 16> sum[Rows];  // by value: through the reference the compiler keeps some of them in memory
  for (unsigned r = 0; r < Rows; ++r) sum[r] = sums[r];
  uint32_t u = 0;
  for (; u + step <= units; u += step) {
    detail::accumulate_units<Reader, T, Rows, step>(input, weight, rows, u, sum);
  }
  for (; u < units; ++u) detail::accumulate_units<Reader, T, Rows, 1>(input, weight, rows, u, sum);
  for (unsigned r = 0; r < Rows; ++r) sums[r] = sum[r];
}

}  // namespace corvane
