// q4_0: 4-bit codes around 8, one Half scale for 64 elements. Planar.
//
//   codes   32 bytes a block   byte j:  | element j + 32 | element j |
//                                        7            4   3       0
//   scales  one Half a block   y = d * (code - 8)
#pragma once

#include "formats/reader.hpp"

namespace corvane {

struct block_q4_0_qs {  // the codes of q4_0, q4_1, nf4 and fp4
  uint8_t qs[32];
};

struct q4_0_reader {
  static constexpr int32_t id = qtype_q4_0;
  static constexpr unsigned shared_scale = 64;
  static constexpr bool has_offset = false;

  struct planes {
    const uint8_t* codes;
    const uint8_t* scales;
  };
  static_assert(sizeof(block_q4_0_qs) + sizeof(Half) == registry[id].block_bytes, "planes make up the block");

  static planes locate(const uint8_t* weight, uint64_t state_size, uint64_t output_size) {
    return {weight, weight + plane_offset(state_size, output_size, 64, sizeof(block_q4_0_qs))};
  }

  static CORVANE_INLINE void prefetch(const planes& p, uint32_t unit) {
    sycl::prefetch(p.codes + uint64_t{unit} * sizeof(block_q4_0_qs));
  }

  using raw = const uint8_t*;
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return p.codes + uint64_t{unit} * sizeof(block_q4_0_qs);
  }

  // A nibble becomes a float without a shift or a conversion: as the last bits of 2^23 or, for the high one, of 2^19.
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw qs, unsigned v) {
    const sycl::i32x16 bytes = sycl::widen_u8(qs + 16 * (v % 2));
    if (v < 2) return simd<T, 16>::exact(sycl::as_float((bytes & 0x0F) | 0x4B000000) - (8388608.0f + 8.0f));
    return simd<T, 16>::exact(sycl::as_float((bytes & 0xF0) | 0x49000000) - (524288.0f + 8.0f));
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned) {
    return splat_half_as<T>(p.scales + uint64_t{unit} * sizeof(Half));
  }
};

}  // namespace corvane
