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

}  // namespace

template <class WT, unsigned R>
void systolic_block(const input_tile<WT>& x, const weight_tile<WT>& w, float (*running)[tile_columns]) {
  if constexpr (std::is_same_v<WT, Half>) {
    block<float_products, WT, R, f32x16>(x, w, running);
  } else if (x.tiny) {
    block<pair_products<false>, WT, R, sycl::i32x16>(x, w, running);
  } else {
    block<pair_products<true>, WT, R, sycl::i32x16>(x, w, running);
  }
}

#define INSTANCE(WT, R) \
  template void systolic_block<WT, R>(const input_tile<WT>&, const weight_tile<WT>&, float(*)[tile_columns])
#define INSTANCES(R) \
  INSTANCE(Half, R); \
  INSTANCE(BFloat16, R)

INSTANCES(1);
INSTANCES(2);
INSTANCES(3);
INSTANCES(4);
INSTANCES(5);
INSTANCES(6);
INSTANCES(7);
INSTANCES(8);

}  // namespace corvane
