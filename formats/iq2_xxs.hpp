// iq2_xxs: runs of eight elements by grid index and signs, a 4-bit scale for 32, over a Half scale for 256.
// Interleaved.
//
//   byte 0   2                                        66
//        | d | group 0 (8) | group 1 | ... | group 7 |      32 elements a group
//
//   group   a[0] a[1] a[2] a[3] w (4 bytes, little-endian)
//   w       | scale | sign index of run 3 | of run 2 | of run 1 | of run 0 |
//            31   28 27                 21 20      14 13       7 6        0
//   y = d * (0.5 + scale) * 0.25 * byte j of iq2xxs_grid[a[run]], negative if bit j of ksigns_iq2xs[sign index] is set
#pragma once

#include "formats/grids.hpp"
#include "formats/k_block.hpp"

namespace corvane {

struct block_iq2_xxs {
  Half d;
  uint16_t qs[32];
};

// Its arithmetic is in float: scale exists for T = float alone.
struct iq2_xxs_reader {
  static constexpr int32_t id = qtype_iq2_xxs;
  static constexpr unsigned shared_scale = 32;
  static constexpr bool has_offset = false;
  static_assert(sizeof(block_iq2_xxs) == registry[id].block_bytes, "the struct is the block");

  struct planes {
    const uint8_t* blocks;
  };

  static planes locate(const uint8_t* weight, uint64_t, uint64_t) { return {weight}; }

  static CORVANE_INLINE void prefetch(const planes& p, uint32_t unit) { sycl::prefetch(fetch(p, unit)); }

  using raw = const uint8_t*;  // two groups
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return block(p, unit) + offsetof(block_iq2_xxs, qs) + 16 * detail::quarter_of(unit);
  }

  // Codes are the grid's values with their signs.
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw groups, unsigned v) {
    static constexpr sycl::i32x16 to_sign = {31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16};
    const uint8_t* group = groups + 8 * (v / 2);
    const unsigned run = 2 * (v % 2);
    const uint32_t w = sycl::load_integer<uint32_t>(group + 4) >> (7 * run);
    const int32_t signs = ksigns_iq2xs[w & 127] | ksigns_iq2xs[w >> 7 & 127] << 8;
    const uint64_t magnitudes[2] = {iq2xxs_grid[group[run]], iq2xxs_grid[group[run + 1]]};
    const sycl::f32x16 value = sycl::to_float(sycl::widen_u8(sycl::load_bytes<sycl::u8x16>(magnitudes)));
    const sycl::i32x16 sign = (sycl::splat(signs) << to_sign) & static_cast<int32_t>(0x80000000);
    return simd<T, 16>::exact(sycl::as_float(sycl::as_int(value) ^ sign));
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned v) {
    static_assert(std::is_same_v<T, float>, "the scales of iq2_xxs enter in float");
    const uint32_t w = sycl::load_integer<uint32_t>(fetch(p, unit) + 8 * (v / 2) + 4);
    return simd<T, 16>::exact(sycl::splat_half(block(p, unit)) * (static_cast<float>(w >> 28) + 0.5f) * 0.25f);
  }

 private:
  static CORVANE_INLINE const uint8_t* block(const planes& p, uint32_t unit) {
    return p.blocks + detail::block_of(unit) * sizeof(block_iq2_xxs);
  }
};

}  // namespace corvane
