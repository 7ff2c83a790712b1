// fp8_e5m2: codes of sign, five exponent bits and two mantissa bits; a float scale for 64 elements that not every
// reader applies. Planar.
//
//   codes   64 bytes a block   byte j is element j:  | sign | e4 e3 e2 e1 e0 | m1 m0 |
//                                                      7      6            2   1   0
//   scales  one float a block
//
// A code is the upper byte of a Half, with the bit below the mantissa set: the midpoint of the code's interval. An
// exponent of 31 is a not-a-number, as the mantissa is never zero.
//
//   Half  | code | 1 | 0 ... |
//           15  8  7   6   0      expansions and the one-row kernel: y = value; fused kernels: y = value * d
#pragma once

#include "formats/q8_0.hpp"

namespace corvane {

// With the block's scale: fused projections, MLP, systolic kernels.
struct fp8_e5m2_scaled_reader : two_planes<qtype_fp8_e5m2, block_fp8_qs, float> {
  // The Half as 16 bits, in 16 lanes.
  static CORVANE_INLINE sycl::u16x16 half_bits(raw qs, unsigned v) {
    return sycl::half_of((sycl::widen_32_u8_to_u16(qs + 32 * (v / 2)) << 8) | uint16_t{0x0080}, v % 2);
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw qs, unsigned v) {
    return simd<T, 16>::exact(sycl::half_bits_to_float(half_bits(qs, v)));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_in_words(sycl::i32x16 words, unsigned i) {
    const sycl::i32x16 moved = (words << (24 - 8 * i)) >> 16;
    return simd<T, 16>::exact(sycl::half_bits_to_float(sycl::narrow_u16((moved & 0xFF00) | 0x0080)));
  }
};

// Without it: expansions and the one-row kernel, which never read the scale plane.
struct fp8_e5m2_reader : fp8_e5m2_scaled_reader {
  static constexpr unsigned shared_scale = 0;

  // Elements 32 h to 32 h + 31, the values themselves.
  static CORVANE_INLINE sycl::u16x32 halves(raw qs, unsigned h) {
    return (sycl::widen_32_u8_to_u16(qs + 32 * h) << 8) | uint16_t{0x0080};
  }
};

template <>
struct reader_for<qtype_fp8_e5m2> {
  using type = fp8_e5m2_reader;
};
template <>
struct scaled_reader_for<qtype_fp8_e5m2> {
  using type = fp8_e5m2_scaled_reader;
};

}  // namespace corvane
