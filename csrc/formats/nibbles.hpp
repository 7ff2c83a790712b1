// Codes of four bits, which q4_0, q4_1, nf4 and fp4 have in common: two nibbles to a byte, each the number of a value.
#pragma once

#include "formats/code_tables.hpp"

namespace corvane {

struct block_q4_0_qs {  // 64 elements
  uint8_t qs[32];       // one nibble of qs[j] is element j, the other element j + 32
};

template <const std::array<float, 16>& Values,
          bool HighNibbleFirst>  // element j is the high nibble of qs[j]
struct nibble_codes {
  static constexpr unsigned largest_code = [] {  // 0: they are not whole
    float most = 0;
    for (const float value : Values) {
      if (value != static_cast<float>(static_cast<int>(value))) return 0U;
      most = std::max({most, value, -value});
    }
    return static_cast<unsigned>(most);
  }();

  // The look-up takes the low four bits of a lane, so that nothing is masked. In double two look-ups of eight doubles
  // cost less than converting 16 floats. Measured and dropped: nibbles of q4_0 as the last bits of 2^23, or for high
  // ones of 2^19, less 2^23 + 8 or 2^19 + 8.
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(const uint8_t* qs, unsigned v) {
    static constexpr auto table = table_of<T, sycl::lane_of<T>>(Values);
    const uint8_t* bytes = qs + 16 * (v % 2);
    const bool high = (v < 2) == HighNibbleFirst;
    if constexpr (std::is_same_v<T, double>) {
      const auto lower = sycl::load_bytes<sycl::f64x8>(table.entry);
      const auto upper = sycl::load_bytes<sycl::f64x8>(table.entry + 8);
      simd<double, 16> values;
      for (unsigned i = 0; i < 2; ++i) {
        const sycl::i64x8 codes = sycl::widen_u8_to_i64(bytes + 8 * i);
        values.r[i] = sycl::lookup16(lower, upper, high ? codes >> 4 : codes);
      }
      return values;
    } else {
      const auto values = sycl::load_bytes<sycl::f32x16>(table.entry);
      const sycl::i32x16 codes = sycl::widen_u8(bytes);
      return simd<T, 16>::exact(sycl::lookup16(values, high ? codes >> 4 : codes));
    }
  }

  // Four neighbouring bytes of qs in each lane, as of one column each: the value of element i of the four (run 1: of
  // the one 32 further), in all lanes.
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_in_words(sycl::i32x16 words, unsigned i, unsigned run) {
    static constexpr auto table = table_of<T>(Values);
    const auto values = sycl::load_bytes<sycl::f32x16>(table.entry);
    return simd<T, 16>::exact(sycl::lookup16(values, words >> nibble_at(i, run)));
  }
  // Elements i and i + 2 of the four, i < 2, as a pair of BFloat16 in each lane, the first one in the lower half.
  static CORVANE_INLINE sycl::i32x16 bfloat16_pair_in_words(sycl::i32x16 words, unsigned i, unsigned run) {
    static constexpr auto bits = [] {
      std::array<uint16_t, 16> entries{};
      const auto table = table_of<BFloat16>(Values);
      for (unsigned n = 0; n < 16; ++n) entries[n] = std::bit_cast<uint32_t>(table.entry[n]) >> 16;
      return entries;
    }();
    return (sycl::i32x16)sycl::lookup16(sycl::load_bytes<sycl::u16x16>(bits.data()),
                                        (sycl::u16x32)words >> nibble_at(i, run));
  }

  static CORVANE_INLINE sycl::u16x32 value_index(const uint8_t* qs, unsigned h) {
    const sycl::u16x32 codes = sycl::widen_32_u8_to_u16(qs);
    return (h == 0) == HighNibbleFirst ? codes >> 4 : codes;
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_codes() {
    static constexpr auto table = table_of<T>(Values);
    return simd<T, 16>::exact(sycl::load_bytes<sycl::f32x16>(table.entry));
  }

 private:
  static constexpr int nibble_at(unsigned i, unsigned run) {  // from which bit of a word on
    return static_cast<int>(8 * i + ((run == 0) == HighNibbleFirst ? 4 : 0));
  }
};

}  // namespace corvane
