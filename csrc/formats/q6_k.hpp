// q6_k: 6-bit codes around 32, a signed byte scale for every 16 elements, over a Half scale for 256. Planar.
//
//   high bits          64 bytes a block, block_q6_K_qh: sixteen little-endian words, one to a sub-block
//   low bits           128 bytes a block, block_q6_K_ql: 32 words, two to a sub-block
//   sub-block scales   16 signed bytes a block
//   super-block scale  one Half a block
//
// Bytes 3 to 0 of the words of a sub-block; numbers are its elements:
//
//   low word 0   |  3 |  7 |   |  2 |  6 |   |  1 |  5 |   |  0 |  4 |
//   low word 1   | 11 | 15 |   | 10 | 14 |   |  9 | 13 |   |  8 | 12 |
//                 7-4  3-0
//   high word    |3|7|11|15|   |2|6|10|14|   |1|5| 9|13|   |0|4| 8|12|
//                 7       0
//   y = d * sc * (code - 32)
//
// fp6_k has planes of these widths too, but the low bits first, another order of bytes, and small floats for codes.
#pragma once

#include "formats/byte_table.hpp"
#include "formats/k_block.hpp"

namespace corvane {

struct block_q6_K_qh {
  uint32_t words[16];
};
struct block_q6_K_ql {
  uint32_t words[32];
};
struct block_q6_K_scales {
  int8_t sc[16];
};

struct q6_k_reader {
  static constexpr int32_t id = qtype_q6_k;
  static constexpr unsigned largest_code = 32;
  static constexpr unsigned shared_scale = 16;
  static constexpr bool has_offset = false;
  static_assert(sizeof(block_q6_K_qh) + sizeof(block_q6_K_ql) + sizeof(block_q6_K_scales) + sizeof(Half) ==
                    registry[id].block_bytes,
                "planes make up the block");

  struct planes {
    const uint8_t* high;
    const uint8_t* low;
    const uint8_t* sub_scales;
    const uint8_t* scales;
  };

  static planes locate(const uint8_t* weight, uint64_t state_size, uint64_t output_size) {
    constexpr uint32_t low_at = sizeof(block_q6_K_qh), sub_at = low_at + sizeof(block_q6_K_ql);
    const auto plane = [&](uint32_t at) { return weight + plane_offset(state_size, output_size, 256, at); };
    return {weight, plane(low_at), plane(sub_at), plane(sub_at + sizeof(block_q6_K_scales))};
  }

  struct raw {
    const uint8_t* low;   // 32 bytes, a unit's
    const uint8_t* high;  // 16 bytes
  };
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return {p.low + uint64_t{unit} * (sizeof(block_q6_K_ql) / detail::super_block_units),
            p.high + uint64_t{unit} * (sizeof(block_q6_K_qh) / detail::super_block_units)};
  }

 private:
  // Byte 0 of lane n: the nibble of element n, in the two low words of its sub-block.
  static constexpr auto low_from = detail::table_of_bytes([](unsigned t) {
    const unsigned n = t / 4;
    return t % 4 == 0 ? 32 * (n / 8) + 8 * (n % 4) + (n / 4 % 2 == 0 ? 4 : 0) : 0;
  });
  // Of the high word: the element's two bits to bits 5 and 4 of lane n.
  static constexpr auto high_from = detail::table_of_bytes([](unsigned t) {
    const unsigned n = t / 4;
    return t % 4 == 0 ? (8 * (n % 4) + 6 - 2 * (n / 4) - 4) & 63 : 0;
  });

 public:
  // The two parts of a code meet in the last bits of 2^23.
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw codes, unsigned v) {
    const auto low_words = sycl::load_integer<uint64_t>(codes.low + 8 * v);
    const auto high_word = uint64_t{sycl::load_integer<uint32_t>(codes.high + 4 * v)};
    const sycl::i32x16 low = sycl::multishift(low_words, low_from.value());
    const sycl::i32x16 high = sycl::multishift(high_word, high_from.value());
    const sycl::i32x16 bits = ((low & 0x0F) | 0x4B000000) | (high & 0x30);
    return simd<T, 16>::exact(sycl::as_float(bits) - (8388608.0f + 32.0f));
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned v) {
    const uint64_t block = detail::block_of(unit);
    const uint8_t* sub = p.sub_scales + block * sizeof(block_q6_K_scales) + 4 * detail::quarter_of(unit);
    const sycl::f32x16 d = sycl::splat_half(p.scales + block * sizeof(Half));
    const sycl::f32x16 factors = detail::product_in<T>(d, sycl::to_float(detail::four_signed(sub)));
    return detail::splat_lane<T>(factors, static_cast<int>(v));
  }

  // A chunk is a sub-block. Its codes are put together four at a time, one to a byte; a pair is two bytes apart.
  static constexpr unsigned chunk_element(unsigned c, unsigned j) {
    const unsigned n = j / 2;
    return 16 * c + 4 * (n / 2) + n % 2 + 2 * (j % 2);
  }
  struct chunks {
    detail::six_bit_codes codes;
  };
  static CORVANE_INLINE chunks fetch_chunks(const planes& p, uint32_t block) {
    return {detail::join_six_bits(p.low + uint64_t{block} * sizeof(block_q6_K_ql),
                                  p.high + uint64_t{block} * sizeof(block_q6_K_qh))};
  }
  template <class T, unsigned N>
  static CORVANE_INLINE detail::value_pair<T> chunk_pair(const chunks& c) {
    static constexpr auto values = detail::make_values<64>([](unsigned code) { return static_cast<int>(code) - 32; });
    return detail::values_at<T>(c.codes.of_four[N / 2], 8 * (N % 2), values);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_scale(const planes& p, uint32_t block) {
    const sycl::f32x16 sc = sycl::to_float(sycl::widen_s8(p.sub_scales + uint64_t{block} * sizeof(block_q6_K_scales)));
    const sycl::f32x16 d = sycl::splat_half(p.scales + uint64_t{block} * sizeof(Half));
    return simd<T, 16>::exact(detail::product_in<T>(d, sc));
  }
  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch_block(const planes& p, uint32_t block) {
    const uint8_t* low = p.low + uint64_t{block} * sizeof(block_q6_K_ql);
    sycl::prefetch<To>(low);
    sycl::prefetch<To>(low + 64);
    sycl::prefetch<To>(p.high + uint64_t{block} * sizeof(block_q6_K_qh));
  }
};

template <>
struct reader_for<qtype_q6_k> {
  using type = q6_k_reader;
};

}  // namespace corvane
