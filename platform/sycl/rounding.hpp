// Float lanes rounded to the 16-bit types, and the bits of these.
#pragma once

#include "platform/sycl/vector.hpp"

namespace sycl {

// Not by adding and subtracting 1.5 * 2^(e + 13), e the exponent, which is faster, but only right for what does not
// overflow.
CORVANE_INLINE f32x16 round_to_half(f32x16 x) { return half_bits_to_float(float_to_half_bits(x)); }

// The same for multiples of 2^-24 below 65520, in 0.7 of the time: Half holds those below 2^-14 as they are, so that
// what is rounded away follows from the exponent alone. -0 becomes 0.
CORVANE_INLINE f32x16 round_multiple_to_half(f32x16 x) {
  const f32x16 power = as_float(as_int(x) & static_cast<std::int32_t>(0xFF800000));
  const f32x16 at_last_bit = fused_multiply_add(power, splat(0x1p13f), x);
  return fused_multiply_add(power, splat(-0x1p13f), at_last_bit);
}

// Result of arithmetic on BFloat16 values. Its not-a-numbers stem from an operand or are the processor's own, so their
// low 16 bits are clear and the rounding does not carry: they stay not-a-numbers, and the store makes them 0x7FC0.
CORVANE_INLINE f32x16 round_to_bfloat16(f32x16 x) {
  const i32x16 bits = as_int(x);
#ifdef CORVANE_AVX512_VNNI
  // bits + 0x7FFF + bit 16, in one dot product of bytes: 255 * 127 + 191 * 2 = 0x7FFF, and bit 16 is byte 2 once
  // masked.
  const i32x16 bytes = (bits & 0x00010000) | 0x0000BFFF;
  const i32x16 sum = (i32x16)_mm512_dpbusd_epi32((__m512i)bits, (__m512i)bytes, _mm512_set1_epi32(0x0001027F));
#else
  const i32x16 sum = bits + ((i32x16)(((u32x16)bits >> 16) & 1) + 0x7FFF);
#endif
  return as_float(sum & static_cast<std::int32_t>(0xFFFF0000));
}

// Not-a-numbers as the framework's BFloat16 has them.
CORVANE_INLINE f32x16 with_plain_nan(f32x16 x) {
  const i32x16 is_nan = (i32x16)(x != x);
  return as_float((as_int(x) & ~is_nan) | (is_nan & 0x7FC00000));
}

// Any float, also a not-a-number with low bits set.
CORVANE_INLINE f32x16 round_any_to_bfloat16(f32x16 x) { return round_to_bfloat16(with_plain_nan(x)); }

// Two results of arithmetic at once, for sums over all lanes: the lanes of a and b change places among the two, the
// first half of each then coming from a. A result below 2^-126 in magnitude may become 0.
CORVANE_INLINE void round_pair_to_bfloat16(f32x16& a, f32x16& b) {
#ifdef __AVX512BF16__
  const i32x16 both = (i32x16)_mm512_cvtne2ps_pbh((__m512)b, (__m512)a);
  a = as_float(both << 16);
  b = as_float(both & static_cast<std::int32_t>(0xFFFF0000));
#else
  a = round_to_bfloat16(a);
  b = round_to_bfloat16(b);
#endif
}

// The same, each lane in its place, which takes longer.
CORVANE_INLINE void round_two_to_bfloat16(f32x16& a, f32x16& b) {
#ifdef __AVX512BF16__
  const i32x16 both = (i32x16)_mm512_cvtne2ps_pbh((__m512)b, (__m512)a);
  u16x32 low, high;  // where the upper half of lane t comes from
  for (unsigned t = 0; t < 32; ++t) low[t] = static_cast<std::uint16_t>(t / 2), high[t] = low[t] + 16;
  constexpr std::uint32_t upper_halves = 0xAAAAAAAA;
  a = (f32x16)_mm512_maskz_permutexvar_epi16(upper_halves, (__m512i)low, (__m512i)both);
  b = (f32x16)_mm512_maskz_permutexvar_epi16(upper_halves, (__m512i)high, (__m512i)both);
#else
  a = round_to_bfloat16(a);
  b = round_to_bfloat16(b);
#endif
}

CORVANE_INLINE u16x16 bfloat16_bits(f32x16 x) {  // x holds BFloat16 values
  return narrow_u16((i32x16)((u32x16)as_int(with_plain_nan(x)) >> 16));
}

// The bits of any float lanes, each rounded to BFloat16.
CORVANE_INLINE u16x16 float_to_bfloat16_bits(f32x16 x) {
  return narrow_u16((i32x16)((u32x16)as_int(round_any_to_bfloat16(x)) >> 16));
}

// 32 float lanes as the bits of one store, rounded to Half or BFloat16. Measured and dropped: the conversion to Half
// that writes to memory itself.
CORVANE_INLINE u16x32 to_half_bits(f32x16 low, f32x16 high) {
  return join(float_to_half_bits(low), float_to_half_bits(high));
}
CORVANE_INLINE u16x32 to_bfloat16_bits(f32x16 low, f32x16 high) {
#ifdef CORVANE_AVX512
  // Each lane's BFloat16 in its upper 16 bits.
  const auto upper_halves = [](f32x16 x) { return as_int(round_any_to_bfloat16(x)); };
  const __m512i odd_words =
      (__m512i)(i32x16{0x00030001, 0x00070005, 0x000B0009, 0x000F000D, 0x00130011, 0x00170015, 0x001B0019, 0x001F001D,
                       0x00230021, 0x00270025, 0x002B0029, 0x002F002D, 0x00330031, 0x00370035, 0x003B0039, 0x003F003D});
  return (u16x32)_mm512_permutex2var_epi16((__m512i)upper_halves(low), odd_words, (__m512i)upper_halves(high));
#else
  return join(float_to_bfloat16_bits(low), float_to_bfloat16_bits(high));
#endif
}

}  // namespace sycl
