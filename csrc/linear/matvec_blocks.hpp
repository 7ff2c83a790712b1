// The matrix-vector skeleton of the formats with super-blocks: one input row against a packed weight of 256-element
// blocks, y[n] = sum over k of x[k] * W[n][k].
//
// As in matvec.hpp a work-group makes neighbouring output rows, each lane with a partial sum a row. But here a lane
// takes one chunk of a block, the 16 elements under one scale, as a work-item of a device does, so that the scales of a
// block are lanes as well and enter once for 16 elements. A lane over neighbouring elements (matvec.hpp) would scale
// after every one or two of them: measured 1.9, 2.6 and 3.2 times the time in float, Half and BFloat16 for q4_k.
//
// The input is laid out anew for that, once a launch: lane c of entry j is element j of chunk c.
#pragma once

#include <algorithm>
#include <memory>

#include "formats/k_block.hpp"
#include "frame/launch.hpp"
#include "linear/row_input.hpp"
#include "linear/row_sums.hpp"

namespace corvane {

// How the blocks of a format meet their part of the input. Product has:
//
//   reader                                    of the format
//   staged, stage(x, staged)                  256 input values laid out anew
//   sum                                       the partial sums of a row, 16 lanes
//   add_blocks(staged, planes, block, sums)   adds the products of one block of each row to the lanes of its sum
template <class Product,
          unsigned SG_SIZE,      // required sub-group size
          unsigned WG_SIZE,      // work-items of a group
          unsigned ROWS_PER_WG,  // output rows of a group
          class T>               // input and output: Half, float, double, BFloat16
void matvec_blocks(const origin& where, const T* input, const uint8_t* weight, T* output, uint64_t state_size,
                   uint64_t output_size, c10::Device device) {
  using reader = typename Product::reader;
  check_whole_blocks(state_size, registry[reader::id].block_elements, where);

  const typename reader::planes planes = reader::locate(weight, state_size, output_size);
  const auto blocks = static_cast<uint32_t>(state_size / detail::block_elements);
  const uint64_t groups = (output_size + ROWS_PER_WG - 1) / ROWS_PER_WG;
  const auto staged = std::make_unique_for_overwrite<typename Product::staged[]>(blocks);

  const auto prepare = [&staged, input, blocks] {
    for (uint32_t b = 0; b < blocks; ++b) Product::stage(input + detail::block_elements * b, staged[b]);
  };
  const auto kernel = [staged = staged.get(), planes, output, output_size, blocks](const sycl::group_block<1>& groups) {
    typename Product::sum sums[tree_rows];
    for (auto& sum : sums) sum = Product::sum::zero();
    const uint64_t first_row = groups.first(0) * ROWS_PER_WG;
    for (unsigned g = 0; g < groups.count(0); ++g) {
      uint32_t first_block[ROWS_PER_WG];
      typename Product::sum sum[ROWS_PER_WG];
      for (unsigned r = 0; r < ROWS_PER_WG; ++r) {
        // A row past the end reads the last row again, so that nothing beyond the weight is touched; it is not written.
        const uint64_t row = std::min(first_row + g * ROWS_PER_WG + r, output_size - 1);
        first_block[r] = static_cast<uint32_t>(row) * blocks;
        sum[r] = Product::sum::zero();
      }
      for (uint32_t b = 0; b < blocks; ++b) {
        uint32_t block[ROWS_PER_WG];
        for (unsigned r = 0; r < ROWS_PER_WG; ++r) {
          block[r] = first_block[r] + b;
          // Two streams lose half the speed of one unless the next group's blocks are asked for ahead.
          reader::prefetch_block(planes, block[r] + ROWS_PER_WG * blocks);
        }
        Product::add_blocks(staged[b], planes, block, sum);
      }
      for (unsigned r = 0; r < ROWS_PER_WG; ++r) sums[g * ROWS_PER_WG + r] = sum[r];
    }
    store_rows(sum_trees(sums), output, first_row, output_size);
  };
  launch<1>(device, where, {{groups * WG_SIZE}, {WG_SIZE}}, sycl::sub_group_size{SG_SIZE},
            sycl::prepared_kernel{prepare, sycl::block_kernel<1, decltype(kernel)>{{tree_rows / ROWS_PER_WG}, kernel}});
}

namespace detail {

// The input values of element j of every chunk of a block.
template <class Reader, class T>
CORVANE_INLINE simd<T, 16> chunk_input(const T* x, unsigned j) {
  T lanes[16];
  for (unsigned c = 0; c < 16; ++c) lanes[c] = x[Reader::chunk_element(c, j)];
  return simd<T, 16>::load(lanes);
}

}  // namespace detail

// All arithmetic in T. A lane's chunk is summed apart in a few chains, as each operation of Half and BFloat16 waits 10
// to 20 cycles for the rounding of the one before it. Measured and dropped: 2 chains or 8 in Half (1.2 and 1.1 times
// the time of 4), one row at a time (Half 1.2), four rows (float 1.4: registers run out). BFloat16 rounded in pairs
// takes 0.9 of the time; the lanes may not be mixed, as each has a scale of its own.
template <class Reader, class T>
struct chunk_product {
  using reader = Reader;
  using sum = simd<T, 16>;

  struct staged {
    simd<T, 16> x[16];
    simd<T, 16> sum_x;  // over each chunk
    bool pairable;      // row_input.hpp
  };

  static void stage(const T* x, staged& s) {
    tiny_lanes<T> tiny;
    for (unsigned j = 0; j < 16; ++j) {
      s.x[j] = detail::chunk_input<Reader>(x, j);
      tiny.look_at(s.x[j]);
      if constexpr (Reader::has_offset) s.sum_x = j == 0 ? s.x[0] : s.sum_x + s.x[j];
    }
    s.pairable = !tiny.any();
  }

  template <unsigned Rows>
  static CORVANE_INLINE void add_blocks(const staged& input, const typename Reader::planes& planes,
                                        const uint32_t (&block)[Rows], sum (&total)[Rows]) {
    if constexpr (std::is_same_v<T, BFloat16>) {
      if (input.pairable) return add_blocks_as<true>(input, planes, block, total);
    }
    add_blocks_as<false>(input, planes, block, total);
  }

 private:
  template <bool Pairs, unsigned Rows>
  static CORVANE_INLINE void add_blocks_as(const staged& input, const typename Reader::planes& planes,
                                           const uint32_t (&block)[Rows], sum (&total)[Rows]) {
    constexpr unsigned chains = sizeof(T) == 2 ? 4 : 2;
    typename Reader::chunks codes[Rows];
    for (unsigned r = 0; r < Rows; ++r) codes[r] = Reader::fetch_chunks(planes, block[r]);
    simd<T, 16> dot[Rows][chains];
    const auto add = [&](simd<T, 16>& chain, unsigned j, const simd<T, 16>& code) {
      chain = j < chains ? input.x[j] * code : multiply_add(input.x[j], code, chain);
    };
    sycl::unroll<8>([&](auto n) {
      for (unsigned r = 0; r < Rows; ++r) {
        const auto pair = Reader::template chunk_pair<T, n>(codes[r]);
        simd<T, 16>&first = dot[r][2 * n % chains], &second = dot[r][(2 * n + 1) % chains];
        if constexpr (Pairs) {
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

}  // namespace corvane
