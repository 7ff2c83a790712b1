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

  static CORVANE_INLINE void prefetch(const planes& p, uint32_t unit) { sycl::prefetch(fetch(p, unit).qs); }

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
    if (v < 2) {
      const sycl::i32x16 bits = ((bytes & 0x0F) | 0x4B000000) | ((fifth << 4 >> codes.first) & 0x10);
      return simd<T, 16>::exact(sycl::as_float(bits) - 8388608.0f);
    }
    const sycl::i32x16 bits = ((bytes & 0xF0) | 0x49000000) | ((fifth << 7 >> codes.first) & 0x100);
    return simd<T, 16>::exact(sycl::as_float(bits) - 524288.0f);
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

  // A chunk is eight pairs of elements 16 apart: 8 (c % 2) to 8 (c % 2) + 7 of sub-block c / 2, and those 16 further
  // on. Its codes are put together four at a time, one to a byte.
  static constexpr unsigned chunk_element(unsigned c, unsigned j) {
    return 32 * (c / 2) + 8 * (c % 2) + j / 2 + 16 * (j % 2);
  }
  struct chunks {
    sycl::i32x16 codes[4];  // first of pairs 0 to 3, of pairs 4 to 7; second of pairs 0 to 3, of pairs 4 to 7
  };
  static CORVANE_INLINE chunks fetch_chunks(const planes& p, uint32_t block) {
    // Words of each chunk: chunks 4 t to 4 t + 3 share the 32 bytes t of qs, the odd sub-block in the high nibbles; all
    // sub-blocks share qh.
    static constexpr sycl::i32x16 low_word = {0, 2, 0, 2, 8, 10, 8, 10, 16, 18, 16, 18, 24, 26, 24, 26};
    static constexpr sycl::i32x16 nibble = {0, 0, 4, 4, 0, 0, 4, 4, 0, 0, 4, 4, 0, 0, 4, 4};
    static constexpr sycl::i32x16 high_word = {0, 2, 0, 2, 0, 2, 0, 2, 0, 2, 0, 2, 0, 2, 0, 2};
    static constexpr sycl::i32x16 up = {4, 4, 3, 3, 2, 2, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0};  // bit i to bit 4
    static constexpr sycl::i32x16 down = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 2, 2, 3, 3};
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    const auto a = sycl::load_bytes<sycl::i32x16>(at + offsetof(block_q5_K, qs));
    const auto b = sycl::load_bytes<sycl::i32x16>(at + offsetof(block_q5_K, qs) + 64);
    const auto h = sycl::load_twice(at + offsetof(block_q5_K, qh));
    const auto words = [&](int n) {
      const sycl::i32x16 low = __builtin_shuffle(a, b, low_word + n) >> nibble;
      const sycl::i32x16 high = __builtin_shuffle(h, high_word + n) << up >> down;
      return (low & 0x0F0F0F0F) | (high & 0x10101010);
    };
    return {{words(0), words(1), words(4), words(5)}};
  }
  template <class T, unsigned J>
  static CORVANE_INLINE simd<T, 16> chunk_code(const chunks& c) {
    const sycl::i32x16 bits = ((c.codes[2 * (J % 2) + J / 8] >> (8 * (J / 2 % 4))) & 0xFF) | 0x4B000000;
    return simd<T, 16>::exact(sycl::as_float(bits) - 8388608.0f);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_scale(const planes& p, uint32_t block) {
    static_assert(std::is_same_v<T, float>, "the scales of q5_k enter in float");
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    return {{sycl::splat_half(at + offsetof(block_q5_K, d)) * sycl::to_float(each_twice(unpack(at).sc))}};
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_offset(const planes& p, uint32_t block) {
    static_assert(std::is_same_v<T, float>, "the minimums of q5_k enter in float");
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    return {{-sycl::splat_half(at + offsetof(block_q5_K, dmin)) * sycl::to_float(each_twice(unpack(at).m))}};
  }
  static CORVANE_INLINE void prefetch_block(const planes& p, uint32_t block) {
    const uint8_t* at = p.blocks + uint64_t{block} * sizeof(block_q5_K);
    for (unsigned line = 0; line < sizeof(block_q5_K); line += 64) sycl::prefetch(at + line);
  }

 private:
  // Eight bytes, each in two neighbouring lanes.
  static CORVANE_INLINE sycl::i32x16 each_twice(uint64_t bytes) {
    struct alignas(64) bit_positions {
      uint8_t from[64];
    };
    static constexpr bit_positions positions = [] {
      bit_positions p{};
      for (unsigned c = 0; c < 16; ++c) p.from[4 * c] = static_cast<uint8_t>(8 * (c / 2));
      return p;
    }();
    return sycl::multishift(bytes, sycl::load_bytes<sycl::u8x64>(&positions)) & 0xFF;
  }

  static CORVANE_INLINE const uint8_t* block(const planes& p, uint32_t unit) {
    return p.blocks + detail::block_of(unit) * sizeof(block_q5_K);
  }
};

}  // namespace corvane
