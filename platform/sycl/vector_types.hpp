// Vectors of bits and numbers, and what moves them between registers and memory.
#pragma once

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>
#ifdef __x86_64__
#include <immintrin.h>
#endif

#include <cstdint>
#include <cstring>
#include <utility>

// What the processor has, as far as the headers here ask.
#if defined(__AVX512F__) && defined(__AVX512BW__) && defined(__AVX512DQ__) && defined(__AVX512VL__)
#define CORVANE_AVX512 1
#ifdef __AVX512VNNI__
#define CORVANE_AVX512_VNNI 1
#endif
#elif defined(__AVX2__) && defined(__FMA__) && defined(__F16C__)
#define CORVANE_AVX2 1
#endif

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
#if defined(CORVANE_AVX512) && !defined(__SANITIZE_ADDRESS__)  // a masked load is no read that it checks
  if constexpr (sizeof(V) == 64) return (V)_mm512_maskz_loadu_epi8((__mmask64{1} << bytes) - 1, from);
  if constexpr (sizeof(V) == 32) return (V)_mm256_maskz_loadu_epi8((__mmask32{1} << bytes) - 1, from);
#endif
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
enum class cache_level { first, second };
template <cache_level To = cache_level::second>
CORVANE_INLINE void prefetch(const void* to) {
  __builtin_prefetch(to, 0, To == cache_level::first ? 3 : 2);
}

// One register to memory past the caches, for what is larger than they are; `to` is a multiple of 64. Other threads see
// it once the piece of the loop is done (parallel.cpp).
template <class V>
CORVANE_INLINE void store_past_caches(const V& x, void* to) {
  static_assert(sizeof(V) == 64);
#if defined(__AVX512F__)
  _mm512_stream_si512(static_cast<__m512i*>(to), (__m512i)x);
#elif defined(__AVX2__)
  __m256i half[2];
  std::memcpy(half, &x, sizeof(x));
  _mm256_stream_si256(static_cast<__m256i*>(to), half[0]);
  _mm256_stream_si256(static_cast<__m256i*>(to) + 1, half[1]);
#else
  std::memcpy(to, &x, sizeof(x));
#endif
}

CORVANE_INLINE f32x16 splat(float x) { return x - f32x16{}; }  // a sum with 0 would lose the sign of -0
CORVANE_INLINE f32x16 splat_halves(float low, float high) {    // each in eight lanes
  using f32x8 = float __attribute__((vector_size(32)));
  return __builtin_shufflevector(low - f32x8{}, high - f32x8{}, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
}
CORVANE_INLINE f64x8 splat_halves(double low, double high) {  // each in four lanes
  using f64x4 = double __attribute__((vector_size(32)));
  return __builtin_shufflevector(low - f64x4{}, high - f64x4{}, 0, 1, 2, 3, 4, 5, 6, 7);
}
CORVANE_INLINE i32x16 splat(std::int32_t x) { return i32x16{} + x; }
CORVANE_INLINE f32x16 as_float(i32x16 bits) { return (f32x16)bits; }
CORVANE_INLINE i32x16 as_int(f32x16 x) { return (i32x16)x; }

}  // namespace sycl
