// nf3: codes into 8 values of NormalFloat, one Half scale for 64 elements. Planar.
//
//   codes   24 bytes a block, block_nf3_qs   bit e of qh: top bit of the code of element e
//     ql[j]:  | element 4j | 4j + 1 | 4j + 2 | 4j + 3 |   low two bits of the codes
//              7          6 5      4 3      2 1      0
//   scales  one Half a block   y = table[code] * d
#pragma once

#include <cstddef>

#include "formats/byte_table.hpp"
#include "formats/code_tables.hpp"
#include "formats/two_planes.hpp"
#include "platform/sycl/bytes.hpp"

namespace corvane {

struct block_nf3_qs {
  uint8_t qh[8];
  uint8_t ql[16];
};

namespace detail {
// What byte t of a unit's woven codes is: a 64-bit word has the low bits of half of the elements, every other word
// those of the first half.
constexpr unsigned nf3_woven_element(unsigned t) { return 32 * (t / 8 % 2) + 8 * (t / 16) + t % 8; }
}  // namespace detail

struct nf3_reader : two_planes<qtype_nf3, block_nf3_qs, Half> {
  // The low two bits of a code look up one half of the table, which is repeated so that the bits above them do not
  // matter; the top bits are the mask that chooses the half.
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw block, unsigned v) {
    static constexpr auto lower = table_of<T>(repeated(0)), upper = table_of<T>(repeated(4));
    static constexpr sycl::i32x16 place = {6, 4, 2, 0, 14, 12, 10, 8, 22, 20, 18, 16, 30, 28, 26, 24};
    const auto top = sycl::load_integer<uint16_t>(block + offsetof(block_nf3_qs, qh) + 2 * v);
    const auto low = sycl::load_integer<int32_t>(block + offsetof(block_nf3_qs, ql) + 4 * v);
    const sycl::i32x16 code = sycl::splat(low) >> place;
    return simd<T, 16>::exact(
        sycl::lookup32(sycl::load_bytes<sycl::f32x16>(&lower), sycl::load_bytes<sycl::f32x16>(&upper), code, top));
  }

  // Of a unit the codes become bytes all at once, and lane t of line i is byte i of word t. Its number in the table is
  // the bottom three bits, as the table stands twice.
  static constexpr unsigned woven_units = sycl::multishifts_at_once ? 1 : 0;
  static constexpr unsigned woven_element(unsigned line, unsigned lane) {
    return detail::nf3_woven_element(4 * lane + line);
  }
  using woven = sycl::i32x16;
  static CORVANE_INLINE woven fetch_woven(const planes& p, uint32_t unit, uint32_t) {
    static constexpr auto low_from = detail::table_of_bytes([](unsigned t) {
      const unsigned e = detail::nf3_woven_element(t) % 32;
      return 8 * (e / 4) + 6 - 2 * (e % 4);
    });
    static constexpr auto top_from =
        detail::table_of_bytes([](unsigned t) { return (detail::nf3_woven_element(t) - 2) & 63; });
    constexpr int32_t low_bits = 0x03030303;
    const raw block = fetch(p, unit);
    const sycl::i32x16 twice = sycl::load_four_times(block + offsetof(block_nf3_qs, ql));
    const auto low = (sycl::i32x16)sycl::multishift_words((sycl::u8x64)twice, low_from.value());
    const sycl::i32x16 top =
        sycl::multishift(sycl::load_integer<uint64_t>(block + offsetof(block_nf3_qs, qh)), top_from.value());
    return sycl::select_bits(low_bits, low, top);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> woven_line(woven codes, unsigned line) {
    static constexpr auto table = twice_table<T>();
    return simd<T, 16>::exact(
        sycl::lookup16(sycl::load_bytes<sycl::f32x16>(&table), codes >> static_cast<int>(8 * line)));
  }

  static CORVANE_INLINE sycl::u16x32 value_index(raw block, unsigned h) {
    // The low two bits of element 32 h + n to word n.
    static constexpr auto to_word_bottom = detail::table_of_bytes([](unsigned t) {
      const unsigned n = t / 2;
      return t % 2 == 0 ? 8 * (n / 4) + 6 - 2 * (n % 4) : 0;
    });
    const auto top = sycl::load_integer<uint32_t>(block + offsetof(block_nf3_qs, qh) + 4 * h);
    const auto low = sycl::load_integer<uint64_t>(block + offsetof(block_nf3_qs, ql) + 8 * h);
    const sycl::i32x16 code = sycl::multishift(low, to_word_bottom.value());
    return ((sycl::u16x32)code & uint16_t{3}) | sycl::splat_where(top, 4);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_codes() {
    static constexpr auto table = twice_table<T>();
    return simd<T, 16>::exact(sycl::load_bytes<sycl::f32x16>(&table));
  }

 private:
  template <class T>
  static constexpr auto twice_table() {
    std::array<float, 16> t{};
    for (unsigned i = 0; i < 16; ++i) t[i] = nf3_values[i % 8];
    return table_of<T>(t);
  }
  static constexpr std::array<float, 16> repeated(unsigned first) {
    std::array<float, 16> t{};
    for (unsigned i = 0; i < 16; ++i) t[i] = nf3_values[first + i % 4];
    return t;
  }
};

template <>
struct reader_for<qtype_nf3> {
  using type = nf3_reader;
};

}  // namespace corvane
