// The matrix-vector kernel of the formats with super-blocks that are multiplied in floating point: y[n] = sum over k of
// x[k] * W[n][k].
//
// A lane takes one chunk of a super-block, the 16 elements under one scale, as a work-item of a device does, so that
// the scales of a super-block are lanes as well and enter once for 16 elements. A lane over neighbouring elements
// (matvec.hpp) would scale after every one or two of them.
//
// The input is laid out anew for that, once a launch: lane c of entry j is element j of chunk c.
#pragma once

#include <algorithm>
#include <memory>

#include "formats/k_block.hpp"
#include "linear/row_frame.hpp"
#include "linear/row_input.hpp"
#include "platform/sycl/tuning.hpp"

namespace corvane {

namespace detail {

// The input values of element j of every chunk of a block.
template <class Reader, class T>
CORVANE_INLINE simd<T, 16> chunk_input(const T* x, unsigned j) {
  T lanes[16];
  for (unsigned c = 0; c < 16; ++c) lanes[c] = x[Reader::chunk_element(c, j)];
  return simd<T, 16>::load(lanes);
}

}  // namespace detail

// How the super-blocks of a format meet their part of the input. All arithmetic in T; a lane's chunk is summed apart in
// a few chains. BFloat16 can be rounded in pairs, but lanes may not be mixed, as each has a scale of its own. Measured
// and dropped: one row at a time, four rows (registers run out).
template <class Reader, class T>
struct chunk_product {
  using reader = Reader;
  using value = T;  // of a row's sum
  using sum = simd<T, 16>;

  struct staged {  // 256 input values laid out anew
    simd<T, 16> x[16];
    simd<T, 16> sum_x;  // over each chunk
    bool quick;         // quick_rounding
  };

  static void stage(const T* x, staged& s) {
    quick_rounding<Reader, T, 16> rounding;
    for (unsigned j = 0; j < 16; ++j) {
      s.x[j] = detail::chunk_input<Reader>(x, j);
      rounding.look_at(s.x[j]);
      if constexpr (Reader::has_offset) s.sum_x = j == 0 ? s.x[0] : s.sum_x + s.x[j];
    }
    s.quick = rounding.allowed();
  }

  // Adds the products of one super-block of each row to the lanes of its sum.
  template <unsigned Rows>
  static CORVANE_INLINE void add_blocks(const staged& input, const typename Reader::planes& planes,
                                        const uint32_t (&block)[Rows], sum (&total)[Rows]) {
    if constexpr (rounds_quickly<Reader, T>) {
      if (input.quick) return add_blocks_as<true>(input, planes, block, total);
    }
    add_blocks_as<false>(input, planes, block, total);
  }

 private:
  template <bool Quick, unsigned Rows>
  static CORVANE_INLINE void add_blocks_as(const staged& input, const typename Reader::planes& planes,
                                           const uint32_t (&block)[Rows], sum (&total)[Rows]) {
    constexpr unsigned chains = sycl::tuning::chunk_chains<T>;
    typename Reader::chunks codes[Rows];
    for (unsigned r = 0; r < Rows; ++r) codes[r] = Reader::fetch_chunks(planes, block[r]);
    simd<T, 16> dot[Rows][chains];
    const auto add = [&](simd<T, 16>& chain, unsigned j, const simd<T, 16>& code) {
      if constexpr (Quick) {
        const sycl::f32x16 a = input.x[j].r[0], b = code.r[0];
        chain.r[0] = sycl::round_multiple_to_half(j < chains ? a * b : sycl::fused_multiply_add(a, b, chain.r[0]));
        return;
      }
      chain = j < chains ? input.x[j] * code : multiply_add(input.x[j], code, chain);
    };
    sycl::unroll<8>([&](auto n) {
      for (unsigned r = 0; r < Rows; ++r) {
        const auto pair = Reader::template chunk_pair<T, n>(codes[r]);
        simd<T, 16>&first = dot[r][2 * n % chains], &second = dot[r][(2 * n + 1) % chains];
        if constexpr (Quick && std::is_same_v<T, BFloat16>) {
          sycl::f32x16 a = input.x[2 * n].r[0] * pair.first.r[0], b = input.x[2 * n + 1].r[0] * pair.second.r[0];
          sycl::round_two_to_bfloat16(a, b);
          if constexpr (2 * n >= chains) {
            a += first.r[0], b += second.r[0];
            sycl::round_two_to_bfloat16(a, b);
          }
          first.r[0] = a, second.r[0] = b;
        } else {
          add(first, 2 * n, pair.first);
          add(second, 2 * n + 1, pair.second);
        }
      }
    });
    for (unsigned r = 0; r < Rows; ++r) {
      for (unsigned n = chains / 2; n != 0; n /= 2) {
        for (unsigned i = 0; i < n; ++i) dot[r][i] = dot[r][i] + dot[r][i + n];
      }
      total[r] = multiply_add(dot[r][0], Reader::template chunk_scale<T>(planes, block[r]), total[r]);
      if constexpr (Reader::has_offset) {
        total[r] = multiply_add(input.sum_x, Reader::template chunk_offset<T>(planes, block[r]), total[r]);
      }
    }
  }
};

// q5_k: products are formed in T, two at a time, and everything after them is in float. x[e] * code[e] + x[e + 16] *
// code[e + 16] is a value of T; so is x[e] + x[e + 16], which the minimums multiply.
template <class Reader, class T>
struct pair_product {
  using reader = Reader;
  using value = float;
  using sum = simd<float, 16>;

  struct staged {
    simd<T, 16> x[16];
    simd<float, 16> sum_x;  // lane t: a half of sub-block t / 2
  };

  static void stage(const T* x, staged& s) {
    for (unsigned j = 0; j < 16; ++j) s.x[j] = detail::chunk_input<reader>(x, j);
    s.sum_x = simd<float, 16>::zero();
    for (unsigned e = 0; e < 8; ++e) {  // e and e + 16 are a pair
      T here[16], behind[16];
      for (unsigned t = 0; t < 16; ++t) here[t] = x[16 * t - t % 2 * 8 + e], behind[t] = x[16 * t - t % 2 * 8 + e + 16];
      const auto both = simd<T, 16>::load(here) + simd<T, 16>::load(behind);
      s.sum_x = s.sum_x + simd<float, 16>::exact(both.to_float());
    }
  }

  template <unsigned Rows>
  static CORVANE_INLINE void add_blocks(const staged& input, const typename reader::planes& planes,
                                        const uint32_t (&block)[Rows], sum (&total)[Rows]) {
    typename reader::chunks codes[Rows];
    for (unsigned r = 0; r < Rows; ++r) codes[r] = reader::fetch_chunks(planes, block[r]);
    sum dots[2][Rows];  // of either half of the chunks, which have scales of their own
    for (auto& dot : dots) std::fill_n(dot, Rows, sum::zero());
    const auto add = [&](unsigned r, unsigned j, const simd<T, 16>& first, const simd<T, 16>& second) {
      sum(&dot)[Rows] = dots[j / 8];
      if constexpr (std::is_same_v<T, float>) {  // a pair is not rounded apart from the sum
        dot[r] = multiply_add(input.x[j + 2], second, multiply_add(input.x[j], first, dot[r]));
      } else {
        const simd<T, 16> both = multiply_add(input.x[j + 2], second, input.x[j] * first);
        dot[r] = dot[r] + sum::exact(both.to_float());
      }
    };
    sycl::unroll<4>([&](auto m) {
      for (unsigned r = 0; r < Rows; ++r) {
        const auto here = reader::template chunk_pair<T, 2 * m>(codes[r]),
                   behind = reader::template chunk_pair<T, 2 * m + 1>(codes[r]);
        add(r, 4 * m, here.first, behind.first);
        add(r, 4 * m + 1, here.second, behind.second);
      }
    });
    for (unsigned r = 0; r < Rows; ++r) {
      const sycl::f32x16 factors = reader::block_factors(planes, block[r]);
      for (unsigned half = 0; half < 2; ++half) {
        total[r] = multiply_add(dots[half][r], reader::half_chunk_scale(factors, half), total[r]);
      }
      total[r] = multiply_add(input.sum_x, reader::chunk_offset(factors), total[r]);
    }
  }
};

template <class Product,
          class T>  // input and output: Half, float, double, BFloat16
void matvec_chunks(const kernel_launch& how, const T* input, const uint8_t* weight, T* output, uint64_t state_size,
                   uint64_t output_size, c10::Device device) {
  using reader = typename Product::reader;
  using sum = typename Product::sum;
  constexpr unsigned together = 2;  // rows side by side
  const typename reader::planes planes = reader::locate(weight, state_size, output_size);
  const auto blocks = static_cast<uint32_t>(state_size / detail::super_block_elements);
  const auto staged = std::make_unique_for_overwrite<typename Product::staged[]>(blocks);

  const auto prepare = [&] {
    for (uint32_t b = 0; b < blocks; ++b) Product::stage(input + detail::super_block_elements * b, staged[b]);
  };
  const auto dot = [planes, blocks, output_size, input = staged.get()](uint64_t first_row, sum(&sums)[together]) {
    uint32_t first_block[together];
    sum total[together];  // of this row's own: what is stored through a reference, bytes read later may be
    // A row past the end reads the last row again, so that nothing beyond the weight is touched; it is not written.
    for (unsigned r = 0; r < together; ++r) {
      first_block[r] = static_cast<uint32_t>(std::min(first_row + r, output_size - 1)) * blocks;
      total[r] = sums[r];
    }
    for (uint32_t b = 0; b < blocks; ++b) {
      uint32_t block[together];
      for (unsigned r = 0; r < together; ++r) {
        block[r] = first_block[r] + b;
        // Of the rows that come next.
        reader::template prefetch_block<prefetch_level<T>>(planes, block[r] + together * blocks);
      }
      Product::add_blocks(input[b], planes, block, total);
    }
    for (unsigned r = 0; r < together; ++r) sums[r] = total[r];
  };
  launch_rows(device, {linear_source, how.name}, how.sizes, output_size, prepare,
              [&](uint64_t first_row, unsigned rows) {
                for_rows<typename Product::value, 1, together>(
                    rows, [&](unsigned r, auto& sums) { dot(first_row + r, sums[0]); },
                    [&](const auto& totals) { store_rows(totals[0], output + first_row, rows); });
              });
}

}  // namespace corvane
