// q5_k: 5-bit codes, a scale and a minimum of six bits for every 32 elements, over two Half scales for 256.
// Interleaved.
//
//   byte 0    2     4             16        48         176
//        | d  |dmin | scales (12) | qh (32) | qs (128) |
//
//   qs[32 t + l]   | low four bits of element 64 t + 32 + l | of element 64 t + l |   l < 32
//                   7                                    4   3                 0
//   qh[l]          bit i: the fifth bit of element 32 i + l
//   scales, i < 4  [i]:     | top bits of sc[4 + i] | sc[i] |     [4 + i]:  | top bits of m[4 + i] | m[i] |
//                            7                     6 5     0                 7                    6 5    0
//                  [8 + i]: | low four bits of m[4 + i] | of sc[4 + i] |
//                            7                         4 3            0
//   y = d * sc[i] * code - dmin * m[i], sub-block i = element / 32
#pragma once

#include "formats/k_block.hpp"

namespace corvane {

struct block_q5_K {
  Half d, dmin;
  uint8_t scales[12];
  uint8_t qh[32];
  uint8_t qs[128];
};

// Its scales enter in float: scale and offset exist for T = float alone.
struct q5_k_reader {
  static constexpr int32_t id = qtype_q5_k;
  static constexpr unsigned shared_scale = 32;
  static constexpr bool has_offset = true;
  static_assert(sizeof(block_q5_K) == registry[id].block_bytes, "the struct is the block");

  struct planes {
    const uint8_t* blocks;
  };

  static planes locate(const uint8_t* weight, uint64_t, uint64_t) { return {weight}; }

  struct raw {
    const uint8_t* qs;  // 32 bytes
    const uint8_t* qh;  // 32 bytes, a block's
    int first;          // number of the unit's first sub-block
  };
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return of_block(block(p, unit), detail::quarter_of(unit));
  }
  static CORVANE_INLINE raw of_block(const uint8_t* block, unsigned quarter) {
    return {block + offsetof(block_q5_K, qs) + 32 * quarter, block + offsetof(block_q5_K, qh),
            static_cast<int>(2 * quarter)};
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw codes, unsigned v) {
    const sycl::i32x16 bytes = sycl::widen_u8(codes.qs + 16 * (v % 2));
    const sycl::i32x16 fifth = sycl::widen_u8(codes.qh + 16 * (v % 2));
    if (v < 2) return simd<T, 16>::exact(detail::low_codes(bytes, (fifth << 4 >> codes.first) & 0x10));
    return simd<T, 16>::exact(detail::high_codes(bytes, (fifth << 7 >> codes.first) & 0x100));
  }

  // The six-bit scales and minimums of a block, unpacked: bytes sc[0] to sc[7], then m[0] to m[7].
  struct sub_scales {
    uint64_t sc, m;
  };
  static CORVANE_INLINE sub_scales unpack(const uint8_t* block) {
    const uint8_t* scales = block + offsetof(block_q5_K, scales);
    const auto a = sycl::load_integer<uint32_t>(scales);
    const auto b = sycl::load_integer<uint32_t>(scales + 4);
    const auto c = sycl::load_integer<uint32_t>(scales + 8);
    const auto both = [](uint32_t first, uint32_t second) { return uint64_t{second} << 32 | first; };
    return {both(a & 0x3F3F3F3F, (c & 0x0F0F0F0F) | (a >> 2 & 0x30303030)),
            both(b & 0x3F3F3F3F, (c >> 4 & 0x0F0F0F0F) | (b >> 2 & 0x30303030))};
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned v) {
    static_assert(std::is_same_v<T, float>, "the scales of q5_k enter in float");
    const auto sc = static_cast<uint8_t>(unpack(block(p, unit)).sc >> (8 * (2 * detail::quarter_of(unit) + v / 2)));
    return simd<T, 16>::exact(sycl::splat_half(block(p, unit) + offsetof(block_q5_K, d)) * static_cast<float>(sc));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> offset(const planes& p, uint32_t unit, unsigned v) {
    static_assert(std::is_same_v<T, float>, "the minimums of q5_k enter in float");
    const auto m = static_cast<uint8_t>(unpack(block(p, unit)).m >> (8 * (2 * detail::quarter_of(unit) + v / 2)));
    return simd<T, 16>::exact(sycl::splat_half(block(p, unit) + offsetof(block_q5_K, dmin)) * -static_cast<float>(m));
  }

  // A chunk is eight elements of a sub-block and the eight at their place in the next one: byte by byte the nibbles of
  // two words, 16 elements apart. Pair 2 m is two elements two apart, pair 2 m + 1 those 16 behind them.
  static constexpr unsigned chunk_element(unsigned c, unsigned j) {
    const unsigned n = j / 2;
    return 64 * (c / 4) + 32 * (n / 4) + 4 * (c % 4) + n / 2 % 2 + 2 * (j % 2) + 16 * (n % 2);
  }
  struct chunks {
    sycl::i32x16 codes[2][2];  // [sub-block][word]: four elements of each chunk, the fifth bits with rubbish above them
  };
  static CORVANE_INLINE chunks fetch_chunks(const planes& p, uint32_t block) {
    // Chunks 4 t to 4 t + 3 share the 32 bytes t of qs; all share qh.
    static constexpr sycl::i32x16 word = {0, 1, 2, 3, 8, 9, 10, 11, 16, 17, 18, 19, 24, 25, 26, 27};
    static constexpr sycl::i32x16 to_bit_4 = {4, 4, 4, 4, 2, 2, 2, 2, 0, 0, 0, 0, 30, 30, 30, 30};  // from bit 2 t
    static constexpr sycl::i32x16 next_to_bit_4 = {3, 3, 3, 3, 1, 1, 1, 1, 31, 31, 31, 31, 29, 29, 29, 29};
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    const auto a = sycl::load_bytes<sycl::i32x16>(at + offsetof(block_q5_K, qs));
    const auto b = sycl::load_bytes<sycl::i32x16>(at + offsetof(block_q5_K, qs) + 64);
    chunks c;
    for (unsigned n = 0; n < 2; ++n) {
      const sycl::i32x16 low = sycl::shuffle(a, b, word + static_cast<int32_t>(4 * n));
      const auto high = sycl::load_four_times(at + offsetof(block_q5_K, qh) + 16 * n);
      c.codes[0][n] = sycl::select_bits(0x0F0F0F0F, low, sycl::rotate_left(high, to_bit_4));
      c.codes[1][n] = sycl::select_bits(0x0F0F0F0F, low >> 4, sycl::rotate_left(high, next_to_bit_4));
    }
    return c;
  }
  template <class T, unsigned N>
  static CORVANE_INLINE detail::value_pair<T> chunk_pair(const chunks& c) {
    static constexpr auto values = detail::make_values<32>([](unsigned code) { return code; });
    return detail::values_at<T>(c.codes[N / 4][N % 2], 8 * (N / 2 % 2), values);
  }

  // Lanes d * sc[0] to d * sc[7], then -dmin * m[0] to -dmin * m[7].
  static CORVANE_INLINE sycl::f32x16 block_factors(const planes& p, uint32_t block) {
    // Words of the block's first 16 bytes: the low four bits of a scale or minimum are in one of them, the high two in
    // this or another.
    static constexpr sycl::i32x16 low_word = {1, 1, 1, 1, 3, 3, 3, 3, 2, 2, 2, 2, 3, 3, 3, 3};
    static constexpr sycl::i32x16 low_from = {0, 8, 16, 24, 0, 8, 16, 24, 0, 8, 16, 24, 4, 12, 20, 28};
    static constexpr sycl::i32x16 high_word = {1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2};
    static constexpr sycl::i32x16 high_from = {0, 8, 16, 24, 2, 10, 18, 26, 0, 8, 16, 24, 2, 10, 18, 26};
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    const sycl::i32x16 words = sycl::load_four_times(at);
    const sycl::i32x16 sub = sycl::select_bits(0x0F, sycl::shuffle(words, low_word) >> low_from,
                                               sycl::shuffle(words, high_word) >> high_from);
    return detail::scale_then_minus_minimum(at) * sycl::to_float(sub & 0x3F);
  }
  // Of them the factors of a chunk's first eight elements, or its other eight; and of elements 16 t to 16 t + 15, lane
  // t.
  static CORVANE_INLINE simd<float, 16> half_chunk_scale(sycl::f32x16 factors, unsigned half) {
    static constexpr sycl::i32x16 first = {0, 0, 0, 0, 2, 2, 2, 2, 4, 4, 4, 4, 6, 6, 6, 6};
    return simd<float, 16>::exact(sycl::lookup16(factors, first + static_cast<int32_t>(half)));
  }
  static CORVANE_INLINE simd<float, 16> chunk_offset(sycl::f32x16 factors) {
    return simd<float, 16>::exact(sycl::lookup16(factors, each_twice + 8));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_scale(const planes& p, uint32_t block) {
    static_assert(std::is_same_v<T, float>, "the scales of q5_k enter in float");
    return simd<T, 16>::exact(sycl::lookup16(block_factors(p, block), each_twice));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_offset(const planes& p, uint32_t block) {
    static_assert(std::is_same_v<T, float>, "the minimums of q5_k enter in float");
    return chunk_offset(block_factors(p, block));
  }
  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch_block(const planes& p, uint32_t block) {
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    for (unsigned line = 0; line < sizeof(block_q5_K); line += 64) sycl::prefetch<To>(at + line);
  }

 private:
  static constexpr sycl::i32x16 each_twice = {0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7};

  static CORVANE_INLINE const uint8_t* block(const planes& p, uint32_t unit) {
    return p.blocks + detail::block_of(unit) * sizeof(block_q5_K);
  }
};

template <>
struct reader_for<qtype_q5_k> {
  using type = q5_k_reader;
};

}  // namespace corvane
