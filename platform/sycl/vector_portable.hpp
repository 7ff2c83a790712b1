// The functions of vector_avx2.hpp without a processor's instructions: what GCC makes of vectors for any.
#pragma once

#include "platform/sycl/vector_types.hpp"

namespace sycl {

namespace detail {
using s8x16 = std::int8_t __attribute__((vector_size(16)));
using s16x16 = std::int16_t __attribute__((vector_size(32)));
}  // namespace detail

CORVANE_INLINE i32x16 widen_u8(u8x16 bytes) { return __builtin_convertvector(bytes, i32x16); }
CORVANE_INLINE i32x16 widen_u8(const void* from) { return widen_u8(load_bytes<u8x16>(from)); }
CORVANE_INLINE i32x16 widen_s8(const void* from) {
  return __builtin_convertvector(load_bytes<detail::s8x16>(from), i32x16);
}
CORVANE_INLINE u16x16 widen_u8_to_u16(const void* from) {
  return __builtin_convertvector(load_bytes<u8x16>(from), u16x16);
}
CORVANE_INLINE u16x16 widen_s8_to_u16(const void* from) {
  return (u16x16) __builtin_convertvector(load_bytes<detail::s8x16>(from), detail::s16x16);
}
CORVANE_INLINE i64x8 widen_u8_to_i64(const void* from) {
  i64x8 y;
  for (int i = 0; i < 8; ++i) y[i] = static_cast<const std::uint8_t*>(from)[i];
  return y;
}
CORVANE_INLINE u16x16 narrow_u16(i32x16 x) { return __builtin_convertvector(x, u16x16); }
CORVANE_INLINE i32x16 widen_u16(u16x16 x) { return __builtin_convertvector(x, i32x16); }
CORVANE_INLINE f32x16 to_float(i32x16 x) { return __builtin_convertvector(x, f32x16); }
CORVANE_INLINE f32x16 lookup16(f32x16 table, i32x16 index) {
  f32x16 entries;
  for (int t = 0; t < 16; ++t) entries[t] = table[index[t] & 15];
  return entries;
}

// A Half's exponent and fraction, moved to a float's, lack the difference of the biases, 112; that of an infinity or a
// not-a-number lacks it twice.
CORVANE_INLINE f32x16 half_bits_to_float(u16x16 bits) {
  constexpr std::int32_t one = 1 << 23, largest = 31 << 23;  // of the exponent
  const i32x16 half = widen_u16(bits);
  const i32x16 magnitude = (half & 0x7FFF) << 13, exponent = magnitude & largest;
  const i32x16 normal = magnitude + 112 * one + ((i32x16)(exponent == largest) & 112 * one);
  // A subnormal one as what 2^-14 with its fraction has above 2^-14.
  const f32x16 subnormal = as_float(magnitude + 113 * one) - 0x1p-14f;
  return as_float((half & 0x8000) << 16 | (exponent == 0 ? as_int(subnormal) : normal));
}

CORVANE_INLINE u16x16 float_to_half_bits(f32x16 x) {
  constexpr std::int32_t smallest_normal = 113 << 23, to_infinity = 0x477FF000, infinity = 0x7F800000;  // float's bits
  const i32x16 bits = as_int(x), magnitude = bits & 0x7FFFFFFF;
  // To the nearest, ties to even; the carry may reach the exponent, as it should.
  i32x16 half = (magnitude - (112 << 23) + 0xFFF + (magnitude >> 13 & 1)) >> 13;
  // In a sum with 0.5 the last place is 2^-24, that of the subnormal Halfs.
  half = magnitude < smallest_normal ? as_int(as_float(magnitude) + 0.5f) - as_int(splat(0.5f)) : half;
  half = magnitude >= to_infinity ? splat(0x7C00) : half;
  half = magnitude > infinity ? (magnitude >> 13 & 0x3FF) | 0x7E00 : half;
  return narrow_u16((bits >> 16 & 0x8000) | half);
}

CORVANE_INLINE f32x16 splat_half(const void* from) {
  Half x;
  std::memcpy(&x, from, sizeof(x));
  return splat(static_cast<float>(x));
}

}  // namespace sycl
