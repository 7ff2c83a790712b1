// Widening, narrowing, look-ups and choices by mask, with AVX-512.
#pragma once

#include "platform/sycl/vector_types.hpp"

namespace sycl {

CORVANE_INLINE i32x16 widen_u8(const void* from) {
  return (i32x16)_mm512_cvtepu8_epi32(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}
CORVANE_INLINE i32x16 widen_u8(u8x16 bytes) { return (i32x16)_mm512_cvtepu8_epi32((__m128i)bytes); }
CORVANE_INLINE i32x16 widen_s8(const void* from) {
  return (i32x16)_mm512_cvtepi8_epi32(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}
CORVANE_INLINE u16x16 widen_u8_to_u16(const void* from) {
  return (u16x16)_mm256_cvtepu8_epi16(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}
CORVANE_INLINE f32x16 to_float(i32x16 x) { return (f32x16)_mm512_cvtepi32_ps((__m512i)x); }
CORVANE_INLINE f32x16 half_bits_to_float(u16x16 bits) { return (f32x16)_mm512_cvtph_ps((__m256i)bits); }
CORVANE_INLINE u16x16 float_to_half_bits(f32x16 x) {
  return (u16x16)_mm512_cvtps_ph((__m512)x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
}
CORVANE_INLINE u16x16 narrow_u16(i32x16 x) { return (u16x16)_mm512_cvtepi32_epi16((__m512i)x); }
CORVANE_INLINE i32x16 widen_u16(u16x16 x) { return (i32x16)_mm512_cvtepu16_epi32((__m256i)x); }
// table[index & 15] in each lane: the permute looks at the low four bits alone.
CORVANE_INLINE f32x16 lookup16(f32x16 table, i32x16 index) {
  return (f32x16)_mm512_permutexvar_ps((__m512i)index, (__m512)table);
}
// The same for 32 entries of 16 bits at a time.
constexpr bool looks_up_words = true;
CORVANE_INLINE u16x32 lookup16(u16x16 table, u16x32 index) {
  const __m512i twice = _mm512_broadcast_i64x4((__m256i)table);  // so that the fifth bit, which counts, does not matter
  return (u16x32)_mm512_permutexvar_epi16((__m512i)index, twice);
}
// table[index & 31] in each word; table[index & 63], the table in two parts.
CORVANE_INLINE u16x32 lookup32(u16x32 table, u16x32 index) {
  return (u16x32)_mm512_permutexvar_epi16((__m512i)index, (__m512i)table);
}
CORVANE_INLINE u16x32 lookup64(u16x32 low, u16x32 high, u16x32 index) {
  return (u16x32)_mm512_permutex2var_epi16((__m512i)low, (__m512i)index, (__m512i)high);
}
CORVANE_INLINE u16x32 widen_32_u8_to_u16(const void* from) {
  return (u16x32)_mm512_cvtepu8_epi16(_mm256_loadu_si256(static_cast<const __m256i*>(from)));
}
// `bits` in the words whose bit in the mask is set, 0 in the others.
CORVANE_INLINE u16x32 splat_where(std::uint32_t mask, std::int16_t bits) {
  return (u16x32)_mm512_maskz_set1_epi16(mask, bits);
}
CORVANE_INLINE u16x16 half_of(u16x32 x, unsigned upper) {
  return (u16x16)(upper ? _mm512_extracti64x4_epi64((__m512i)x, 1) : _mm512_castsi512_si256((__m512i)x));
}
CORVANE_INLINE u16x32 widen_32_s8_to_u16(const void* from) {  // sign-extended
  return (u16x32)_mm512_cvtepi8_epi16(_mm256_loadu_si256(static_cast<const __m256i*>(from)));
}
CORVANE_INLINE f64x8 low_to_double(f32x16 x) { return (f64x8)_mm512_cvtps_pd(_mm512_castps512_ps256((__m512)x)); }
CORVANE_INLINE f64x8 high_to_double(f32x16 x) {
  return (f64x8)_mm512_cvtps_pd((__m256)_mm512_extractf64x4_pd((__m512d)x, 1));
}
CORVANE_INLINE f32x16 narrow_to_float(f64x8 low, f64x8 high) {
  return (f32x16)_mm512_insertf32x8(_mm512_castps256_ps512(_mm512_cvtpd_ps((__m512d)low)),
                                    _mm512_cvtpd_ps((__m512d)high), 1);
}
CORVANE_INLINE f32x16 fused_multiply_add(f32x16 a, f32x16 b, f32x16 c) {
  return (f32x16)_mm512_fmadd_ps((__m512)a, (__m512)b, (__m512)c);
}
CORVANE_INLINE f64x8 fused_multiply_add(f64x8 a, f64x8 b, f64x8 c) {
  return (f64x8)_mm512_fmadd_pd((__m512d)a, (__m512d)b, (__m512d)c);
}
CORVANE_INLINE f32x16 splat_half(const void* from) {  // one Half in memory, in all lanes
  std::int16_t bits;
  std::memcpy(&bits, from, sizeof(bits));
  return (f32x16)_mm512_cvtph_ps(_mm256_set1_epi16(bits));
}
CORVANE_INLINE i64x8 widen_u8_to_i64(const void* from) {
  return (i64x8)_mm512_cvtepu8_epi64(_mm_loadl_epi64(static_cast<const __m128i*>(from)));
}
CORVANE_INLINE f64x8 lookup16(f64x8 low, f64x8 high, i64x8 index) {
  return (f64x8)_mm512_permutex2var_pd((__m512d)low, (__m512i)index, (__m512d)high);
}
CORVANE_INLINE u16x16 widen_s8_to_u16(const void* from) {  // sign-extended
  return (u16x16)_mm256_cvtepi8_epi16(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}
// (index & 16 ? high : low)[index & 15] in each lane.
CORVANE_INLINE f32x16 lookup32(f32x16 low, f32x16 high, i32x16 index) {
  return (f32x16)_mm512_permutex2var_ps((__m512)low, (__m512i)index, (__m512)high);
}
// The same with bit t of the mask for bit 4 of lane t's index.
CORVANE_INLINE f32x16 lookup32(f32x16 low, f32x16 high, i32x16 index, std::uint16_t mask) {
  const __m512 from_low = _mm512_permutexvar_ps((__m512i)index, (__m512)low);
  return (f32x16)_mm512_mask_permutexvar_ps(from_low, mask, (__m512i)index, (__m512)high);
}
// Bit by bit. GCC makes two operations of it.
CORVANE_INLINE i32x16 select_bits(std::int32_t mask, i32x16 if_set, i32x16 if_clear) {
  return (i32x16)_mm512_ternarylogic_epi32(_mm512_set1_epi32(mask), (__m512i)if_set, (__m512i)if_clear, 0xCA);
}
// Bit t of the mask chooses for lane t.
CORVANE_INLINE f32x16 select(std::uint16_t mask, f32x16 if_set, f32x16 if_clear) {
  return (f32x16)_mm512_mask_blend_ps(mask, (__m512)if_clear, (__m512)if_set);
}
CORVANE_INLINE i32x16 select(std::uint16_t mask, i32x16 if_set, i32x16 if_clear) {
  return (i32x16)_mm512_mask_blend_epi32(mask, (__m512i)if_clear, (__m512i)if_set);
}

// 32 bytes of memory, and the same again; 16 bytes four times. Of a shuffle that widens GCC makes a permute, or goes
// through memory.
CORVANE_INLINE i32x16 load_twice(const void* from) {
  return (i32x16)_mm512_broadcast_i64x4(_mm256_loadu_si256(static_cast<const __m256i*>(from)));
}
CORVANE_INLINE i32x16 load_four_times(const void* from) {
  return (i32x16)_mm512_broadcast_i32x4(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}
// Each of four floats in memory in four lanes.
CORVANE_INLINE f32x16 splat_quarters(const float* from) {
  const __m512i quarter = _mm512_set_epi32(3, 3, 3, 3, 2, 2, 2, 2, 1, 1, 1, 1, 0, 0, 0, 0);
  return (f32x16)_mm512_permutexvar_ps(quarter, _mm512_castps128_ps512(_mm_loadu_ps(from)));
}

}  // namespace sycl
