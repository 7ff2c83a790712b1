// Vectors below any notion of rounding: loads, widening, table look-ups, shuffles.
//
// GCC's vector types throughout; where AVX-512 or AVX2 has an instruction for a step that GCC would not find, it is
// named. Any other processor gets what GCC makes of the vectors.
#pragma once

#include "platform/sycl/vector_types.hpp"
#ifdef CORVANE_AVX512
#include "platform/sycl/vector_avx512.hpp"
#else
#ifdef CORVANE_AVX2
#include "platform/sycl/vector_avx2.hpp"
#else
#include "platform/sycl/vector_portable.hpp"
#endif
#include "platform/sycl/vector_loops.hpp"
#endif

namespace sycl {

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

// Lanes 0, 2, ... of a, then of b; and lanes 1, 3, ...
CORVANE_INLINE i32x16 even_lanes(i32x16 a, i32x16 b) {
  return shuffle(a, b, i32x16{0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30});
}
CORVANE_INLINE i32x16 odd_lanes(i32x16 a, i32x16 b) {
  return shuffle(a, b, i32x16{1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31});
}

// The lowest bits of the number, in order, where the mask has its bits set.
CORVANE_INLINE std::uint64_t deposit_bits(std::uint64_t bits, std::uint64_t mask) {
#ifdef __BMI2__
  return _pdep_u64(bits, mask);
#else
  std::uint64_t deposited = 0;
  for (; mask != 0; mask &= mask - 1, bits >>= 1) deposited |= (bits & 1) != 0 ? mask & -mask : 0;
  return deposited;
#endif
}

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

}  // namespace sycl
