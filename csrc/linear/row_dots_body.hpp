// The sums of code times input along weight rows: what is compiled once for each reader and element type.
#pragma once

#include "linear/row_dots.hpp"
#include "platform/sycl/tuning.hpp"

namespace corvane {

namespace detail {

constexpr unsigned batch_units = 16;  // units whose scales are converted together, one to a lane

// Codes of a group of units, of which `there` exist.
template <class Reader, class T>
CORVANE_INLINE auto fetch_group(const typename Reader::planes& weight, uint32_t unit, uint32_t there) {
  if constexpr (is_woven<Reader, T>) {
    return Reader::fetch_woven(weight, unit, there);
  } else if constexpr (group_units<Reader, T> == 1) {
    return Reader::fetch(weight, unit);
  } else {
    return sycl::load_some<sycl::i32x16>(Reader::fetch(weight, unit), 32 * there);
  }
}

// Lanes v of a group.
template <class Reader, class T, class Codes>
CORVANE_INLINE simd<T, 16> decode_group(const Codes& codes, unsigned v) {
  if constexpr (is_woven<Reader, T>) {
    return Reader::template woven_line<T>(codes, v);
  } else if constexpr (group_units<Reader, T> == 1) {
    return Reader::template decode<T>(codes, v);
  } else {
    return Reader::template value_in_words<T>(codes, v / 2, v % 2);
  }
}

// The scales of a group's units in its lanes.
template <class Reader, class T>
CORVANE_INLINE simd<T, 16> of_group(const sycl::lane_of<T>* of_unit) {
  if constexpr (group_units<Reader, T> == 1) {
    return simd<T, 16>::broadcast_lane(*of_unit);
  } else if constexpr (group_units<Reader, T> == 4) {
    simd<T, 16> scales;
    if constexpr (std::is_same_v<T, double>) {
      for (unsigned i = 0; i < 2; ++i) scales.r[i] = sycl::splat_halves(of_unit[2 * i], of_unit[2 * i + 1]);
    } else {
      scales.r[0] = sycl::splat_quarters(of_unit);
    }
    return scales;
  } else {
    return simd<T, 16>::exact(sycl::splat_halves(of_unit[0], of_unit[1]));
  }
}

// Groups from unit u on, Groups of them, of all rows against all inputs, the groups of a row in turn to its Sums sums.
// A code is decoded once for all inputs. `scales` and `offsets` begin with those of unit u of row 0; rows lie
// batch_units apart.
template <class Reader, class T,
          bool Quick,  // products and sums of a unit are rounded faster: row_input.hpp
          unsigned Inputs, unsigned Rows, unsigned Groups, unsigned Sums>
CORVANE_INLINE void accumulate_groups(const row_input<T>& input, uint64_t stride, const typename Reader::planes& weight,
                                      const row_list<Rows>& rows, uint32_t u, const sycl::lane_of<T>* scales,
                                      const sycl::lane_of<T>* offsets, simd<T, 16>* sum,
                                      uint32_t there = group_units<Reader, T>) {  // units of the last group
  constexpr unsigned units = group_units<Reader, T>, lines = 4 * units;
  constexpr unsigned chains = Rows * Groups;  // chain c: row c % Rows, group c / Rows
  const auto unit_of = [&](unsigned c) CORVANE_INLINE_LAMBDA { return u + c / Rows * units; };
  const auto unit = [&](unsigned c) CORVANE_INLINE_LAMBDA { return rows.first_unit[c % Rows] + unit_of(c); };
  for (unsigned c = 0; c < chains; ++c) {
    for (unsigned i = 0; i < units; i += 2) {  // no two units are more than a line
      Reader::template prefetch<prefetch_level<T>>(weight, unit(c) + i + rows.ahead);
    }
  }
  using group_codes = decltype(fetch_group<Reader, T>(weight, u, there));
  group_codes codes[chains];
  for (unsigned c = 0; c < chains; ++c) codes[c] = fetch_group<Reader, T>(weight, unit(c), there);
  const auto x = [&](unsigned i, unsigned c, unsigned v) CORVANE_INLINE_LAMBDA {
    return simd<T, 16>::load_lanes(input.lanes + i * stride + unit_elements * unit_of(c) + 16 * v);
  };
  const auto code = [&](unsigned c, unsigned v) CORVANE_INLINE_LAMBDA { return decode_group<Reader, T>(codes[c], v); };
  simd<T, 16> dot[Inputs * chains];
  if constexpr (Quick && std::is_same_v<T, BFloat16>) {
    static_assert(units == 1);
    simd<T, 16> product[4][Inputs * chains];
    sycl::unroll<2>([&](auto half) CORVANE_INLINE_LAMBDA {
      sycl::unroll<chains>([&](auto c) CORVANE_INLINE_LAMBDA {
        constexpr unsigned v = 2 * half;
        const simd<T, 16> first = code(c, v), second = code(c, v + 1);
        sycl::unroll<Inputs>([&](auto i) CORVANE_INLINE_LAMBDA {
          constexpr unsigned n = i * chains + c;
          product[v][n].r[0] = x(i, c, v).r[0] * first.r[0];
          product[v + 1][n].r[0] = x(i, c, v + 1).r[0] * second.r[0];
          sycl::round_pair_to_bfloat16(product[v][n].r[0], product[v + 1][n].r[0]);
        });
      });
    });
    sycl::unroll<Inputs * chains>([&](auto n) CORVANE_INLINE_LAMBDA {
      sycl::f32x16 a = product[0][n].r[0] + product[2][n].r[0], b = product[1][n].r[0] + product[3][n].r[0];
      sycl::round_pair_to_bfloat16(a, b);
      dot[n] = simd<T, 16>::exact(a) + simd<T, 16>::exact(b);
    });
  } else {
    sycl::unroll<lines>([&](auto v) CORVANE_INLINE_LAMBDA {
      sycl::unroll<chains>([&](auto c) CORVANE_INLINE_LAMBDA {
        const simd<T, 16> w = code(c, v);
        sycl::unroll<Inputs>([&](auto i) CORVANE_INLINE_LAMBDA {
          simd<T, 16>& to = dot[i * chains + c];
          if constexpr (Quick) {
            const sycl::f32x16 a = x(i, c, v).r[0];
            to.r[0] = sycl::round_multiple_to_half(v == 0 ? a * w.r[0] : sycl::fused_multiply_add(a, w.r[0], to.r[0]));
          } else if constexpr (v == 0) {
            to = x(i, c, v) * w;
          } else {
            to = multiply_add(x(i, c, v), w, to);
          }
        });
      });
    });
  }
  sycl::unroll<chains>([&](auto c) CORVANE_INLINE_LAMBDA {
    constexpr unsigned n = c % Rows * batch_units + c / Rows * units;
    sycl::unroll<Inputs>([&](auto i) CORVANE_INLINE_LAMBDA {
      simd<T, 16>& to = sum[c / Rows % Sums * (Inputs * Rows) + i * Rows + c % Rows];
      if constexpr (Reader::shared_scale != 0) {
        to = multiply_add(dot[i * chains + c], of_group<Reader, T>(scales + n), to);
      } else {
        to = to + dot[i * chains + c];
      }
      // Group by group, so that it cancels against the scaled codes before it can lose them their last places.
      if constexpr (Reader::has_offset) {
        const auto sum_x = simd<T, 16>::load_lanes(input.sums + 16 * (unit_of(c) / units));
        to = multiply_add(sum_x, of_group<Reader, T>(offsets + n), to);
      }
    });
  });
}

template <class Reader, bool Quick, unsigned Inputs, class T, unsigned Rows>
CORVANE_INLINE void accumulate(const row_input<T>& input, const typename Reader::planes& weight,
                               const row_list<Rows>& rows, uint32_t units, simd<T, 16> (&sums)[Inputs * Rows],
                               uint64_t stride) {
  constexpr unsigned group = group_units<Reader, T>;
  constexpr unsigned step = std::max(sycl::tuning::staged_chains<T> / (Rows * Inputs), 1u);
  constexpr unsigned spread = sycl::tuning::sums_of_row<T>;
  constexpr unsigned results = Inputs * Rows;

  simd<T, 16> sum[spread * results];
  sycl::unroll<results>([&](auto k) CORVANE_INLINE_LAMBDA {
    sum[k] = sums[k];
    if constexpr (spread == 2) sum[results + k] = simd<T, 16>::zero();
  });
  alignas(64) sycl::lane_of<T> scales[Rows * batch_units], offsets[Rows * batch_units];
  for (uint32_t first = 0; first < units; first += batch_units) {
    const uint32_t count = std::min(units - first, batch_units);
    sycl::unroll<Rows>([&](auto r) CORVANE_INLINE_LAMBDA {
      const uint32_t unit = rows.first_unit[r] + first;
      if constexpr (Reader::shared_scale != 0) {
        Reader::template prefetch_scales<prefetch_level<T>>(weight, unit + rows.ahead);
        Reader::template scales<T>(weight, unit, count).store_lanes(scales + r * batch_units);
      }
      if constexpr (Reader::has_offset) {
        Reader::template offsets<T>(weight, unit, count).store_lanes(offsets + r * batch_units);
      }
    });
    uint32_t n = 0;
    if constexpr (step > 1) {
      for (; n + step * group <= count; n += step * group) {
        accumulate_groups<Reader, T, Quick, Inputs, Rows, step, spread>(input, stride, weight, rows, first + n,
                                                                        scales + n, offsets + n, sum);
      }
    }
    // One group, to the sum whose turn it is, whatever the step: two inputs give what two calls do.
    const auto add_group = [&](uint32_t there) CORVANE_INLINE_LAMBDA {
      accumulate_groups<Reader, T, Quick, Inputs, Rows, 1, 1>(
          input, stride, weight, rows, first + n, scales + n, offsets + n,
          spread == 2 && n / group % 2 == 1 ? sum + results : sum, there);
    };
    for (; n + group <= count; n += group) add_group(group);
    if constexpr (group > 1) {
      if (n < count) add_group(count - n);
    }
  }
  sycl::unroll<results>([&](auto k) CORVANE_INLINE_LAMBDA {
    sums[k] = sum[k];
    if constexpr (spread == 2) sums[k] = sums[k] + sum[results + k];
  });
}

}  // namespace detail

template <class Reader, unsigned Inputs, class T, unsigned Rows>
void row_dots(const row_input<T>& input, uint64_t stride, const typename Reader::planes& weight,
              const row_list<Rows>& rows, uint32_t units, simd<T, 16> (&sums)[Inputs][Rows]) {
  static_assert(row_reader<Reader>);
  static_assert(!Reader::has_offset || Inputs == 1, "the sums are those of one input");
  auto& flat = reinterpret_cast<simd<T, 16>(&)[Inputs * Rows]>(sums);
  if constexpr (rounds_quickly<Reader, T>) {
    if (input.quick) return detail::accumulate<Reader, true, Inputs>(input, weight, rows, units, flat, stride);
  }
  detail::accumulate<Reader, false, Inputs>(input, weight, rows, units, flat, stride);
}

}  // namespace corvane
