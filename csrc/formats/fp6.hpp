// fp6: codes of sign, three exponent bits and two mantissa bits, one Half scale for 64 elements. Planar.
//
//   4-bit plane  32 bytes a block, block_fp6_32_ql: low four bits of the codes, 8 codes to a little-endian word
//   2-bit plane  16 bytes a block, block_fp6_32_qh: sign and top exponent bit, 16 codes to a word
//   scales       one Half a block
//
// Four neighbouring codes stand in the bytes 1, 3, 0, 2 of a word (byte 0 the lowest), and the next four in the bits
// below them. Numbers are elements, counted from the first of a word:
//
//   byte                 3            2            1            0
//   word of 4-bit plane  |  1 |  5 |  |  3 |  7 |  |  0 |  4 |  |  2 |  6 |
//                         7-4  3-0
//   word of 2-bit plane  |1|5|9|13|   |3|7|11|15|  |0|4|8|12|   |2|6|10|14|
//                         7     0
//
// A code is read as the top bits of a Half, with the exponent as it stands and the bit below the mantissa set: the
// midpoint of the code's interval, times 2^-12.
//
//   Half  | sign | 0 | 0 | e2 | e1 e0 m1 m0 | 1 | 0 ... |
//           15    14   13  12   11       8    7   6   0      y = value * d
#pragma once

#include "formats/byte_table.hpp"
#include "formats/code_tables.hpp"
#include "formats/k_block.hpp"

namespace corvane {

struct block_fp6_32_ql {
  uint32_t words[8];
};
struct block_fp6_32_qh {
  uint32_t words[4];
};

// The codes of fp6 and fp6_k: 64 elements at a time, 32 bytes of the 4-bit plane and 16 of the 2-bit plane.
struct fp6_codes {
  struct raw {
    const uint8_t* low;   // in the 4-bit plane
    const uint8_t* high;  // in the 2-bit plane
  };

 private:
  static constexpr unsigned byte_of[4] = {1, 3, 0, 2};  // where in a word the codes of four neighbours stand

  // Byte 0 of lane n: the nibble of element n, in two neighbouring words of the 4-bit plane.
  static constexpr auto low_from = detail::table_of_bytes([](unsigned t) {
    const unsigned n = t / 4;
    return t % 4 == 0 ? 32 * (n / 8) + 8 * byte_of[n % 4] + (n / 4 % 2 == 0 ? 4 : 0) : 0;
  });

  // Of the word of the 2-bit plane, which stands twice in 64 bits: the top exponent bit to bit 4 of lane n, the sign
  // to 31.
  static constexpr auto high_from = detail::table_of_bytes([](unsigned t) {
    const unsigned n = t / 4, sign_at = 8 * byte_of[n % 4] + 7 - 2 * (n / 4);
    if (t % 4 == 0) return (sign_at - 1 - 4) & 63;
    return t % 4 == 3 ? (sign_at - 7) & 63 : 0;
  });

 public:
  // Bits are brought together in each lane: e2 e1 e0 m1 m0 at the bottom, the index of a magnitude, the sign on top.
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw codes, unsigned v) {
    static constexpr auto smaller = table_of<T>(magnitudes(0)), larger = table_of<T>(magnitudes(1));
    const auto low_word = sycl::load_integer<uint64_t>(codes.low + 8 * v);
    const auto high_word = sycl::load_integer<uint32_t>(codes.high + 4 * v);
    const sycl::i32x16 low = sycl::multishift(low_word, low_from.value());
    const sycl::i32x16 high = sycl::multishift(high_word, high_from.value());
    const sycl::f32x16 magnitude =
        sycl::lookup32(sycl::load_bytes<sycl::f32x16>(&smaller), sycl::load_bytes<sycl::f32x16>(&larger),
                       (low & 0x0F) | (high & ~0x0F));
    return simd<T, 16>::exact(sycl::as_float(sycl::as_int(magnitude) | (high & static_cast<int32_t>(0x80000000))));
  }

  // Sixteen neighbours, a chunk, in a lane of words: their codes are put together four at a time, one to a byte; a pair
  // is two bytes apart. Which element of a chunk is element j, and elements 2 n and 2 n + 1 of all chunks.
  static constexpr unsigned chunk_element(unsigned j) {
    constexpr unsigned element_of[4] = {2, 0, 3, 1};  // by its byte in a word
    const unsigned n = j / 2;
    return 4 * (n / 2) + element_of[n % 2 + 2 * (j % 2)];
  }
  template <class T>
  static CORVANE_INLINE detail::value_pair<T> chunk_pair(const detail::six_bit_codes& codes, unsigned n) {
    static constexpr auto values = detail::make_values<64>([](unsigned code) {
      const float magnitude = magnitudes(code >> 4 & 1)[code & 15];
      return (code & 32) != 0 ? -magnitude : magnitude;
    });
    return detail::values_at<T>(codes.of_four[n / 2], 8 * (n % 2), values);
  }

  // By the low four bits of a code.
  static constexpr std::array<float, 16> magnitudes(unsigned top_exponent_bit) {
    std::array<float, 16> t{};
    for (unsigned n = 0; n < 16; ++n) {
      const unsigned exponent = 4 * top_exponent_bit + n / 4;
      const float mantissa = static_cast<float>(n % 4) / 4 + 0.125f;
      // 2^-14 for exponent 0, where there is no leading one, as for exponent 1.
      const float power = static_cast<float>(1u << (exponent == 0 ? 0 : exponent - 1)) / 16384.0f;
      t[n] = power * (exponent == 0 ? mantissa : 1.0f + mantissa);
    }
    return t;
  }
};

struct fp6_reader {
  static constexpr int32_t id = qtype_fp6;
  static constexpr unsigned shared_scale = 64;
  static constexpr bool has_offset = false;
  static_assert(sizeof(block_fp6_32_ql) + sizeof(block_fp6_32_qh) + sizeof(Half) == registry[id].block_bytes,
                "planes make up the block");

  struct planes {
    const uint8_t* low;
    const uint8_t* high;
    const uint8_t* scales;
  };

  static planes locate(const uint8_t* weight, uint64_t state_size, uint64_t output_size) {
    return {weight, weight + plane_offset(state_size, output_size, 64, sizeof(block_fp6_32_ql)),
            weight + plane_offset(state_size, output_size, 64, sizeof(block_fp6_32_ql) + sizeof(block_fp6_32_qh))};
  }

  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch(const planes& p, uint32_t unit) {
    const raw at = fetch(p, unit);
    sycl::prefetch<To>(at.low);
    sycl::prefetch<To>(at.high);
  }
  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch_scales(const planes& p, uint32_t unit) {
    sycl::prefetch<To>(p.scales + uint64_t{unit} * sizeof(Half));
  }

  using raw = fp6_codes::raw;
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return {p.low + uint64_t{unit} * sizeof(block_fp6_32_ql), p.high + uint64_t{unit} * sizeof(block_fp6_32_qh)};
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw codes, unsigned v) {
    return fp6_codes::decode<T>(codes, v);
  }

  // Four units are sixteen chunks, one to a lane, so that one permute finds the values of 32 codes.
  static constexpr unsigned woven_units = sycl::looks_up_words ? 4 : 0;
  static constexpr unsigned woven_element(unsigned line, unsigned lane) {
    return 16 * lane + fp6_codes::chunk_element(line);
  }
  using woven = detail::six_bit_codes;
  static CORVANE_INLINE woven fetch_woven(const planes& p, uint32_t unit, uint32_t count) {
    const raw at = fetch(p, unit);
    return detail::join_six_bits(at.low, at.high, 4 * count);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> woven_line(const woven& codes, unsigned line) {
    const auto pair = fp6_codes::chunk_pair<T>(codes, line / 2);
    return line % 2 == 0 ? pair.first : pair.second;
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned) {
    return splat_half_as<T>(p.scales + uint64_t{unit} * sizeof(Half));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> scales(const planes& p, uint32_t unit, unsigned count) {
    return half_lanes<T>(p.scales + uint64_t{unit} * sizeof(Half), count);
  }
};

template <>
struct reader_for<qtype_fp6> {
  using type = fp6_reader;
};

}  // namespace corvane
