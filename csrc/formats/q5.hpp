// q5_0 and q5_1: 5-bit codes, scale and (q5_1) offset inside the block of 64 elements. Interleaved.
//
//   byte 0    2    4            12               44
//        | d  | m  | qh (8)     | qs (32)         |
//
//   qs[j]         | low four bits of element j + 32 | of element j |
//                  7                              4   3           0
//   bit e of qh   the fifth bit of element e
//
//   q5_0: y = (code - 16) * d, and m is not read;  q5_1: y = d * code + m
#pragma once

#include <cstddef>

#include "formats/byte_table.hpp"
#include "formats/reader.hpp"

namespace corvane {

struct block_q5_1 {  // of q5_0 too
  Half d;
  Half m;
  uint8_t qh[8];
  uint8_t qs[32];
};

namespace detail {

// Their readers decode to the weight itself: it is formed in float and converted to T once, so nothing is left to be
// scaled (shared_scale is 0).
template <int32_t Id>
struct q5_reader {
  static constexpr int32_t id = Id;
  static constexpr unsigned shared_scale = 0;
  static constexpr bool has_offset = false;
  static_assert(sizeof(block_q5_1) == registry[id].block_bytes, "the struct is the block");

  struct planes {
    const uint8_t* blocks;
  };

  static planes locate(const uint8_t* weight, uint64_t, uint64_t) { return {weight}; }

  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch(const planes& p, uint32_t unit) {
    sycl::prefetch<To>(fetch(p, unit));
  }

  using raw = const uint8_t*;
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return p.blocks + uint64_t{unit} * sizeof(block_q5_1);
  }

  // A block has at most 32 different weights: they are made once, and a code looks its weight up. Measured and dropped:
  // making all 64.
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw block, unsigned v) {
    const auto fifths = sycl::load_integer<uint32_t>(block + offsetof(block_q5_1, qh) + 2 * v);
    const sycl::i32x16 fifth = sycl::multishift(fifths, fifth_from.value());
    const sycl::i32x16 bytes = sycl::widen_u8(block + offsetof(block_q5_1, qs) + 16 * (v % 2));
    const sycl::i32x16 nibbles = v < 2 ? bytes : bytes >> 4;
    return simd<T, 16>::exact(look_up<T>(block, (fifth & 0x10) | (nibbles & ~0x10)));
  }

  // The codes of a unit become bytes all at once; element 4 t + i is byte i of word t.
  static constexpr unsigned woven_units = 1;
  static constexpr unsigned woven_element(unsigned line, unsigned lane) { return 4 * lane + line; }
  struct woven {
    sycl::i32x16 codes;
    raw block;
  };
  static CORVANE_INLINE woven fetch_woven(const planes& p, uint32_t unit, uint32_t) {
    static constexpr sycl::i32x16 nibble = {0, 0, 0, 0, 0, 0, 0, 0, 4, 4, 4, 4, 4, 4, 4, 4};
    static constexpr byte_table fifth_from = table_of_bytes([](unsigned t) { return (t - 4) & 63; });
    constexpr int32_t fifth_bits = 0x10101010;
    const raw block = fetch(p, unit);
    const sycl::i32x16 fifths =
        sycl::multishift(sycl::load_integer<uint64_t>(block + offsetof(block_q5_1, qh)), fifth_from.value());
    const sycl::i32x16 nibbles = sycl::load_twice(block + offsetof(block_q5_1, qs)) >> nibble;
    return {sycl::select_bits(fifth_bits, fifths, nibbles), block};
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> woven_line(const woven& w, unsigned line) {
    return simd<T, 16>::exact(look_up<T>(w.block, w.codes >> static_cast<int>(8 * line)));
  }

 private:
  // The weights of codes, which are the low five bits of each lane.
  template <class T>
  static CORVANE_INLINE sycl::f32x16 look_up(raw block, sycl::i32x16 codes) {
    static constexpr sycl::f32x16 nibble = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    return sycl::lookup32(weights<T>(block, nibble), weights<T>(block, nibble + 16.0f), codes);
  }

  // Bit n of a word to bit 4 of lane n.
  static constexpr byte_table fifth_from = table_of_bytes([](unsigned t) { return t % 4 == 0 ? (t / 4 - 4) & 63 : 0; });

  // Weights of 16 codes, in float and rounded to T.
  template <class T>
  static CORVANE_INLINE sycl::f32x16 weights(raw block, sycl::f32x16 code) {
    using stored = std::conditional_t<std::is_same_v<T, double>, float, T>;
    const sycl::f32x16 d = sycl::splat_half(block + offsetof(block_q5_1, d));
    if constexpr (id == qtype_q5_0) return simd<stored, 16>::from_float((code - 16.0f) * d).r[0];
    const sycl::f32x16 m = sycl::splat_half(block + offsetof(block_q5_1, m));
    return simd<stored, 16>::from_float(d * code + m).r[0];
  }
};

}  // namespace detail

}  // namespace corvane
