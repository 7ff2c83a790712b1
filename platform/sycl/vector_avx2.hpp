// The functions of vector_avx512.hpp for a processor with AVX2 and F16C: two halves of eight lanes.
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
constexpr bool looks_up_words = false;  // the following work, but one lane at a time
CORVANE_INLINE u16x32 lookup16(u16x16 table, u16x32 index) {
  u16x32 entries;
  for (int t = 0; t < 32; ++t) entries[t] = table[index[t] & 15];
  return entries;
}
CORVANE_INLINE u16x32 lookup32(u16x32 table, u16x32 index) {
  u16x32 entries;
  for (int t = 0; t < 32; ++t) entries[t] = table[index[t] & 31];
  return entries;
}
CORVANE_INLINE u16x32 lookup64(u16x32 low, u16x32 high, u16x32 index) {
  u16x32 entries;
  for (int t = 0; t < 32; ++t) entries[t] = (index[t] & 32) != 0 ? high[index[t] & 31] : low[index[t] & 31];
  return entries;
}
CORVANE_INLINE u16x32 widen_32_u8_to_u16(const void* from) {
  u16x32 words;
  for (int t = 0; t < 32; ++t) words[t] = static_cast<const std::uint8_t*>(from)[t];
  return words;
}
CORVANE_INLINE u16x16 half_of(u16x32 x, unsigned upper) {
  u16x16 half;
  std::memcpy(&half, reinterpret_cast<const char*>(&x) + 32 * upper, sizeof(half));
  return half;
}
CORVANE_INLINE u16x32 widen_32_s8_to_u16(const void* from) {
  u16x32 words;
  for (int t = 0; t < 32; ++t) words[t] = static_cast<std::uint16_t>(static_cast<const std::int8_t*>(from)[t]);
  return words;
}
CORVANE_INLINE u16x32 splat_where(std::uint32_t mask, std::int16_t bits) {
  u16x32 words;
  for (int t = 0; t < 32; ++t) words[t] = (mask >> t & 1) != 0 ? static_cast<std::uint16_t>(bits) : 0;
  return words;
}
CORVANE_INLINE f64x8 low_to_double(f32x16 x) {
  f64x8 y;
  for (int i = 0; i < 8; ++i) y[i] = x[i];
  return y;
}
CORVANE_INLINE f64x8 high_to_double(f32x16 x) {
  f64x8 y;
  for (int i = 0; i < 8; ++i) y[i] = x[i + 8];
  return y;
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
// table[index & 15] in each lane, the table in two parts.
CORVANE_INLINE f64x8 lookup16(f64x8 low, f64x8 high, i64x8 index) {
  f64x8 y;
  for (int i = 0; i < 8; ++i) y[i] = index[i] & 8 ? high[index[i] & 7] : low[index[i] & 7];
  return y;
}
CORVANE_INLINE u16x16 widen_s8_to_u16(const void* from) {
  return (u16x16)_mm256_cvtepi8_epi16(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}
CORVANE_INLINE i32x16 select(std::uint16_t mask, i32x16 if_set, i32x16 if_clear) {
  const i32x16 lane_bit = {1 << 0, 1 << 1, 1 << 2,  1 << 3,  1 << 4,  1 << 5,  1 << 6,  1 << 7,
                           1 << 8, 1 << 9, 1 << 10, 1 << 11, 1 << 12, 1 << 13, 1 << 14, 1 << 15};
  const i32x16 set = (i32x16)((splat(std::int32_t{mask}) & lane_bit) != 0);
  return (if_set & set) | (if_clear & ~set);
}
CORVANE_INLINE f32x16 select(std::uint16_t mask, f32x16 if_set, f32x16 if_clear) {
  return as_float(select(mask, as_int(if_set), as_int(if_clear)));
}
CORVANE_INLINE f32x16 lookup32(f32x16 low, f32x16 high, i32x16 index) {
  const i32x16 upper = (i32x16)((index & 16) != 0);
  return as_float((as_int(lookup16(high, index)) & upper) | (as_int(lookup16(low, index)) & ~upper));
}
CORVANE_INLINE f32x16 lookup32(f32x16 low, f32x16 high, i32x16 index, std::uint16_t mask) {
  return select(mask, lookup16(high, index), lookup16(low, index));
}
CORVANE_INLINE f32x16 narrow_to_float(f64x8 low, f64x8 high) {
  f32x16 y;
  for (int i = 0; i < 8; ++i) {
    y[i] = static_cast<float>(low[i]);
    y[i + 8] = static_cast<float>(high[i]);
  }
  return y;
}
CORVANE_INLINE f32x16 fused_multiply_add(f32x16 a, f32x16 b, f32x16 c) { return a * b + c; }
CORVANE_INLINE f64x8 fused_multiply_add(f64x8 a, f64x8 b, f64x8 c) { return a * b + c; }

}  // namespace sycl
