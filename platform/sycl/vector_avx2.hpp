// The functions of vector_avx512.hpp for a processor with AVX2 and F16C: two halves of eight lanes. What there is no
// instruction for is in vector_loops.hpp.
#pragma once

#include "platform/sycl/vector_types.hpp"

namespace sycl {

namespace detail {
struct halves {
  __m256i low, high;
};
CORVANE_INLINE halves split(const void* v) {
  return {_mm256_loadu_si256(static_cast<const __m256i*>(v)), _mm256_loadu_si256(static_cast<const __m256i*>(v) + 1)};
}
template <class V>
CORVANE_INLINE V join(__m256i low, __m256i high) {
  V v;
  std::memcpy(&v, &low, 32);
  std::memcpy(reinterpret_cast<char*>(&v) + 32, &high, 32);
  return v;
}
}  // namespace detail
CORVANE_INLINE i32x16 widen_u8(const void* from) {
  const __m128i b = _mm_loadu_si128(static_cast<const __m128i*>(from));
  return detail::join<i32x16>(_mm256_cvtepu8_epi32(b), _mm256_cvtepu8_epi32(_mm_srli_si128(b, 8)));
}
CORVANE_INLINE i32x16 widen_u8(u8x16 bytes) { return widen_u8(static_cast<const void*>(&bytes)); }
CORVANE_INLINE i32x16 widen_s8(const void* from) {
  const __m128i b = _mm_loadu_si128(static_cast<const __m128i*>(from));
  return detail::join<i32x16>(_mm256_cvtepi8_epi32(b), _mm256_cvtepi8_epi32(_mm_srli_si128(b, 8)));
}
CORVANE_INLINE u16x16 widen_u8_to_u16(const void* from) {
  return (u16x16)_mm256_cvtepu8_epi16(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}
CORVANE_INLINE f32x16 to_float(i32x16 x) { return __builtin_convertvector(x, f32x16); }
CORVANE_INLINE f32x16 half_bits_to_float(u16x16 bits) {
  const __m256i b = (__m256i)bits;
  return detail::join<f32x16>((__m256i)_mm256_cvtph_ps(_mm256_castsi256_si128(b)),
                              (__m256i)_mm256_cvtph_ps(_mm256_extracti128_si256(b, 1)));
}
CORVANE_INLINE u16x16 float_to_half_bits(f32x16 x) {
  const auto h = detail::split(&x);
  const __m128i low = _mm256_cvtps_ph((__m256)h.low, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  const __m128i high = _mm256_cvtps_ph((__m256)h.high, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  return (u16x16)_mm256_set_m128i(high, low);
}
CORVANE_INLINE u16x16 narrow_u16(i32x16 x) { return __builtin_convertvector(x, u16x16); }
CORVANE_INLINE i32x16 widen_u16(u16x16 x) { return __builtin_convertvector(x, i32x16); }
CORVANE_INLINE f32x16 lookup16(f32x16 table, i32x16 index) {
  const auto t = detail::split(&table);
  const auto i = detail::split(&index);
  const auto pick = [&](__m256i at) {
    const __m256 a = _mm256_permutevar8x32_ps((__m256)t.low, at);
    const __m256 b = _mm256_permutevar8x32_ps((__m256)t.high, at);
    return (__m256i)_mm256_blendv_ps(a, b, (__m256)_mm256_slli_epi32(at, 28));
  };
  return detail::join<f32x16>(pick(i.low), pick(i.high));
}
CORVANE_INLINE f32x16 splat_half(const void* from) {
  std::uint16_t bits;
  std::memcpy(&bits, from, sizeof(bits));
  return splat(_cvtsh_ss(bits));
}
CORVANE_INLINE i64x8 widen_u8_to_i64(const void* from) {
  const __m128i b = _mm_loadl_epi64(static_cast<const __m128i*>(from));
  return detail::join<i64x8>(_mm256_cvtepu8_epi64(b), _mm256_cvtepu8_epi64(_mm_srli_si128(b, 4)));
}
CORVANE_INLINE u16x16 widen_s8_to_u16(const void* from) {
  return (u16x16)_mm256_cvtepi8_epi16(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}

}  // namespace sycl
