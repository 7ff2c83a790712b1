// q2_k: 2-bit codes, a scale and a minimum of four bits for every 16 elements, over two Half scales for 256.
// Interleaved.
//
//   byte 0            16            80   82   84
//        | scales (16) | qs (64)     | d  |dmin|
//
//   scales[u]      | minimum | scale |  of elements 16 u to 16 u + 15
//                   7     4   3   0
//   qs[32 h + l]   | 128 h + l + 96 | 128 h + l + 64 | 128 h + l + 32 | 128 h + l |   (elements; l < 32)
//                   7             6  5             4  3             2  1       0
//   y = d * scale * code - dmin * minimum
#pragma once

#include "formats/k_block.hpp"

namespace corvane {

struct block_q2_K {
  uint8_t scales[16];
  uint8_t qs[64];
  Half d, dmin;
};

// Its arithmetic is in float: scale and offset exist for T = float alone.
struct q2_k_reader {
  static constexpr int32_t id = qtype_q2_k;
  static constexpr unsigned shared_scale = 16;
  static constexpr bool has_offset = true;
  static_assert(sizeof(block_q2_K) == registry[id].block_bytes, "the struct is the block");

  struct planes {
    const uint8_t* blocks;
  };

  static planes locate(const uint8_t* weight, uint64_t, uint64_t) { return {weight}; }

  struct raw {
    const uint8_t* qs;  // 32 bytes, a half block's
    int shift;          // of the unit's first codes
  };
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    const unsigned quarter = detail::quarter_of(unit);
    return {block(p, unit) + offsetof(block_q2_K, qs) + 32 * (quarter / 2), static_cast<int>(quarter % 2 * 4)};
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw codes, unsigned v) {
    const sycl::i32x16 bytes = sycl::widen_u8(codes.qs + 16 * (v % 2));
    return simd<T, 16>::exact(sycl::to_float((bytes >> (codes.shift + static_cast<int>(v / 2 * 2))) & 3));
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned v) {
    return detail::splat_lane<T>(value_scales<T>(p, unit).r[0], static_cast<int>(4 * v));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> offset(const planes& p, uint32_t unit, unsigned v) {
    return detail::splat_lane<T>(value_offsets<T>(p, unit).r[0], static_cast<int>(4 * v));
  }

  // Value 4 v + c: code c under the scale of elements 16 v to 16 v + 15.
  static CORVANE_INLINE sycl::u16x32 value_index(raw codes, unsigned h) {
    static constexpr sycl::u16x32 second_run = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4};
    const auto shift = static_cast<uint16_t>(codes.shift + 2 * h), first = static_cast<uint16_t>(8 * h);
    return ((sycl::widen_32_u8_to_u16(codes.qs) >> shift) & uint16_t{3}) + second_run + first;
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_codes() {
    return simd<T, 16>::exact(sycl::f32x16{0, 1, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3});
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_scales(const planes& p, uint32_t unit) {
    static_assert(std::is_same_v<T, float>, "the scales of q2_k enter in float");
    const sycl::f32x16 d = sycl::splat_half(block(p, unit) + offsetof(block_q2_K, d));
    return simd<T, 16>::exact(d * sycl::to_float(sub_scales(p, unit) & 15));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_offsets(const planes& p, uint32_t unit) {
    static_assert(std::is_same_v<T, float>, "the minimums of q2_k enter in float");
    const sycl::f32x16 dmin = sycl::splat_half(block(p, unit) + offsetof(block_q2_K, dmin));
    return simd<T, 16>::exact(-(dmin * sycl::to_float((sub_scales(p, unit) >> 4) & 15)));
  }

 private:
  static CORVANE_INLINE const uint8_t* block(const planes& p, uint32_t unit) {
    return p.blocks + detail::block_of(unit) * sizeof(block_q2_K);
  }
  // The unit's four scale bytes, each at the bottom of four lanes.
  static CORVANE_INLINE sycl::i32x16 sub_scales(const planes& p, uint32_t unit) {
    static constexpr sycl::i32x16 place = {0, 0, 0, 0, 8, 8, 8, 8, 16, 16, 16, 16, 24, 24, 24, 24};
    const uint8_t* scales = block(p, unit) + offsetof(block_q2_K, scales) + 4 * detail::quarter_of(unit);
    return sycl::splat(sycl::load_integer<int32_t>(scales)) >> place;
  }
};

template <>
struct reader_for<qtype_q2_k> {
  using type = q2_k_reader;
};

}  // namespace corvane
