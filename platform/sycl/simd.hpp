// Vector values: simd<T, N> holds N lanes of T, and every operation rounds as T does.
//
// T is float, double, Half or BFloat16. The two 16-bit types are held widened to float, each lane always a value of T:
// an operation computes in float and rounds back. A fused multiply-add rounds once in Half and, as two operations of
// the framework's BFloat16, twice in BFloat16. Everything here works on any processor through GCC's vector types; where
// AVX-512 or F16C has an instruction for a step that GCC would not find, it is named.
#pragma once

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>
#include <immintrin.h>

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace sycl {

using Half = c10::Half;
using BFloat16 = c10::BFloat16;

using f32x16 = float __attribute__((vector_size(64)));
using i32x16 = std::int32_t __attribute__((vector_size(64)));
using u32x16 = std::uint32_t __attribute__((vector_size(64)));
using f64x8 = double __attribute__((vector_size(64)));
using i64x8 = std::int64_t __attribute__((vector_size(64)));
using u8x16 = std::uint8_t __attribute__((vector_size(16)));
using u16x16 = std::uint16_t __attribute__((vector_size(32)));
using u8x64 = std::uint8_t __attribute__((vector_size(64)));
using u16x32 = std::uint16_t __attribute__((vector_size(64)));

#define CORVANE_INLINE inline __attribute__((always_inline))
#define CORVANE_INLINE_LAMBDA __attribute__((always_inline))  // after a lambda's parameters

// f(0), ..., f(N - 1), each with its number as a compile-time constant: arrays indexed by it stay in registers.
namespace detail {
template <unsigned... I, class F>
CORVANE_INLINE void unroll(std::integer_sequence<unsigned, I...>, const F& f) {
  (f(std::integral_constant<unsigned, I>{}), ...);
}
}  // namespace detail
template <unsigned N, class F>
CORVANE_INLINE void unroll(const F& f) {
  detail::unroll(std::make_integer_sequence<unsigned, N>{}, f);
}

// --- loads of raw bytes, widening, reinterpretation -------------------------------------------------------------

template <class V>
CORVANE_INLINE V load_bytes(const void* from) {
  V v;
  std::memcpy(&v, from, sizeof(V));
  return v;
}

// The first `bytes` bytes from memory, the rest zero. All of them, the common case, is one load.
template <class V>
CORVANE_INLINE V load_some(const void* from, std::size_t bytes) {
  if (__builtin_expect(bytes >= sizeof(V), 1)) return load_bytes<V>(from);
  V v{};
  std::memcpy(&v, from, bytes);
  return v;
}

CORVANE_INLINE float load_float(const void* from) {
  float x;
  std::memcpy(&x, from, sizeof(x));
  return x;
}

template <class Integer>
CORVANE_INLINE Integer load_integer(const void* from) {
  Integer x;
  std::memcpy(&x, from, sizeof(x));
  return x;
}

// A hint that the cache line at `to` will be read; any address is harmless.
CORVANE_INLINE void prefetch(const void* to) { __builtin_prefetch(to); }

// One register to memory past the caches, for what is larger than they are; `to` is a multiple of 64. Other threads see
// it once the piece of the loop is done (parallel.cpp).
template <class V>
CORVANE_INLINE void store_past_caches(const V& x, void* to) {
  static_assert(sizeof(V) == 64);
#if defined(__AVX512F__)
  _mm512_stream_si512(static_cast<__m512i*>(to), (__m512i)x);
#elif defined(__AVX__)
  __m256i half[2];
  std::memcpy(half, &x, sizeof(x));
  _mm256_stream_si256(static_cast<__m256i*>(to), half[0]);
  _mm256_stream_si256(static_cast<__m256i*>(to) + 1, half[1]);
#else
  std::memcpy(to, &x, sizeof(x));
#endif
}

CORVANE_INLINE f32x16 splat(float x) { return x - f32x16{}; }  // a sum with 0 would lose the sign of -0
CORVANE_INLINE i32x16 splat(std::int32_t x) { return i32x16{} + x; }
CORVANE_INLINE f32x16 as_float(i32x16 bits) { return (f32x16)bits; }
CORVANE_INLINE i32x16 as_int(f32x16 x) { return (i32x16)x; }

#if defined(__AVX512F__) && defined(__AVX512BW__) && defined(__AVX512VL__)
#define CORVANE_AVX512 1
#ifdef __AVX512VNNI__
#define CORVANE_AVX512_VNNI 1
#endif
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
// Bit t of the mask chooses for lane t.
CORVANE_INLINE f32x16 select(std::uint16_t mask, f32x16 if_set, f32x16 if_clear) {
  return (f32x16)_mm512_mask_blend_ps(mask, (__m512)if_clear, (__m512)if_set);
}
CORVANE_INLINE i32x16 select(std::uint16_t mask, i32x16 if_set, i32x16 if_clear) {
  return (i32x16)_mm512_mask_blend_epi32(mask, (__m512i)if_clear, (__m512i)if_set);
}
#else
// A processor with AVX2 and F16C: two halves of eight lanes.
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
#endif

// Lane t receives lane index[t] of x, or of a and b behind each other; only the bits that count are looked at.
template <class V, class I>
CORVANE_INLINE V shuffle(V x, I index) {
#ifdef __clang__
  constexpr unsigned lanes = sizeof(I) / sizeof(index[0]);
  V y;
  for (unsigned t = 0; t < lanes; ++t) y[t] = x[index[t] & (lanes - 1)];
  return y;
#else
  return __builtin_shuffle(x, index);
#endif
}
template <class V, class I>
CORVANE_INLINE V shuffle(V a, V b, I index) {
#ifdef __clang__
  constexpr unsigned lanes = sizeof(I) / sizeof(index[0]);
  V y;
  for (unsigned t = 0; t < lanes; ++t) {
    y[t] = (index[t] & lanes) != 0 ? b[index[t] & (lanes - 1)] : a[index[t] & (lanes - 1)];
  }
  return y;
#else
  return __builtin_shuffle(a, b, index);
#endif
}

// Each lane by its own count, below 32.
CORVANE_INLINE i32x16 rotate_left(i32x16 x, i32x16 count) {
#ifdef CORVANE_AVX512
  return (i32x16)_mm512_rolv_epi32((__m512i)x, (__m512i)count);
#else
  return x << count | (i32x16)((u32x16)x >> (u32x16)(-count & 31));
#endif
}

// 32 bytes of memory, and the same again.
CORVANE_INLINE i32x16 load_twice(const void* from) {
  using i32x8 = std::int32_t __attribute__((vector_size(32)));
  const auto half = load_bytes<i32x8>(from);
  return __builtin_shufflevector(half, half, 0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7);
}

// Lanes 0, 2, ... of a, then of b; and lanes 1, 3, ...
CORVANE_INLINE i32x16 even_lanes(i32x16 a, i32x16 b) {
  return shuffle(a, b, i32x16{0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30});
}
CORVANE_INLINE i32x16 odd_lanes(i32x16 a, i32x16 b) {
  return shuffle(a, b, i32x16{1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31});
}

// The lowest bits of the number, in order, where the mask has its bits set.
CORVANE_INLINE std::uint64_t deposit_bits(std::uint64_t bits, std::uint64_t mask) { return _pdep_u64(bits, mask); }

CORVANE_INLINE u16x32 join(u16x16 low, u16x16 high) {
  return __builtin_shufflevector(low, high, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
                                 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31);
}

// Two neighbouring Halfs in memory, in the even and the odd lanes.
CORVANE_INLINE f32x16 splat_two_halfs(const void* from) {
  using u32x8 = std::uint32_t __attribute__((vector_size(32)));
  return half_bits_to_float((u16x16)(u32x8{} + load_integer<std::uint32_t>(from)));
}

// Byte t of the result is bits from[t] to from[t] + 7 of the word, which is read round its end.
CORVANE_INLINE i32x16 multishift(std::uint64_t word, u8x64 from) {
#ifdef __AVX512VBMI__
  return (i32x16)_mm512_multishift_epi64_epi8((__m512i)from, _mm512_set1_epi64(static_cast<long long>(word)));
#else
  u8x64 bytes;
  for (int t = 0; t < 64; ++t) {
    bytes[t] = static_cast<std::uint8_t>(word >> (from[t] & 63) | word << (-from[t] & 63));
  }
  return (i32x16)bytes;
#endif
}

// The same with a word of 32 bits, which stands twice in the 64: a broadcast of it is a load, one of 64 bits made of 32
// not.
CORVANE_INLINE i32x16 multishift(std::uint32_t word, u8x64 from) {
#ifdef __AVX512VBMI__
  return (i32x16)_mm512_multishift_epi64_epi8((__m512i)from, _mm512_set1_epi32(static_cast<int>(word)));
#else
  return multishift(std::uint64_t{word} << 32 | word, from);
#endif
}

CORVANE_INLINE bool any_lane(i32x16 mask) {
  std::int32_t any = 0;
  for (int t = 0; t < 16; ++t) any |= mask[t];
  return any != 0;
}

// --- rounding to the 16-bit types, and their bits -----------------------------------------------------------------

// Measured and dropped: adding and subtracting 1.5 * 2^(e + 13) instead, e the exponent (0.91 of the time of a one-row
// kernel, and only right for what does not overflow).
CORVANE_INLINE f32x16 round_to_half(f32x16 x) { return half_bits_to_float(float_to_half_bits(x)); }

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

// The same, each lane in its place: a one-row kernel takes 1.13 times as long with it as with the lanes mixed.
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
  const i32x16 is_nan = (i32x16)(x != x);
  const i32x16 bits = (as_int(x) & ~is_nan) | (is_nan & 0x7FC00000);
  return narrow_u16((i32x16)((u32x16)bits >> 16));
}

// The bits of any float lanes, each rounded to BFloat16.
CORVANE_INLINE u16x16 float_to_bfloat16_bits(f32x16 x) {
  return narrow_u16((i32x16)((u32x16)as_int(round_any_to_bfloat16(x)) >> 16));
}

// 32 float lanes as the bits of one store, rounded to Half or BFloat16. (The conversion to Half that writes to memory
// itself takes twice the cycles, 2.0 for 16 lanes against 1.0.)
CORVANE_INLINE u16x32 to_half_bits(f32x16 low, f32x16 high) {
  return join(float_to_half_bits(low), float_to_half_bits(high));
}
CORVANE_INLINE u16x32 to_bfloat16_bits(f32x16 low, f32x16 high) {
#ifdef CORVANE_AVX512
  const auto upper_halves = [](f32x16 x) {  // each lane's BFloat16 in its upper 16 bits
    const i32x16 is_nan = (i32x16)(x != x);
    return (as_int(round_to_bfloat16(x)) & ~is_nan) | (is_nan & 0x7FC00000);
  };
  const __m512i odd_words =
      (__m512i)(i32x16{0x00030001, 0x00070005, 0x000B0009, 0x000F000D, 0x00130011, 0x00170015, 0x001B0019, 0x001F001D,
                       0x00230021, 0x00270025, 0x002B0029, 0x002F002D, 0x00330031, 0x00370035, 0x003B0039, 0x003F003D});
  return (u16x32)_mm512_permutex2var_epi16((__m512i)upper_halves(low), odd_words, (__m512i)upper_halves(high));
#else
  return join(float_to_bfloat16_bits(low), float_to_bfloat16_bits(high));
#endif
}

// --- simd<T, N> ----------------------------------------------------------------------------------------------------

namespace detail {

template <class T>
struct lane_type {  // float, Half, BFloat16: registers of 16 floats
  using reg = f32x16;
  static constexpr unsigned lanes = 16;
};
template <>
struct lane_type<double> {
  using reg = f64x8;
  static constexpr unsigned lanes = 8;
};

template <class T, class Reg>
CORVANE_INLINE Reg rounded(Reg x) {
  if constexpr (std::is_same_v<T, Half>) {
    return round_to_half(x);
  } else if constexpr (std::is_same_v<T, BFloat16>) {
    return round_to_bfloat16(x);
  } else {
    return x;
  }
}

}  // namespace detail

// What a lane is held as.
template <class T>
using lane_of = std::conditional_t<std::is_same_v<T, double>, double, float>;

template <class T, unsigned N>
struct simd {
  static_assert(N % 16 == 0, "lanes come in sixteens");
  using reg = typename detail::lane_type<T>::reg;
  static constexpr unsigned reg_lanes = detail::lane_type<T>::lanes;
  static constexpr unsigned regs = N / reg_lanes;

  reg r[regs];

  static CORVANE_INLINE simd zero() {
    simd v;
    for (unsigned i = 0; i < regs; ++i) v.r[i] = reg{};
    return v;
  }

  // Lanes that are values of T already (codes, table entries rounded to T): nothing is rounded.
  static CORVANE_INLINE simd exact(const f32x16 (&x)[N / 16]) {
    simd v;
    for (unsigned i = 0; i < N / 16; ++i) v.set_part(i, x[i]);
    return v;
  }
  static CORVANE_INLINE simd exact(f32x16 x) {
    static_assert(N == 16);
    simd v;
    v.set_part(0, x);
    return v;
  }
  // Any float lanes, each rounded to T.
  static CORVANE_INLINE simd from_float(f32x16 x) {
    if constexpr (std::is_same_v<T, Half>) {
      return exact(round_to_half(x));
    } else if constexpr (std::is_same_v<T, BFloat16>) {
      return exact(round_any_to_bfloat16(x));
    } else {
      return exact(x);
    }
  }
  // One float in all lanes, rounded to T.
  static CORVANE_INLINE simd broadcast(float x) {
    static_assert(N == 16);
    return from_float(splat(x));
  }
  // One value that T holds exactly, in all lanes.
  static CORVANE_INLINE simd broadcast_exact(float x) {
    static_assert(N == 16);
    return exact(splat(x));
  }

  static CORVANE_INLINE simd load(const T* from) {
    simd v;
    if constexpr (std::is_same_v<T, Half>) {
      for (unsigned i = 0; i < regs; ++i) v.r[i] = half_bits_to_float(load_bytes<u16x16>(from + 16 * i));
    } else if constexpr (std::is_same_v<T, BFloat16>) {
      for (unsigned i = 0; i < regs; ++i) v.r[i] = as_float(widen_u16(load_bytes<u16x16>(from + 16 * i)) << 16);
    } else {
      for (unsigned i = 0; i < regs; ++i) v.r[i] = load_bytes<reg>(from + reg_lanes * i);
    }
    return v;
  }

  CORVANE_INLINE void store(T* to) const {
    for (unsigned i = 0; i < regs; ++i) {
      if constexpr (std::is_same_v<T, Half>) {
        const u16x16 bits = float_to_half_bits(r[i]);
        std::memcpy(static_cast<void*>(to + 16 * i), &bits, sizeof(bits));
      } else if constexpr (std::is_same_v<T, BFloat16>) {
        const u16x16 bits = bfloat16_bits(r[i]);
        std::memcpy(static_cast<void*>(to + 16 * i), &bits, sizeof(bits));
      } else {
        std::memcpy(to + reg_lanes * i, &r[i], sizeof(reg));
      }
    }
  }

  // Values of T that are held as lanes already.
  static CORVANE_INLINE simd load_lanes(const lane_of<T>* from) {
    simd v;
    for (unsigned i = 0; i < regs; ++i) v.r[i] = load_bytes<reg>(from + reg_lanes * i);
    return v;
  }
  CORVANE_INLINE void store_lanes(lane_of<T>* to) const {
    for (unsigned i = 0; i < regs; ++i) std::memcpy(to + reg_lanes * i, &r[i], sizeof(reg));
  }
  static CORVANE_INLINE simd broadcast_lane(lane_of<T> x) {
    simd v;
    for (unsigned i = 0; i < regs; ++i) v.r[i] = x - reg{};
    return v;
  }

  // 16 lanes from number 16 i on, set from floats that T holds exactly.
  CORVANE_INLINE void set_part(unsigned i, f32x16 x) {
    if constexpr (std::is_same_v<T, double>) {
      r[2 * i] = low_to_double(x);
      r[2 * i + 1] = high_to_double(x);
    } else {
      r[i] = x;
    }
  }
  CORVANE_INLINE simd<T, 16> part(unsigned i) const {
    simd<T, 16> v;
    for (unsigned j = 0; j < simd<T, 16>::regs; ++j) v.r[j] = r[i * simd<T, 16>::regs + j];
    return v;
  }

  // The lanes as float; only of double are any rounded.
  CORVANE_INLINE f32x16 to_float() const {
    static_assert(N == 16);
    if constexpr (std::is_same_v<T, double>) {
      return narrow_to_float(r[0], r[1]);
    } else {
      return r[0];
    }
  }

  CORVANE_INLINE T lane(unsigned i) const { return static_cast<T>(r[i / reg_lanes][i % reg_lanes]); }

  friend CORVANE_INLINE simd operator+(const simd& a, const simd& b) {
    simd c;
    for (unsigned i = 0; i < regs; ++i) c.r[i] = detail::rounded<T>(a.r[i] + b.r[i]);
    return c;
  }
  friend CORVANE_INLINE simd operator-(const simd& a, const simd& b) {
    simd c;
    for (unsigned i = 0; i < regs; ++i) c.r[i] = detail::rounded<T>(a.r[i] - b.r[i]);
    return c;
  }
  friend CORVANE_INLINE simd operator*(const simd& a, const simd& b) {
    simd c;
    for (unsigned i = 0; i < regs; ++i) c.r[i] = detail::rounded<T>(a.r[i] * b.r[i]);
    return c;
  }
};

// a * b + c, contracted as T allows.
template <class T, unsigned N>
CORVANE_INLINE simd<T, N> multiply_add(const simd<T, N>& a, const simd<T, N>& b, const simd<T, N>& c) {
  simd<T, N> d;
  for (unsigned i = 0; i < simd<T, N>::regs; ++i) {
    if constexpr (std::is_same_v<T, BFloat16>) {
      d.r[i] = round_to_bfloat16(round_to_bfloat16(a.r[i] * b.r[i]) + c.r[i]);
    } else {
      d.r[i] = detail::rounded<T>(fused_multiply_add(a.r[i], b.r[i], c.r[i]));
    }
  }
  return d;
}

// --- sums across the lanes ------------------------------------------------------------------------------------------

namespace detail {

// Lane t receives lane t + stride.
template <unsigned Stride>
CORVANE_INLINE f32x16 shifted_down(f32x16 x) {
  i32x16 from;
  for (int t = 0; t < 16; ++t) from[t] = (t + static_cast<int>(Stride)) & 15;
  return shuffle(x, from);
}

template <class T, unsigned Stride>
CORVANE_INLINE f32x16 tree_step(f32x16 x) {
  return rounded<T>(x + shifted_down<Stride>(x));
}

}  // namespace detail

// The scratch tree of a work-group: stride 8, halving down to 1, each addition in T. Lane 0 of the tree is the sum.
template <class T>
CORVANE_INLINE T sum_tree(const simd<T, 16>& v) {
  if constexpr (std::is_same_v<T, double>) {
    const f64x8 x = v.r[0] + v.r[1];
    const double a = x[0] + x[4], b = x[1] + x[5], c = x[2] + x[6], d = x[3] + x[7];
    return (a + c) + (b + d);
  } else {
    f32x16 x = detail::tree_step<T, 8>(v.r[0]);
    x = detail::tree_step<T, 4>(x);
    x = detail::tree_step<T, 2>(x);
    x = detail::tree_step<T, 1>(x);
    return static_cast<T>(x[0]);
  }
}

namespace detail {

// Two registers of runs of 2 * Stride lanes, each run a tree after some steps, become one of runs of Stride lanes: the
// runs of a, then those of b, all one step further.
template <class T, unsigned Stride, class Reg>
CORVANE_INLINE Reg tree_step(Reg a, Reg b) {
  using index = std::conditional_t<std::is_same_v<Reg, f64x8>, i64x8, i32x16>;
  constexpr int lanes = lane_type<T>::lanes, stride = Stride;
  index low;
  for (int t = 0; t < lanes; ++t) low[t] = t / stride * 2 * stride + t % stride;
  return rounded<T>(shuffle(a, b, low) + shuffle(a, b, low + stride));
}

}  // namespace detail

// Lane r: the scratch tree of rows[r]. Sixteen trees together take a step of one tree for each, not four, and none
// waits for another.
template <class T>
CORVANE_INLINE simd<T, 16> sum_trees(const simd<T, 16> (&rows)[16]) {
  using reg = typename simd<T, 16>::reg;
  reg r[16];
  const auto halve = [&](auto stride, unsigned count) {
    for (unsigned i = 0; i < count / 2; ++i) r[i] = detail::tree_step<T, stride>(r[2 * i], r[2 * i + 1]);
  };
  simd<T, 16> sums;
  if constexpr (std::is_same_v<T, double>) {
    for (unsigned i = 0; i < 16; ++i) r[i] = rows[i].r[0] + rows[i].r[1];
    halve(std::integral_constant<unsigned, 4>{}, 16);
    halve(std::integral_constant<unsigned, 2>{}, 8);
    halve(std::integral_constant<unsigned, 1>{}, 4);
    sums.r[1] = r[1];
  } else {
    for (unsigned i = 0; i < 16; ++i) r[i] = rows[i].r[0];
    halve(std::integral_constant<unsigned, 8>{}, 16);
    halve(std::integral_constant<unsigned, 4>{}, 8);
    halve(std::integral_constant<unsigned, 2>{}, 4);
    halve(std::integral_constant<unsigned, 1>{}, 2);
  }
  sums.r[0] = r[0];
  return sums;
}

}  // namespace sycl
