// The one body of all instances of sysdot_forward_kernel: 8 threads of a work-group share the K blocks of a tile of
// 8 rows and N columns, each with sums in float, and add their results once, in RT, through local memory.
//
// The host takes up to 8 row tiles of 32 columns together (a block of work-groups), so that a weight block is expanded
// once for up to 64 rows and an input block is converted once for 32 columns.
#pragma once

#include <algorithm>
#include <cstring>

#include "frame/launch.hpp"
#include "sysdot/sysdot_kernel.hpp"
#include "sysdot/tiles.hpp"

namespace corvane {

constexpr unsigned sysdot_threads = 8;  // of a work-group
constexpr unsigned block_tiles = 8;     // row tiles taken together
constexpr unsigned block_rows = block_tiles * tile_rows;

// Below this magnitude an input value times a weight may have bits under 2^-126, the least that the flushing products
// keep: the last bit of a BFloat16 lies 2^-7 below its leading one, and weights are multiples of 2^-17.
constexpr uint16_t tiny_limit = (127 - 126 + 7 + 17) << 7;  // bits of 2^-102

template <class IT>
struct sysdot_args {
  const IT* input;        // (rows, row_blocks * QK)
  const uint8_t* weight;  // code blocks (output_size, row_blocks)
  const uint8_t* scale;   // scales (output_size, row_blocks)
  IT* output;             // (rows, output_size)
  uint64_t row_blocks;
  uint64_t blocks_per_thread;
  uint64_t output_size;
  int32_t qtype;
};

// 64 elements of `rows` rows, each converted to WT; `stride` elements from row to row.
template <class WT, class IT>
void load_input(const IT* from, uint64_t stride, unsigned rows, input_tile<WT>& tile) {
  for (unsigned r = 0; r < rows; ++r) {  // the next block's lines: rows are too many for the host to foresee them
    for (unsigned k = 0; k < QK; k += 64 / sizeof(IT)) sycl::prefetch(from + r * stride + QK + k);
  }
  if constexpr (std::is_same_v<WT, Half>) {
    for (unsigned r = 0; r < rows; ++r) {
      for (unsigned k = 0; k < QK; k += 16) {
        f32x16 x = sycl::simd<IT, 16>::load(from + r * stride + k).r[0];
        if constexpr (!std::is_same_v<IT, WT>) x = sycl::round_to_half(x);
        std::memcpy(&tile.row[r][k], &x, sizeof(x));
      }
    }
  } else {
    sycl::u16x32 tiny{};
    for (unsigned r = 0; r < rows; ++r) {
      for (unsigned k = 0; k < QK; k += 32) {
        const auto bits = sycl::load_bytes<sycl::u16x32>(from + r * stride + k);
        std::memcpy(&tile.row[r][k / 2], &bits, sizeof(bits));
        tiny |= sycl::nonzero_below(bits, tiny_limit);
      }
    }
    tile.tiny = sycl::any(tiny);
  }
}

// Calls f with the number of rows of a tile as a constant: the code of the last tile and that of all others differ in
// nothing else.
template <unsigned M, class F>
CORVANE_INLINE void with_rows_of(bool last_tile, const F& f) {
  if (M != tile_rows && last_tile) {
    f(std::integral_constant<unsigned, M>{});
  } else {
    f(std::integral_constant<unsigned, tile_rows>{});
  }
}

template <class IT, class WT, class RT, unsigned M, unsigned N>
void sysdot_groups(const sycl::group_block<2>& groups, const sysdot_args<IT>& a) {
  const uint64_t first_column = groups.first(0) * N;
  const auto columns = static_cast<unsigned>(groups.count(0) * N);
  const auto tiles = static_cast<unsigned>(groups.count(1));
  const uint64_t first_row = groups.first(1) * tile_rows;
  const auto is_last = [&](unsigned tile) { return groups.first(1) + tile + 1 == groups.total(1); };
  const unsigned bytes = code_bytes(a.qtype);
  const uint64_t row_blocks = bytes == 0 ? 0 : a.row_blocks;

  weight_columns at;
  for (unsigned i = 0; i < tile_columns; ++i) {  // beyond the last column: that one again, not written
    const uint64_t block = (first_column + std::min(i, columns - 1)) * a.row_blocks;
    at.codes[i] = a.weight + block * bytes;
    at.scales[i] = a.scale + block * scale_bytes(a.qtype);
  }

  // For each row, the partial sums of the 8 threads over all columns.
  sycl::local_array<RT, block_rows * sysdot_threads * tile_columns> partial(groups);
  const auto slot = [&](unsigned row, unsigned thread, unsigned strip) {
    return &partial[(row * sysdot_threads + thread) * tile_columns + 16 * strip];
  };

  groups.for_each_item([&](uint32_t t) {
    const uint64_t start = std::min(t * a.blocks_per_thread, row_blocks);
    const uint64_t end = std::min((t + 1) * a.blocks_per_thread, row_blocks);
    alignas(64) float running[block_rows][tile_columns];
    std::memset(running, 0, sizeof(running[0]) * tile_rows * tiles);
    for (uint64_t b = start; b < end; ++b) {
      weight_tile<WT> w;
      expand_weights(a.qtype, at, b, w);
      for (unsigned tile = 0; tile < tiles; ++tile) {
        with_rows_of<M>(is_last(tile), [&](auto rows) {
          input_tile<WT> x;
          const uint64_t row = first_row + tile * tile_rows;
          load_input(a.input + (row * a.row_blocks + b) * QK, a.row_blocks * QK, rows, x);
          systolic_block<WT, rows>(x, w, running + tile * tile_rows);
        });
      }
    }
    for (unsigned row = 0; row < tile_rows * tiles; ++row) {
      for (unsigned s = 0; s < strips; ++s) {
        sycl::simd<RT, 16>::from_float(sycl::load_bytes<f32x16>(&running[row][16 * s])).store(slot(row, t, s));
      }
    }
  });

  groups.for_each_item([&](uint32_t t) {
    for (unsigned tile = 0; tile < tiles; ++tile) {
      if (t >= (is_last(tile) ? M : tile_rows)) continue;
      const unsigned row = tile * tile_rows + t;
      for (unsigned s = 0; 16 * s < columns; ++s) {
        auto sum = sycl::simd<RT, 16>::zero();
        for (unsigned u = 0; u < sysdot_threads; ++u) sum = sum + sycl::simd<RT, 16>::load(slot(row, u, s));
        IT result[16];
        sycl::simd<IT, 16>::exact(sum.r[0]).store(result);
        std::memcpy(static_cast<void*>(a.output + (first_row + row) * a.output_size + first_column + 16 * s), result,
                    sizeof(IT) * std::min(16u, columns - 16 * s));
      }
    }
  });
}

template <class IT, class WT, class AT, class RT, unsigned M, unsigned N, unsigned K>
void sysdot_forward_kernel(const void* input, const uint8_t* weight, const uint8_t* scale, void* output, uint64_t rows,
                           uint64_t state_size, uint64_t output_size, int32_t qtype, c10::Device device) {
  static_assert(std::is_same_v<AT, float> && std::is_same_v<RT, WT> && K == 8, "the only step there is");
  constexpr origin where{"sysdot_xpu_kernel", "sysdot_forward_kernel"};
  check(output_size % N == 0, where, "output_size % N == 0");
  check(state_size % QK == 0, where, "state_size % QK == 0");
  check(rows % tile_rows == M % tile_rows, where, "rows % 8 == M % 8");

  const uint64_t row_blocks = state_size / QK;
  const sysdot_args<IT> args{static_cast<const IT*>(input), weight,      scale, static_cast<IT*>(output), row_blocks,
                             (row_blocks + 7) / 8,          output_size, qtype};
  const auto kernel = [args](const sycl::group_block<2>& groups) { sysdot_groups<IT, WT, RT, M, N>(groups, args); };
  launch<2>(device, where, {{output_size / N * sysdot_threads, (rows + 7) / 8}, {sysdot_threads, 1}},
            sycl::sub_group_size{1}, sycl::block_kernel<2, decltype(kernel)>{{tile_columns / N, block_tiles}, kernel});
}

// All instances for an element type, which is a source each: 1 to 8 rows of the last tile, both widths.
#define SYSDOT_INSTANCE(IT, WT, M, N)                                                                                 \
  template void sysdot_forward_kernel<IT, WT, float, WT, M, N, 8>(const void*, const uint8_t*, const uint8_t*, void*, \
                                                                  uint64_t, uint64_t, uint64_t, int32_t, c10::Device)
#define SYSDOT_WIDTHS(IT, WT, M)  \
  SYSDOT_INSTANCE(IT, WT, M, 16); \
  SYSDOT_INSTANCE(IT, WT, M, 8)
#define SYSDOT_INSTANCES(IT, WT) \
  SYSDOT_WIDTHS(IT, WT, 1);      \
  SYSDOT_WIDTHS(IT, WT, 2);      \
  SYSDOT_WIDTHS(IT, WT, 3);      \
  SYSDOT_WIDTHS(IT, WT, 4);      \
  SYSDOT_WIDTHS(IT, WT, 5);      \
  SYSDOT_WIDTHS(IT, WT, 6);      \
  SYSDOT_WIDTHS(IT, WT, 7);      \
  SYSDOT_WIDTHS(IT, WT, 8)

}  // namespace corvane
