// What explicit-SIMD kernels with systolic steps need beside lanes: bytes of 16 columns laid across the lanes, and
// products of BFloat16 pairs summed in float.
#pragma once

#include <utility>

#include "platform/sycl/simd.hpp"

namespace sycl {

// words[q], lane i: bytes 4 q to 4 q + 3 of column i, for 16 columns of 64 bytes or of 32: neighbours along a column
// become neighbours across the columns. A column's bytes are read at once: sixteen that lie a power of two apart do not
// stay in the first-level cache together.
#ifdef CORVANE_AVX512
namespace detail {
// Of four registers: lane L of register c gets the 32-bit lanes 4 L + c of the four.
CORVANE_INLINE void transpose_four(__m512i (&v)[4]) {
  const __m512i low01 = _mm512_unpacklo_epi32(v[0], v[1]), high01 = _mm512_unpackhi_epi32(v[0], v[1]);
  const __m512i low23 = _mm512_unpacklo_epi32(v[2], v[3]), high23 = _mm512_unpackhi_epi32(v[2], v[3]);
  v[0] = _mm512_unpacklo_epi64(low01, low23), v[1] = _mm512_unpackhi_epi64(low01, low23);
  v[2] = _mm512_unpacklo_epi64(high01, high23), v[3] = _mm512_unpackhi_epi64(high01, high23);
}
}  // namespace detail

CORVANE_INLINE void transpose_words(const std::uint8_t* const (&column)[16], i32x16 (&words)[16]) {
  __m512i four[4][4];
  for (unsigned g = 0; g < 4; ++g) {
    for (unsigned i = 0; i < 4; ++i) four[g][i] = load_bytes<__m512i>(column[4 * g + i]);
    detail::transpose_four(four[g]);
  }
  for (unsigned c = 0; c < 4; ++c) {
    const __m512i low01 = _mm512_shuffle_i32x4(four[0][c], four[1][c], 0x88);  // lanes 0 and 2 of each
    const __m512i low23 = _mm512_shuffle_i32x4(four[2][c], four[3][c], 0x88);
    const __m512i high01 = _mm512_shuffle_i32x4(four[0][c], four[1][c], 0xDD);  // lanes 1 and 3
    const __m512i high23 = _mm512_shuffle_i32x4(four[2][c], four[3][c], 0xDD);
    words[c] = (i32x16)_mm512_shuffle_i32x4(low01, low23, 0x88);
    words[4 + c] = (i32x16)_mm512_shuffle_i32x4(high01, high23, 0x88);
    words[8 + c] = (i32x16)_mm512_shuffle_i32x4(low01, low23, 0xDD);
    words[12 + c] = (i32x16)_mm512_shuffle_i32x4(high01, high23, 0xDD);
  }
}

CORVANE_INLINE void transpose_words(const std::uint8_t* const (&column)[16], i32x16 (&words)[8]) {
  const auto two = [&](unsigned i, unsigned j) {
    const __m512i low = _mm512_castsi256_si512(load_bytes<__m256i>(column[i]));
    return _mm512_inserti64x4(low, load_bytes<__m256i>(column[j]), 1);
  };
  __m512i four[2][4];
  for (unsigned g = 0; g < 2; ++g) {
    for (unsigned i = 0; i < 4; ++i) four[g][i] = two(8 * g + i, 8 * g + 4 + i);
    detail::transpose_four(four[g]);
  }
  for (unsigned c = 0; c < 4; ++c) {
    words[c] = (i32x16)_mm512_shuffle_i32x4(four[0][c], four[1][c], 0x88);
    words[4 + c] = (i32x16)_mm512_shuffle_i32x4(four[0][c], four[1][c], 0xDD);
  }
}

// Of every four the second and the third change places.
CORVANE_INLINE u16x32 swap_inner_of_four(u16x32 x) {
  const __m512i order = _mm512_broadcast_i32x4(_mm_setr_epi8(0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 12, 13, 10, 11, 14, 15));
  return (u16x32)_mm512_shuffle_epi8((__m512i)x, order);
}
#else
template <unsigned Words>
CORVANE_INLINE void transpose_words(const std::uint8_t* const (&column)[16], i32x16 (&words)[Words]) {
  for (unsigned q = 0; q < Words; ++q) {
    for (unsigned i = 0; i < 16; ++i) words[q][i] = load_integer<std::int32_t>(column[i] + 4 * q);
  }
}
CORVANE_INLINE u16x32 swap_inner_of_four(u16x32 x) {
  for (unsigned i = 0; i < 32; i += 4) std::swap(x[i + 1], x[i + 2]);
  return x;
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
