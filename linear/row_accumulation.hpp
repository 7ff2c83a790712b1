// Sums of code times input along weight rows: the part that all matrix-vector kernels, small batches, fused projections
// and the gated MLP share. Which rows, and what becomes of their sums, is the caller's.
#pragma once

#include <algorithm>
#include <cstdint>

#include "linear/row_input.hpp"

namespace corvane {

// Which rows a work-group reads, and how far ahead of them the next group's lie.
template <unsigned Rows>
struct row_list {
  uint32_t first_unit[Rows];  // unit of each row's first element
  uint32_t ahead;             // units from a row to the one that takes its place in the next group: fetched meanwhile
};

namespace detail {

constexpr unsigned batch_units = 16;  // units whose scales are converted together, one to a lane

// Chains of dependent operations that are worth staging side by side. In Half and BFloat16 each operation waits 8 to 17
// cycles for the rounding of the one before it: measured per unit with 2, 4 and 8 chains and two rows, Half 4.8, 4.2
// and 3.7 ns, BFloat16 5.5, 4.9 and 4.6. In float and double more than 2 only cost registers.
template <class T>
constexpr unsigned staged_chains = sizeof(T) == 2 ? 8 : 2;

// Sums that a row is spread over, since a sum waits for its own last rounding too: Half 5.0 to 3.9 ns with one row.
template <class T, unsigned Units>
constexpr unsigned sums_of_row = sizeof(T) == 2 && Units > 1 ? 2 : 1;

template <class T>
CORVANE_INLINE simd<T, 16> input_lanes(const T* input, uint64_t element) {
  return simd<T, 16>::load(input + element);
}
template <class T>
CORVANE_INLINE simd<T, 16> input_lanes(const row_input<T>& input, uint64_t element) {
  return simd<T, 16>::load_lanes(input.lanes + element);
}

// Units u to u + Units - 1 of all rows against all inputs, the units of a row in turn to its Sums sums. A code is
// decoded once for all inputs. `scales` begins with that of unit u of row 0; rows lie batch_units apart.
template <class Reader, class T, unsigned Inputs, unsigned Rows, unsigned Units, unsigned Sums, class Input>
CORVANE_INLINE void accumulate_units(const Input& input, uint64_t stride, const typename Reader::planes& weight,
                                     const row_list<Rows>& rows, uint32_t u, const sycl::lane_of<T>* scales,
                                     simd<T, 16>* sum) {
  constexpr unsigned chains = Rows * Units;  // chain c: row c % Rows, unit u + c / Rows
  const auto unit = [&](unsigned c) { return rows.first_unit[c % Rows] + u + c / Rows; };
  if constexpr (Rows > 1) {
    for (unsigned c = 0; c < chains; ++c) Reader::prefetch(weight, unit(c) + rows.ahead);
  }
  simd<T, 16> dot[Inputs * chains];
  sycl::unroll<4>([&](auto v) CORVANE_INLINE_LAMBDA {
    sycl::unroll<chains>([&](auto c) CORVANE_INLINE_LAMBDA {
      const simd<T, 16> code = Reader::template decode<T>(Reader::fetch(weight, unit(c)), v);
      sycl::unroll<Inputs>([&](auto i) CORVANE_INLINE_LAMBDA {
        const simd<T, 16> x = input_lanes(input, i * stride + unit_elements * (u + c / Rows) + 16 * v);
        simd<T, 16>& to = dot[i * chains + c];
        if constexpr (v == 0) {
          to = x * code;
        } else {
          to = multiply_add(x, code, to);
        }
      });
    });
  });
  sycl::unroll<chains>([&](auto c) CORVANE_INLINE_LAMBDA {
    sycl::unroll<Inputs>([&](auto i) CORVANE_INLINE_LAMBDA {
      simd<T, 16>& to = sum[i * Rows * Sums + c % (Rows * Sums)];
      if constexpr (Reader::shared_scale != 0) {
        to = multiply_add(dot[i * chains + c], simd<T, 16>::broadcast_lane(scales[c % Rows * batch_units + c / Rows]),
                          to);
      } else {
        to = to + dot[i * chains + c];
      }
    });
  });
}

}  // namespace detail

// Adds to sums[i * Rows + r], for each input i and row r, input . row in T: lane t takes elements t, t + 16, t + 32, t
// + 48 of every unit. A unit is summed first and scaled once. `units` units of 64 elements make a row; an input holds
// 64 * units, as a row_input<T> or, where the format has no offset, a plain const T*; the next input begins `stride`
// elements on.
template <class Reader, unsigned Inputs = 1, class T, unsigned Rows, class Input>
CORVANE_INLINE void accumulate_rows(const Input& input, const typename Reader::planes& weight,
                                    const row_list<Rows>& rows, uint32_t units, simd<T, 16> (&sums)[Inputs * Rows],
                                    uint64_t stride = 0) {
  static_assert(Reader::shared_scale == unit_elements || Reader::shared_scale == 0, "a unit has one scale, or none");
  static_assert(!Reader::has_offset || (std::is_same_v<Input, row_input<T>> && Inputs == 1),
                "unit sums are made once a launch, for one input");
  using detail::batch_units;
  constexpr unsigned step = std::max(detail::staged_chains<T> / (Rows * Inputs), 1u);
  constexpr unsigned spread = detail::sums_of_row<T, step>;

  simd<T, 16> sum[Inputs * spread * Rows];  // of input i, sum s of row r: number (i * spread + s) * Rows + r
  sycl::unroll<Inputs * spread * Rows>([&](auto n) CORVANE_INLINE_LAMBDA {
    if constexpr (n / Rows % spread == 0) {
      sum[n] = sums[n / (spread * Rows) * Rows + n % Rows];
    } else {
      sum[n] = simd<T, 16>::zero();
    }
  });
  alignas(64) sycl::lane_of<T> scales[Rows * batch_units];
  for (uint32_t first = 0; first < units; first += batch_units) {
    const uint32_t count = std::min(units - first, batch_units);
    sycl::unroll<Rows>([&](auto r) CORVANE_INLINE_LAMBDA {
      const uint32_t unit = rows.first_unit[r] + first;
      if constexpr (Reader::shared_scale != 0) {
        Reader::template scales<T>(weight, unit, count).store_lanes(scales + r * batch_units);
      }
      if constexpr (Reader::has_offset) {  // lanes are units here
        sum[r] = multiply_add(simd<T, 16>::load_lanes(input.unit_sums + first),
                              Reader::template offsets<T>(weight, unit, count), sum[r]);
      }
    });
    uint32_t n = 0;
    for (; n + step <= count; n += step) {
      detail::accumulate_units<Reader, T, Inputs, Rows, step, spread>(input, stride, weight, rows, first + n,
                                                                      scales + n, sum);
    }
    if constexpr (step > 1) {
      for (; n < count; ++n) {
        simd<T, 16> rest[Inputs * Rows];
        sycl::unroll<Inputs * Rows>([&](auto k)
                                        CORVANE_INLINE_LAMBDA { rest[k] = sum[k / Rows * spread * Rows + k % Rows]; });
        detail::accumulate_units<Reader, T, Inputs, Rows, 1, 1>(input, stride, weight, rows, first + n, scales + n,
                                                                rest);
        sycl::unroll<Inputs * Rows>([&](auto k)
                                        CORVANE_INLINE_LAMBDA { sum[k / Rows * spread * Rows + k % Rows] = rest[k]; });
      }
    }
  }
  sycl::unroll<Inputs * Rows>([&](auto k) CORVANE_INLINE_LAMBDA {
    const simd<T, 16>* of_row = sum + k / Rows * spread * Rows + k % Rows;
    sums[k] = *of_row;
    if constexpr (spread == 2) sums[k] = sums[k] + of_row[Rows];
  });
}

}  // namespace corvane
