// The body of sysdot_forward_kernel for an element type: 8 threads of a work-group share the K blocks of a tile of 8
// rows and N columns, each with sums in float, and add their results once, in RT, through local memory.
//
// The host takes up to 8 row tiles of 32 columns together (a cluster of work-groups), so that a weight block is
// expanded once for up to 64 rows.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>

#include "frame/launch.hpp"
#include "platform/sycl/tuning.hpp"
#include "sysdot/sysdot_kernel.hpp"
#include "sysdot/tiles.hpp"

namespace corvane {

constexpr unsigned sysdot_threads = 8;  // of a work-group
constexpr unsigned cluster_tiles = sycl::tuning::systolic_row_tiles;
constexpr unsigned cluster_rows = cluster_tiles * tile_rows;

// Below this magnitude an input value times a weight may have bits under 2^-126, the least that the flushing products
// keep: the last bit of a BFloat16 lies 2^-7 below its leading one, and weights are multiples of 2^-17.
constexpr uint16_t tiny_limit = (127 - 126 + 7 + 17) << 7;  // bits of 2^-102

// The input of a launch as operands of the systolic step, in tiles of 8 rows and a K block, made once for all
// work-groups.
template <class WT>
class prepared_tiles {
 public:
  prepared_tiles(uint64_t rows, uint64_t row_blocks)
      : row_blocks_(row_blocks),
        tiles_(std::make_unique_for_overwrite<input_tile<WT>[]>((rows + tile_rows - 1) / tile_rows * row_blocks)) {}

  // From `rows` rows, each value rounded to WT.
  template <class IT>
  void prepare(const IT* input, uint64_t rows) {
    sycl::u16x32 tiny{};
    for (uint64_t r = 0; r < rows; ++r) {
      for (uint64_t b = 0; b < row_blocks_; ++b) {
        put(input + (r * row_blocks_ + b) * QK, tiles_[r / tile_rows * row_blocks_ + b].row[r % tile_rows], tiny);
      }
    }
    tiny_ = sycl::any(tiny);
  }

  const input_tile<WT>& tile(uint64_t row_tile, uint64_t block) const { return tiles_[row_tile * row_blocks_ + block]; }
  bool tiny() const { return tiny_; }  // BFloat16: there are values so small that sums could be subnormal

 private:
  template <class IT>
  static void put(const IT* from, float* cells, sycl::u16x32&) {
    for (unsigned k = 0; k < QK; k += 16) {
      f32x16 x = sycl::simd<IT, 16>::load(from + k).r[0];
      if constexpr (!std::is_same_v<IT, WT>) x = sycl::round_to_half(x);
      std::memcpy(cells + k, &x, sizeof(x));
    }
  }
  static void put(const BFloat16* from, int32_t* cells, sycl::u16x32& tiny) {
    for (unsigned k = 0; k < QK; k += 32) {
      const auto bits = sycl::load_bytes<sycl::u16x32>(from + k);
      tiny |= sycl::nonzero_below(bits, tiny_limit);
      const sycl::u16x32 pairs = sycl::swap_inner_of_four(bits);
      std::memcpy(cells + k / 2, &pairs, sizeof(pairs));
    }
  }

  uint64_t row_blocks_;
  std::unique_ptr<input_tile<WT>[]> tiles_;
  bool tiny_ = false;
};

template <class IT, class WT>
struct sysdot_args {
  const prepared_tiles<WT>* input;
  const uint8_t* weight;  // code blocks (output_size, row_blocks)
  const uint8_t* scale;   // scales (output_size, row_blocks)
  IT* output;             // (rows, output_size)
  uint64_t row_blocks;
  uint64_t blocks_per_thread;
  uint64_t output_size;
  int32_t qtype;
  unsigned last_rows;  // of the last row tile, 1 to 8
  unsigned columns;    // of a work-group
};

template <class IT, class WT, class RT>
void sysdot_groups(const sycl::group_cluster<2>& groups, const sysdot_args<IT, WT>& a) {
  const uint64_t first_column = groups.first(0) * a.columns;
  const auto columns = static_cast<unsigned>(groups.count(0) * a.columns);
  const auto tiles = static_cast<unsigned>(groups.count(1));
  const uint64_t first_row = groups.first(1) * tile_rows;
  const auto rows_of = [&](unsigned tile) {
    return groups.first(1) + tile + 1 == groups.total(1) ? a.last_rows : tile_rows;
  };
  const unsigned bytes = code_bytes(a.qtype);
  const uint64_t row_blocks = bytes == 0 ? 0 : a.row_blocks;

  weight_columns at;
  for (unsigned i = 0; i < tile_columns; ++i) {  // beyond the last column: that one again, not written
    const uint64_t block = (first_column + std::min(i, columns - 1)) * a.row_blocks;
    at.codes[i] = a.weight + block * bytes;
    at.scales[i] = a.scale + block * scale_bytes(a.qtype);
  }

  const uint64_t threads_at_work = row_blocks == 0 ? 0 : (row_blocks + a.blocks_per_thread - 1) / a.blocks_per_thread;
  // For each row, the partial sums of the 8 threads over all columns.
  sycl::local_array<RT, cluster_rows * sysdot_threads * tile_columns> partial(groups);
  const auto slot = [&](unsigned row, unsigned thread, unsigned strip) {
    return &partial[(row * sysdot_threads + thread) * tile_columns + 16 * strip];
  };

  groups.for_each_item([&](uint32_t t) {
    const uint64_t start = std::min(t * a.blocks_per_thread, row_blocks);
    const uint64_t end = std::min((t + 1) * a.blocks_per_thread, row_blocks);
    if (start == end) return;  // its sums are zeros, which change nothing
    alignas(64) float running[cluster_rows][tile_columns];
    std::memset(running, 0, sizeof(running[0]) * tile_rows * tiles);
    for (uint64_t b = start; b < end; ++b) {
      weight_tile<WT> w;
      expand_weights(a.qtype, at, b, w);
      for (unsigned tile = 0; tile < tiles; ++tile) {
        systolic_block<WT>(a.input->tile(groups.first(1) + tile, b), w, rows_of(tile), a.input->tiny(),
                           running + tile * tile_rows);
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
      if (t >= rows_of(tile)) continue;
      const unsigned row = tile * tile_rows + t;
      for (unsigned s = 0; 16 * s < columns; ++s) {
        auto sum = sycl::simd<RT, 16>::zero();
        for (unsigned u = 0; u < threads_at_work; ++u) sum = sum + sycl::simd<RT, 16>::load(slot(row, u, s));
        IT result[16];
        sycl::simd<IT, 16>::exact(sum.r[0]).store(result);
        std::memcpy(static_cast<void*>(a.output + (first_row + row) * a.output_size + first_column + 16 * s), result,
                    sizeof(IT) * std::min(16u, columns - 16 * s));
      }
    }
  });
}

template <class IT, class WT>
void launch_sysdot(const sysdot_call& call, unsigned last_rows, unsigned columns, c10::Device device) {
  constexpr origin where{"sysdot_xpu_kernel", "sysdot_forward_kernel"};
  if (call.output_size % columns != 0) fail(where, "output_size % N == 0");
  check(call.state_size % QK == 0, where, "state_size % QK == 0");
  check(call.rows % tile_rows == last_rows % tile_rows, where, "rows % 8 == M % 8");

  const uint64_t row_blocks = call.state_size / QK;
  prepared_tiles<WT> input(call.rows, row_blocks);
  const sysdot_args<IT, WT> args{&input,           call.weight,
                                 call.scale,       static_cast<IT*>(call.output),
                                 row_blocks,       (row_blocks + 7) / 8,
                                 call.output_size, call.qtype,
                                 last_rows,        columns};
  const auto prepare = [&] { input.prepare(static_cast<const IT*>(call.input), call.rows); };
  const auto kernel = [args](const sycl::group_cluster<2>& groups) { sysdot_groups<IT, WT, WT>(groups, args); };
  launch<2>(device, where, {{call.output_size / columns * sysdot_threads, (call.rows + 7) / 8}, {sysdot_threads, 1}},
            sycl::sub_group_size{1},
            sycl::prepared_kernel{
                prepare, sycl::cluster_kernel<2, decltype(kernel)>{{tile_columns / columns, cluster_tiles}, kernel}});
}

}  // namespace corvane
