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

  // A chunk is the elements 8 (c % 2) to 8 (c % 2) + 7 of a sub-block, and those 16 further on. Its codes are put
  // together four at a time, one to a byte. Pair 2 m is two elements two apart, pair 2 m + 1 those 16 behind them.
  static constexpr unsigned chunk_element(unsigned c, unsigned j) {
    const unsigned n = j / 2;
    return 32 * (c / 2) + 8 * (c % 2) + 4 * (n / 4) + n / 2 % 2 + 2 * (j % 2) + 16 * (n % 2);
  }
  struct chunks {
    sycl::i32x16 codes[4];  // elements 0 to 3, 4 to 7 of each chunk; those 16 behind them
  };
  static CORVANE_INLINE chunks fetch_chunks(const planes& p, uint32_t block) {
    // Words of each chunk: chunks 4 t to 4 t + 3 share the 32 bytes t of qs, the odd sub-block in the high nibbles; all
    // sub-blocks share qh.
    static constexpr sycl::i32x16 low_word = {0, 2, 0, 2, 8, 10, 8, 10, 16, 18, 16, 18, 24, 26, 24, 26};
    static constexpr sycl::i32x16 nibble = {0, 0, 4, 4, 0, 0, 4, 4, 0, 0, 4, 4, 0, 0, 4, 4};
    static constexpr sycl::i32x16 high_word = {0, 2, 0, 2, 0, 2, 0, 2, 0, 2, 0, 2, 0, 2, 0, 2};
    static constexpr sycl::i32x16 to_bit_4 = {4, 4, 3, 3, 2, 2, 1, 1, 0, 0, 31, 31, 30, 30, 29, 29};  // from bit i
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    const auto a = sycl::load_bytes<sycl::i32x16>(at + offsetof(block_q5_K, qs));
    const auto b = sycl::load_bytes<sycl::i32x16>(at + offsetof(block_q5_K, qs) + 64);
    const auto h = sycl::load_twice(at + offsetof(block_q5_K, qh));
    const auto words = [&](int n) {
      const sycl::i32x16 low = sycl::shuffle(a, b, low_word + n) >> nibble;
      const sycl::i32x16 high = sycl::rotate_left(sycl::shuffle(h, high_word + n), to_bit_4);
      return (low & 0x0F0F0F0F) | (high & 0x10101010);
    };
    return {{words(0), words(1), words(4), words(5)}};
  }
  template <class T, unsigned N>
  static CORVANE_INLINE detail::value_pair<T> chunk_pair(const chunks& c) {
    static constexpr auto values = detail::make_values<32>([](unsigned code) { return code; });
    return detail::values_at<T>(c.codes[2 * (N % 2) + N / 4], 8 * (N / 2 % 2), values);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_scale(const planes& p, uint32_t block) {
    static_assert(std::is_same_v<T, float>, "the scales of q5_k enter in float");
    return simd<T, 16>::exact(sycl::lookup16(block_factors(p, block), each_twice));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_offset(const planes& p, uint32_t block) {
    static_assert(std::is_same_v<T, float>, "the minimums of q5_k enter in float");
    return simd<T, 16>::exact(sycl::lookup16(block_factors(p, block), each_twice + 8));
  }
  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch_block(const planes& p, uint32_t block) {
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    for (unsigned line = 0; line < sizeof(block_q5_K); line += 64) sycl::prefetch<To>(at + line);
  }

 private:
  static constexpr sycl::i32x16 each_twice = {0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7};

  // Lanes d * sc[0] to d * sc[7], then -dmin * m[0] to -dmin * m[7].
  static CORVANE_INLINE sycl::f32x16 block_factors(const planes& p, uint32_t block) {
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    const sub_scales s = unpack(at);
    const uint64_t bytes[2] = {s.sc, s.m};
    const sycl::f32x16 d = sycl::select(0xFF00, -sycl::splat_half(at + offsetof(block_q5_K, dmin)),
                                        sycl::splat_half(at + offsetof(block_q5_K, d)));
    return d * sycl::to_float(sycl::widen_u8(sycl::load_bytes<sycl::u8x16>(bytes)));
  }
  static CORVANE_INLINE const uint8_t* block(const planes& p, uint32_t unit) {
    return p.blocks + detail::block_of(unit) * sizeof(block_q5_K);
  }
};

template <>
struct reader_for<qtype_q5_k> {
  using type = q5_k_reader;
};

}  // namespace corvane
