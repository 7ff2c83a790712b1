// 64 bytes as one vector value, for kernels that look codes up and multiply them as integers.
#pragma once

#include "platform/sycl/simd.hpp"

namespace sycl {

// Eight 16-bit words of memory from each of two places, zero-extended.
CORVANE_INLINE i32x16 widen_two_u16(const void* first, const void* second) {
  using u16x8 = std::uint16_t __attribute__((vector_size(16)));
  return widen_u16(__builtin_shufflevector(load_bytes<u16x8>(first), load_bytes<u16x8>(second), 0, 1, 2, 3, 4, 5, 6, 7,
                                           8, 9, 10, 11, 12, 13, 14, 15));
}

// Sixteen bytes each.
CORVANE_INLINE u8x64 join(u8x16 a, u8x16 b, u8x16 c, u8x16 d) {
  const auto two = [](auto x, auto y) { return __builtin_shufflevector(x, y, 0, 1, 2, 3); };
  using u64x2 = std::uint64_t __attribute__((vector_size(16)));
  return (u8x64)__builtin_shufflevector(two((u64x2)a, (u64x2)b), two((u64x2)c, (u64x2)d), 0, 1, 2, 3, 4, 5, 6, 7);
}

// table[index & 63] in each byte.
CORVANE_INLINE u8x64 lookup64(u8x64 table, u8x64 index) {
#ifdef __AVX512VBMI__
  return (u8x64)_mm512_permutexvar_epi8((__m512i)index, (__m512i)table);
#else
  u8x64 found;
  for (int t = 0; t < 64; ++t) found[t] = table[index[t] & 63];
  return found;
#endif
}

// table[index & 127] in each byte, the table in two halves.
CORVANE_INLINE u8x64 lookup128(u8x64 low, u8x64 high, u8x64 index) {
#ifdef __AVX512VBMI__
  return (u8x64)_mm512_permutex2var_epi8((__m512i)low, (__m512i)index, (__m512i)high);
#else
  u8x64 found;
  for (int t = 0; t < 64; ++t) found[t] = (index[t] & 64) != 0 ? high[index[t] & 63] : low[index[t] & 63];
  return found;
#endif
}

// Byte t is bits from[t] to from[t] + 7 of the 64-bit word that it stands in, which is read round its end. Where it is
// not one instruction it takes one for each byte.
#ifdef __AVX512VBMI__
constexpr bool multishifts_at_once = true;
#else
constexpr bool multishifts_at_once = false;
#endif
CORVANE_INLINE u8x64 multishift_words(u8x64 words, u8x64 from) {
#ifdef __AVX512VBMI__
  return (u8x64)_mm512_multishift_epi64_epi8((__m512i)from, (__m512i)words);
#else
  using u64x8 = std::uint64_t __attribute__((vector_size(64)));
  u8x64 bytes;
  for (int t = 0; t < 64; ++t) {
    const std::uint64_t word = ((u64x8)words)[t / 8];
    bytes[t] = static_cast<std::uint8_t>(word >> (from[t] & 63) | word << (-from[t] & 63));
  }
  return bytes;
#endif
}

// -x where the byte of `bits` has a bit of `mask`, else x.
CORVANE_INLINE u8x64 negate_where(u8x64 bits, std::uint8_t mask, u8x64 x) {
#ifdef CORVANE_AVX512
  const __mmask64 negative = _mm512_test_epi8_mask((__m512i)bits, _mm512_set1_epi8(static_cast<char>(mask)));
  return (u8x64)_mm512_mask_sub_epi8((__m512i)x, negative, _mm512_setzero_si512(), (__m512i)x);
#else
  const u8x64 negative = (u8x64)((bits & mask) != 0);
  return (x ^ negative) - negative;
#endif
}

// sum + the products of four unsigned bytes of a with four signed bytes of b, in each lane. The sum of any two products
// has to fit 16 bits.
CORVANE_INLINE i32x16 add_products(i32x16 sum, u8x64 a, u8x64 b) {
#ifdef CORVANE_AVX512_VNNI
  return (i32x16)_mm512_dpbusd_epi32((__m512i)sum, (__m512i)a, (__m512i)b);
#elif defined(CORVANE_AVX512)
  const __m512i pairs = _mm512_maddubs_epi16((__m512i)a, (__m512i)b);
  return sum + (i32x16)_mm512_madd_epi16(pairs, _mm512_set1_epi16(1));
#elif defined(CORVANE_AVX2)
  const auto four = [](__m256i x, __m256i y) {
    return _mm256_madd_epi16(_mm256_maddubs_epi16(x, y), _mm256_set1_epi16(1));
  };
  const auto x = detail::split(&a), y = detail::split(&b);
  return sum + detail::join<i32x16>(four(x.low, y.low), four(x.high, y.high));
#else
  for (int place = 0; place < 32; place += 8) {
    sum += ((i32x16)a >> place & 0xFF) * ((i32x16)b << (24 - place) >> 24);
  }
  return sum;
#endif
}

}  // namespace sycl
