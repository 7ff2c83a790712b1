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

namespace detail {
// 8 in the bytes of a run that a sign index makes negative.
inline constexpr std::array<uint64_t, 128> sign_bytes = [] {
  std::array<uint64_t, 128> t{};
  for (unsigned i = 0; i < 128; ++i) {
    for (unsigned j = 0; j < 8; ++j) t[i] |= (ksigns_iq2xs[i] & kmask_iq2xs[j]) != 0 ? uint64_t{8} << (8 * j) : 0;
  }
  return t;
}();
}  // namespace detail

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

  // A group has six values: their numbers are the low nibbles 8, 9 and 11 of the magnitudes, or for negative ones 0, 1
  // and 3.
  static CORVANE_INLINE sycl::u16x32 value_index(raw groups, unsigned h) {
    using u64x4 = uint64_t __attribute__((vector_size(32)));
    const uint8_t* group = groups + 8 * h;
    const auto w = sycl::load_integer<uint32_t>(group + 4);
    const auto& signs = detail::sign_bytes;
    const u64x4 magnitudes = {iq2xxs_grid[group[0]], iq2xxs_grid[group[1]], iq2xxs_grid[group[2]],
                              iq2xxs_grid[group[3]]};
    const u64x4 runs =
        magnitudes ^ u64x4 { signs[w & 127], signs[w >> 7 & 127], signs[w >> 14 & 127], signs[w >> 21 & 127] };
    return sycl::widen_32_u8_to_u16(&runs);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_codes() {
    return simd<T, 16>::exact(sycl::f32x16{-8, -25, 0, -43, 0, 0, 0, 0, 8, 25, 0, 43, 0, 0, 0, 0});
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned v) {
    static_assert(std::is_same_v<T, float>, "the scales of iq2_xxs enter in float");
    const uint32_t w = sycl::load_integer<uint32_t>(fetch(p, unit) + 8 * (v / 2) + 4);
    return simd<T, 16>::exact(sycl::splat_half(block(p, unit)) * (static_cast<float>(w >> 28) + 0.5f) * 0.25f);
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_scale(const planes& p, uint32_t block) {
    static_assert(std::is_same_v<T, float>, "the scales of iq2_xxs enter in float");
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_iq2_xxs);
    const auto words = sycl::load_bytes<sycl::i32x16>(at + offsetof(block_iq2_xxs, qs));
    const sycl::i32x16 w = sycl::shuffle(words, sycl::i32x16{1, 1, 3, 3, 5, 5, 7, 7, 9, 9, 11, 11, 13, 13, 15, 15});
    const sycl::f32x16 scale = sycl::to_float((sycl::i32x16)((sycl::u32x16)w >> 28)) + 0.5f;
    return simd<T, 16>::exact(scale * sycl::splat_half(at) * 0.25f);
  }

 private:
  static CORVANE_INLINE const uint8_t* block(const planes& p, uint32_t unit) {
    return p.blocks + detail::block_of(unit) * sizeof(block_iq2_xxs);
  }
};

template <>
struct reader_for<qtype_iq2_xxs> {
  using type = iq2_xxs_reader;
};

}  // namespace corvane
