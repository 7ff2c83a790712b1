// What explicit-SIMD kernels with systolic steps need beside lanes: bytes of 16 columns laid across the lanes, and
// products of BFloat16 pairs summed in float.
#pragma once

#include "platform/sycl/simd.hpp"

namespace sycl {

// to[16 j + i] = column[i][offset + j] for i, j < 16: neighbours along a column become neighbours across the columns.
#ifdef CORVANE_AVX512
CORVANE_INLINE void transpose_bytes(const std::uint8_t* const (&column)[16], std::size_t offset, std::uint8_t* to) {
  const auto quarter = [&](unsigned i) { return load_bytes<__m128i>(column[i] + offset); };
  const auto four = [&](unsigned i) {  // every fourth column, so that the unpacking below restores the order
    __m512i v = _mm512_castsi128_si512(quarter(i));
    v = _mm512_inserti32x4(v, quarter(i + 4), 1);
    v = _mm512_inserti32x4(v, quarter(i + 8), 2);
    return _mm512_inserti32x4(v, quarter(i + 12), 3);
  };
  const __m512i c0 = four(0), c1 = four(1), c2 = four(2), c3 = four(3);
  const __m512i low01 = _mm512_unpacklo_epi32(c0, c1), high01 = _mm512_unpackhi_epi32(c0, c1);
  const __m512i low23 = _mm512_unpacklo_epi32(c2, c3), high23 = _mm512_unpackhi_epi32(c2, c3);
  // words[q]: bytes 4q to 4q + 3 of column i in 32-bit lane i.
  const __m512i words[4] = {_mm512_unpacklo_epi64(low01, low23), _mm512_unpackhi_epi64(low01, low23),
                            _mm512_unpacklo_epi64(high01, high23), _mm512_unpackhi_epi64(high01, high23)};
  const __m512i gather_bytes =
      _mm512_broadcast_i32x4(_mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
  const __m512i gather_words = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  for (unsigned q = 0; q < 4; ++q) {
    const __m512i bytes = _mm512_permutexvar_epi32(gather_words, _mm512_shuffle_epi8(words[q], gather_bytes));
    std::memcpy(to + 64 * q, &bytes, sizeof(bytes));
  }
}
#else
CORVANE_INLINE void transpose_bytes(const std::uint8_t* const (&column)[16], std::size_t offset, std::uint8_t* to) {
  for (unsigned i = 0; i < 16; ++i) {
    for (unsigned j = 0; j < 16; ++j) to[16 * j + i] = column[i][offset + j];
  }
}
#endif

// A load that is made once: GCC would otherwise repeat it as an operand of each instruction that uses the value.
template <class V>
CORVANE_INLINE V load_once(const void* from) {
  V v = load_bytes<V>(from);
#ifdef CORVANE_AVX512
  asm("" : "+v"(v));
#endif
  return v;
}

// --- lanes of two BFloat16 each -----------------------------------------------------------------------------------

// Lanes that are BFloat16 values, as the lower and the higher half of a pair.
CORVANE_INLINE i32x16 pair_of(f32x16 low, f32x16 high) { return (i32x16)((u32x16)low >> 16) | as_int(high); }
CORVANE_INLINE f32x16 low_of(i32x16 pair) { return as_float(pair << 16); }
CORVANE_INLINE f32x16 high_of(i32x16 pair) { return as_float(pair & static_cast<std::int32_t>(0xFFFF0000)); }

// c + a.low * b.low + a.high * b.high in float.
CORVANE_INLINE f32x16 multiply_add_pairs(i32x16 a, i32x16 b, f32x16 c) {
  return fused_multiply_add(high_of(a), high_of(b), fused_multiply_add(low_of(a), low_of(b), c));
}

// The same in one instruction where there is one. It takes subnormal operands for zero and makes zero of subnormal
// sums: only for operands whose products are multiples of 2^-126, so that no sum is subnormal.
#ifdef __AVX512BF16__
CORVANE_INLINE f32x16 multiply_add_pairs_flushing(i32x16 a, i32x16 b, f32x16 c) {
  return (f32x16)_mm512_dpbf16_ps((__m512)c, (__m512bh)a, (__m512bh)b);
}
#else
CORVANE_INLINE f32x16 multiply_add_pairs_flushing(i32x16 a, i32x16 b, f32x16 c) { return multiply_add_pairs(a, b, c); }
#endif

// Lanes of 32 BFloat16, given as bits, that are not zero and whose magnitude is below that of `limit`: all ones there.
CORVANE_INLINE u16x32 nonzero_below(u16x32 bits, std::uint16_t limit) {
  const u16x32 magnitude = bits & std::uint16_t{0x7FFF};
  return (u16x32)(magnitude - std::uint16_t{1} < u16x32{} + static_cast<std::uint16_t>(limit - 1));
}
CORVANE_INLINE bool any(u16x32 lanes) {
  const auto words = (u32x16)lanes;
  std::uint32_t all = 0;
  for (int i = 0; i < 16; ++i) all |= words[i];
  return all != 0;
}

}  // namespace sycl
