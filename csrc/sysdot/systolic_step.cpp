// The systolic steps of one K block: operands from the tiles, block result in registers, float throughout.
#include <cstring>

#include "sysdot/tiles.hpp"

namespace corvane {
namespace {

template <bool Flushing>
struct pair_products {
  static CORVANE_INLINE f32x16 step(int32_t x, sycl::i32x16 w, f32x16 sum) {
    if constexpr (Flushing) return sycl::multiply_add_pairs_flushing(sycl::splat(x), w, sum);
    return sycl::multiply_add_pairs(sycl::splat(x), w, sum);
  }
};
struct float_products {
  static CORVANE_INLINE f32x16 step(float x, f32x16 w, f32x16 sum) {
    return sycl::fused_multiply_add(sycl::splat(x), w, sum);
  }
};

// Few rows are taken with K cut into chains that run side by side, so that no sum waits for the one before it. The
// chains are far apart along K: input cells next to each other would be loaded together and then taken apart again.
template <unsigned R>
constexpr unsigned chains = 4 / ((R + 1) / 2);

template <class Products, class WT, unsigned R, class Register>
CORVANE_INLINE void block(const input_tile<WT>& x, const weight_tile<WT>& w, float (*running)[tile_columns]) {
  constexpr unsigned length = depth<WT> / chains<R>;
  f32x16 sum[chains<R>][R][strips] = {};
  for (unsigned d = 0; d < length; ++d) {
    for (unsigned c = 0; c < chains<R>; ++c) {
      const unsigned cell = c * length + d;
      Register weights[strips];
      for (unsigned s = 0; s < strips; ++s) weights[s] = sycl::load_once<Register>(&w.cell[cell][16 * s]);
      for (unsigned r = 0; r < R; ++r) {
        for (unsigned s = 0; s < strips; ++s) sum[c][r][s] = Products::step(x.row[r][cell], weights[s], sum[c][r][s]);
      }
    }
  }
  for (unsigned r = 0; r < R; ++r) {
    for (unsigned s = 0; s < strips; ++s) {
      f32x16 total = sum[0][r][s];
      for (unsigned c = 1; c < chains<R>; ++c) total += sum[c][r][s];
      f32x16 result = sycl::load_bytes<f32x16>(&running[r][16 * s]);
      result = sycl::fused_multiply_add(total, w.scale[s], result);
      std::memcpy(&running[r][16 * s], &result, sizeof(result));
    }
  }
}

template <class WT, unsigned R>
void block_of_rows(const input_tile<WT>& x, const weight_tile<WT>& w, bool tiny, float (*running)[tile_columns]) {
  if constexpr (std::is_same_v<WT, Half>) {
    block<float_products, WT, R, f32x16>(x, w, running);
  } else if (tiny) {
    block<pair_products<false>, WT, R, sycl::i32x16>(x, w, running);
  } else {
    block<pair_products<true>, WT, R, sycl::i32x16>(x, w, running);
  }
}

}  // namespace

template <class WT>
void systolic_block(const input_tile<WT>& x, const weight_tile<WT>& w, unsigned rows, bool tiny,
                    float (*running)[tile_columns]) {
  using of_rows = void (*)(const input_tile<WT>&, const weight_tile<WT>&, bool, float(*)[tile_columns]);
  static constexpr of_rows by_rows[tile_rows] = {block_of_rows<WT, 1>, block_of_rows<WT, 2>, block_of_rows<WT, 3>,
                                                 block_of_rows<WT, 4>, block_of_rows<WT, 5>, block_of_rows<WT, 6>,
                                                 block_of_rows<WT, 7>, block_of_rows<WT, 8>};
  by_rows[rows - 1](x, w, tiny, running);
}

template void systolic_block(const input_tile<Half>&, const weight_tile<Half>&, unsigned, bool,
                             float (*)[tile_columns]);
template void systolic_block(const input_tile<BFloat16>&, const weight_tile<BFloat16>&, unsigned, bool,
                             float (*)[tile_columns]);

}  // namespace corvane
