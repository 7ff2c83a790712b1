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

namespace sycl {

using Half = c10::Half;
using BFloat16 = c10::BFloat16;

using f32x16 = float __attribute__((vector_size(64)));
using i32x16 = std::int32_t __attribute__((vector_size(64)));
using u32x16 = std::uint32_t __attribute__((vector_size(64)));
using f64x8 = double __attribute__((vector_size(64)));
using u8x16 = std::uint8_t __attribute__((vector_size(16)));
using u16x16 = std::uint16_t __attribute__((vector_size(32)));
using u8x64 = std::uint8_t __attribute__((vector_size(64)));

#define CORVANE_INLINE inline __attribute__((always_inline))

// --- loads of raw bytes, widening, reinterpretation -------------------------------------------------------------

template <class V>
CORVANE_INLINE V load_bytes(const void* from) {
  V v;
  std::memcpy(&v, from, sizeof(V));
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

CORVANE_INLINE f32x16 splat(float x) { return f32x16{} + x; }
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
CORVANE_INLINE f64x8 low_to_double(f32x16 x) { return (f64x8)_mm512_cvtps_pd(_mm512_castps512_ps256((__m512)x)); }
CORVANE_INLINE f64x8 high_to_double(f32x16 x) {
  return (f64x8)_mm512_cvtps_pd((__m256)_mm512_extractf64x4_pd((__m512d)x, 1));
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
CORVANE_INLINE u16x16 widen_s8_to_u16(const void* from) {  // sign-extended
  return (u16x16)_mm256_cvtepi8_epi16(_mm_loadu_si128(static_cast<const __m128i*>(from)));
}
// (index & 16 ? high : low)[index & 15] in each lane.
CORVANE_INLINE f32x16 lookup32(f32x16 low, f32x16 high, i32x16 index) {
  return (f32x16)_mm512_permutex2var_ps((__m512)low, (__m512i)index, (__m512)high);
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
CORVANE_INLINE f32x16 fused_multiply_add(f32x16 a, f32x16 b, f32x16 c) { return a * b + c; }
CORVANE_INLINE f64x8 fused_multiply_add(f64x8 a, f64x8 b, f64x8 c) { return a * b + c; }
#endif

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

// --- rounding to the 16-bit types, and their bits -----------------------------------------------------------------

CORVANE_INLINE f32x16 round_to_half(f32x16 x) { return half_bits_to_float(float_to_half_bits(x)); }

// Result of arithmetic on BFloat16 values. Its not-a-numbers stem from an operand or are the processor's own, so their
// low 16 bits are clear and the rounding does not carry: they stay not-a-numbers, and the store makes them 0x7FC0.
CORVANE_INLINE f32x16 round_to_bfloat16(f32x16 x) {
  const i32x16 bits = as_int(x);
#ifdef CORVANE_AVX512_VNNI
  // bits + 0x7FFF + bit 16, in one dot product of bytes: 255 * 127 + 191 * 2 = 0x7FFF, and bit 16 is byte 2 once masked.
  const i32x16 bytes = (bits & 0x00010000) | 0x0000BFFF;
  const i32x16 sum = (i32x16)_mm512_dpbusd_epi32((__m512i)bits, (__m512i)bytes, _mm512_set1_epi32(0x0001027F));
#else
  const i32x16 sum = bits + ((i32x16)(((u32x16)bits >> 16) & 1) + 0x7FFF);
#endif
  return as_float(sum & static_cast<std::int32_t>(0xFFFF0000));
}

// Any float, also a not-a-number with low bits set.
CORVANE_INLINE f32x16 round_any_to_bfloat16(f32x16 x) {
  const f32x16 rounded = round_to_bfloat16(x);
  const i32x16 is_nan = (i32x16)(x != x);
  return as_float((as_int(rounded) & ~is_nan) | (is_nan & 0x7FC00000));
}

CORVANE_INLINE u16x16 bfloat16_bits(f32x16 x) {  // x holds BFloat16 values
  const i32x16 is_nan = (i32x16)(x != x);
  const i32x16 bits = (as_int(x) & ~is_nan) | (is_nan & 0x7FC00000);
  return narrow_u16((i32x16)((u32x16)bits >> 16));
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
      for (unsigned i = 0; i < regs; ++i)
        v.r[i] = as_float(widen_u16(load_bytes<u16x16>(from + 16 * i)) << 16);
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
  return __builtin_shuffle(x, from);
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

}  // namespace sycl
