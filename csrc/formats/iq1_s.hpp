// iq1_s: runs of eight elements by grid index, a 3-bit scale and an offset for 32, over a Half scale for 256.
// Interleaved.
//
//   byte 0   2         34               50
//        | d | qs (32) | qh (8 x 2)     |      group ib, 32 elements: h = qh[ib], a run each in qs[4 ib + 0 to 3]
//
//   h    | delta | scale | top bits of the index of run 3 | of run 2 | of run 1 | of run 0 |
//         15      14   12 11                            9  8       6  5       3  2        0
//   y = d * (2 * scale + 1) * (n + delta), n from iq1s_grid[index]; delta -0.875, or -1.125 where the bit is set
#pragma once

#include "formats/grids.hpp"
#include "formats/k_block.hpp"

namespace corvane {

struct block_iq1_s {
  Half d;
  uint8_t qs[32];
  uint16_t qh[8];
};

constexpr unsigned iq1_s_row(uint8_t low, unsigned h, unsigned run) { return low | (h >> (3 * run) & 7) << 8; }
// Of the four runs of a group, 16 bits each.
CORVANE_INLINE uint64_t iq1_s_rows(uint32_t low, unsigned h) {
  return sycl::deposit_bits(h, 0x0700070007000700) | sycl::deposit_bits(low, 0x00FF00FF00FF00FF);
}
constexpr float iq1_s_delta(unsigned h) { return (h & 0x8000) != 0 ? -1.125f : -0.875f; }
constexpr float iq1_s_scale(unsigned h) { return static_cast<float>(2 * (h >> 12 & 7) + 1); }

// Its arithmetic is in float: scale exists for T = float alone.
struct iq1_s_reader {
  static constexpr int32_t id = qtype_iq1_s;
  static constexpr unsigned shared_scale = 32;
  static constexpr bool has_offset = false;
  static_assert(sizeof(block_iq1_s) == registry[id].block_bytes, "the struct is the block");

  struct planes {
    const uint8_t* blocks;
  };

  static planes locate(const uint8_t* weight, uint64_t, uint64_t) { return {weight}; }

  struct raw {
    const uint8_t* qs;  // 8 bytes, two groups'
    const uint8_t* qh;  // 4 bytes
  };
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    const unsigned quarter = detail::quarter_of(unit);
    return {block(p, unit) + offsetof(block_iq1_s, qs) + 8 * quarter,
            block(p, unit) + offsetof(block_iq1_s, qh) + 4 * quarter};
  }

  // Codes are n + delta.
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw groups, unsigned v) {
    static constexpr sycl::i32x16 place = {0, 8, 16, 24, 4, 12, 20, 28, 0, 8, 16, 24, 4, 12, 20, 28};
    const unsigned h = sycl::load_integer<uint16_t>(groups.qh + 2 * (v / 2));
    const unsigned run = 2 * (v % 2);
    const uint8_t* low = groups.qs + 4 * (v / 2) + run;
    const sycl::i32x16 first = sycl::splat(static_cast<int32_t>(iq1s_grid[iq1_s_row(low[0], h, run)]));
    const sycl::i32x16 second = sycl::splat(static_cast<int32_t>(iq1s_grid[iq1_s_row(low[1], h, run + 1)]));
    const sycl::i32x16 n = (sycl::select(0xFF00, second, first) >> place) & 15;
    return simd<T, 16>::exact(sycl::to_float(n) + iq1_s_delta(h));
  }

  // A group has three values: their numbers are n, and n + 8 where the bit of delta is set.
  static CORVANE_INLINE sycl::u16x32 value_index(raw groups, unsigned h) {
    using u64x4 = uint64_t __attribute__((vector_size(32)));
    const auto bits = sycl::load_integer<uint16_t>(groups.qh + 2 * h);
    const uint64_t row = iq1_s_rows(sycl::load_integer<uint32_t>(groups.qs + 4 * h), bits);
    const u64x4 rows = {iq1s_grid[row & 0xFFFF], iq1s_grid[row >> 16 & 0xFFFF], iq1s_grid[row >> 32 & 0xFFFF],
                        iq1s_grid[row >> 48]};
    const u64x4 n = (rows | rows << 28) & 0x0F0F0F0F0F0F0F0F;
    return sycl::widen_32_u8_to_u16(&n) | static_cast<uint16_t>(bits >> 15 << 3);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_codes() {
    constexpr float plus = iq1_s_delta(0), minus = iq1_s_delta(0x8000);
    return simd<T, 16>::exact(sycl::f32x16{plus, 1 + plus, 2 + plus, 0, 0, 0, 0, 0, minus, 1 + minus, 2 + minus});
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned v) {
    static_assert(std::is_same_v<T, float>, "the scales of iq1_s enter in float");
    const unsigned h = sycl::load_integer<uint16_t>(fetch(p, unit).qh + 2 * (v / 2));
    return simd<T, 16>::exact(sycl::splat_half(block(p, unit)) * iq1_s_scale(h));
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_scale(const planes& p, uint32_t block) {
    static_assert(std::is_same_v<T, float>, "the scales of iq1_s enter in float");
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_iq1_s);
    // The last 32 bytes of the block end with qh, two groups to a word.
    const auto words = sycl::load_twice(at + sizeof(block_iq1_s) - 32);
    static constexpr sycl::i32x16 word = {4, 4, 4, 4, 5, 5, 5, 5, 6, 6, 6, 6, 7, 7, 7, 7};
    static constexpr sycl::i32x16 down = {12, 12, 28, 28, 12, 12, 28, 28, 12, 12, 28, 28, 12, 12, 28, 28};
    const sycl::i32x16 scale = (sycl::shuffle(words, word) >> down) & 7;
    return simd<T, 16>::exact(sycl::splat_half(at) * sycl::to_float(2 * scale + 1));
  }

 private:
  static CORVANE_INLINE const uint8_t* block(const planes& p, uint32_t unit) {
    return p.blocks + detail::block_of(unit) * sizeof(block_iq1_s);
  }
};

template <>
struct reader_for<qtype_iq1_s> {
  using type = iq1_s_reader;
};

}  // namespace corvane
