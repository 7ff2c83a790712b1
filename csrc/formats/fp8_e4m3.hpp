// fp8_e4m3: codes of sign, four exponent bits and three mantissa bits, one float scale for 64 elements. Planar.
//
//   codes   64 bytes a block   byte j is element j:  | sign | e3 e2 e1 e0 | m2 m1 m0 |
//                                                      7      6         3   2      0
//   scales  one float a block
//
// A code is read as the top bits of a Half, with the exponent as it stands and the bit below the mantissa set: the
// midpoint of the code's interval, times 2^-8. No exponent is 31, so every code is finite.
//
//   Half  | sign | 0 | e3 e2 e1 e0 | m2 m1 m0 | 1 | 0 ... |
//           15     14  13       10   9      7   6   5   0      y = value * d
#pragma once

#include "formats/q8_0.hpp"

namespace corvane {

struct fp8_e4m3_reader : two_planes<qtype_fp8_e4m3, block_fp8_qs, float> {
  // The Half as 16 bits, in 16 lanes. The systolic kernels leave the midpoint bit out, so that code 0 is zero.
  template <bool Midpoint = true>
  static CORVANE_INLINE sycl::u16x16 half_bits(raw qs, unsigned v) {
    const sycl::u16x32 moved = sycl::widen_32_s8_to_u16(qs + 32 * (v / 2)) << 7;  // the sign fills the bits 14 and 15
    return sycl::half_of((moved & uint16_t{0xBF80}) | uint16_t{Midpoint ? 0x0040 : 0}, v % 2);
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw qs, unsigned v) {
    return simd<T, 16>::exact(sycl::half_bits_to_float(half_bits(qs, v)));
  }
  template <class T, bool Midpoint = true>
  static CORVANE_INLINE simd<T, 16> value_in_words(sycl::i32x16 words, unsigned i) {
    const sycl::i32x16 moved = (words << (24 - 8 * i)) >> 17;  // the sign fills the bits above
    return simd<T, 16>::exact(sycl::half_bits_to_float(sycl::narrow_u16((moved & 0xBF80) | (Midpoint ? 0x0040 : 0))));
  }
};

template <>
struct reader_for<qtype_fp8_e4m3> {
  using type = fp8_e4m3_reader;
};

}  // namespace corvane
