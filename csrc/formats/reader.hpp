// What a reader of a format is: the one place that knows where the format's bytes lie and what they mean.
//
// A reader is a struct of static functions and constants; the concepts below say what it has to offer, and what some
// offer beside it. readers.hpp asserts them for every format.
#pragma once

#include <concepts>
#include <cstdint>
#include <type_traits>

#include "formats/registry.hpp"
#include "platform/sycl/simd.hpp"

namespace corvane {

using sycl::BFloat16;
using sycl::Half;
using sycl::simd;

// M(T, ...) for every element type of inputs and outputs: how a kernel's source lists its instances.
#define CORVANE_FOR_ELEMENT_TYPES(M, ...) \
  M(Half __VA_OPT__(, ) __VA_ARGS__)      \
  M(float __VA_OPT__(, ) __VA_ARGS__)     \
  M(double __VA_OPT__(, ) __VA_ARGS__)    \
  M(BFloat16 __VA_OPT__(, ) __VA_ARGS__)

// The readers of a format, said beside them: its own, and the one that fused and systolic kernels use, where fp8_e5m2
// differs.
template <int32_t Id>
struct reader_for;
template <int32_t Id>
using reader_of = typename reader_for<Id>::type;
template <int32_t Id>
struct scaled_reader_for : reader_for<Id> {};
template <int32_t Id>
using scaled_reader_of = typename scaled_reader_for<Id>::type;

// Where the parts of a packed tensor begin, and the codes of a unit as 16 lanes at a time.
template <class R>
concept unit_reader = requires(const typename R::planes& planes, typename R::raw raw, uint32_t unit) {
  // qtype of the format
  { R::id } -> std::convertible_to<int32_t>;
  // elements under one scale: 64, 32, 16; 0: decode gives the weight itself, nothing scales it
  { R::shared_scale } -> std::convertible_to<unsigned>;
  // y = scale * code + offset, not scale * code
  { R::has_offset } -> std::convertible_to<bool>;
  // from weight, state_size, output_size
  { R::locate((const uint8_t*)nullptr, uint64_t{}, uint64_t{}) } -> std::same_as<typename R::planes>;
  // a unit's codes, as far as best unpacked together
  { R::fetch(planes, unit) } -> std::same_as<typename R::raw>;
  // elements 16 v to 16 v + 15, v < 4, unscaled; exact in T
  { R::template decode<float>(raw, 0U) } -> std::same_as<simd<float, 16>>;
};

// Scale (and offset) of elements 16 v to 16 v + 15 of a unit, in all lanes.
template <class R>
concept scaled_by_unit = unit_reader<R> && requires(const typename R::planes& planes, uint32_t unit) {
  { R::template scale<float>(planes, unit, 0U) } -> std::same_as<simd<float, 16>>;
};

// One scale a unit, and those of up to 16 units from `unit` on, one to a lane, the other lanes zero.
template <class R>
concept one_scale_a_unit = scaled_by_unit<R> && requires(const typename R::planes& planes, uint32_t unit) {
  // hints that the unit's codes, and the scales of 16 units from `unit` on, will be read
  R::template prefetch<sycl::cache_level::second>(planes, unit);
  R::template prefetch_scales<sycl::cache_level::second>(planes, unit);
  { R::template scales<float>(planes, unit, 1U) } -> std::same_as<simd<float, 16>>;
};

// What the row kernels that walk units take: no scale, or one a unit.
template <class R>
concept row_reader = unit_reader<R> &&(R::shared_scale == 0 || one_scale_a_unit<R>);

// A format whose units, or halves of units, have at most sixteen different values each: for outputs of 16 bits a
// look-up of values beats decoding.
template <class R>
concept few_values = unit_reader<R> && requires(typename R::raw raw) {
  R::value_index(raw, 0U);           // numbers of the values of elements 32 h to 32 h + 31, in the low four bits
  R::template value_codes<float>();  // code of value n in lane n
};
// With scales of their own for the sixteen values of a unit.
template <class R>
concept scales_by_value = few_values<R> && requires(const typename R::planes& planes, uint32_t unit) {
  R::template value_scales<float>(planes, unit);
  R::template value_offsets<float>(planes, unit);
};

// A format of super-blocks that gives all its scales in one register: lane t has that of elements 16 t to 16 t + 15.
template <class R>
concept scales_by_block = unit_reader<R> && requires(const typename R::planes& planes, uint32_t block) {
  R::template chunk_scale<float>(planes, block);
};

// The second view of a super-block: 16 chunks of 16 elements, one to a lane, each (q5_k: either half) under one scale.
template <class R>
concept chunk_reader = scales_by_block<R> &&
    requires(const typename R::planes& planes, typename R::chunks chunks, uint32_t block) {
  { R::chunk_element(0U, 0U) } -> std::same_as<unsigned>;  // which element of the block is element j of chunk c
  { R::fetch_chunks(planes, block) } -> std::same_as<typename R::chunks>;
  R::template chunk_pair<float, 0>(chunks);  // codes of elements 2 n and 2 n + 1 of each chunk, exact in T
  // hint that the codes of the block will be read
  R::template prefetch_block<sycl::cache_level::second>(planes, block);
};

// Whether the codes of a format are whole numbers: it says the largest magnitude, largest_code.
template <class R>
constexpr bool whole_codes = [] {
  if constexpr (requires { R::largest_code; }) return R::largest_code != 0;
  return false;
}();

// A format of Halfs as they are.
template <class R>
concept plain_halves = unit_reader<R> && requires(typename R::raw raw) {
  R::halves(raw, 0U);
};

// A format of 4-bit codes. Lanes of words hold four neighbouring code bytes each, of blocks or columns side by side.
template <class R>
concept nibble_reader = unit_reader<R> && requires(sycl::i32x16 words) {
  // the code of byte i of each word, in run 0 or, 32 elements further, in run 1; exact in T
  { R::template value_in_words<float>(words, 0U, 0U) } -> std::same_as<simd<float, 16>>;
  R::bfloat16_pair_in_words(words, 0U, 0U);  // those of bytes i and i + 2, i < 2, as pairs of BFloat16
};
// A format of a byte an element, in the same way.
template <class R>
concept byte_reader = unit_reader<R> && requires(sycl::i32x16 words) {
  { R::template value_in_words<float>(words, 0U) } -> std::same_as<simd<float, 16>>;
};

// Codes and scales of a unit as bytes of two planes, for the systolic kernels, which turn them across columns.
template <class R>
concept systolic_reader = one_scale_a_unit<R> &&
    (nibble_reader<R> || byte_reader<R>)&&requires(const typename R::planes& planes) {
  { R::code_bytes } -> std::convertible_to<unsigned>;
  typename R::scale_type;  // Half or float
  planes.codes, planes.scales;
};

// A format whose codes are unpacked soonest in an order of their own, those of `woven_units` units together: the input
// of a row kernel is laid out in the same order.
template <class R>
concept woven_reader = row_reader<R> && requires(const typename R::planes& planes, typename R::woven codes) {
  // 1, or 4: lane t is then of unit t / 4 of them; 0: not on this processor
  { R::woven_units } -> std::convertible_to<unsigned>;
  // the element that is lane `lane` of line `line`, of the four lines of each unit
  { R::woven_element(0U, 0U) } -> std::same_as<unsigned>;
  // codes of the first `count` units from this one on; the others' are any that are finite
  { R::fetch_woven(planes, 0U, 1U) } -> std::same_as<typename R::woven>;
  { R::template woven_line<float>(codes, 0U) } -> std::same_as<simd<float, 16>>;
};

// Where weights are asked for that a row kernel reads next. What is worked on longer than it takes to come is best
// close at hand; what is not would push out what is there. Measured, weights from memory, time with the second level
// against the first: in float fp6 0.71, q4_0 0.85, q8_0 0.62, q6_k 0.81, q5_k 0.97, nf3 0.98; in the 16-bit types 1.02
// to 1.1.
template <class T>
constexpr sycl::cache_level prefetch_level =
    std::is_same_v<T, float> ? sycl::cache_level::second : sycl::cache_level::first;

// Values of Half, converted to T: rounded where T is BFloat16.
template <class T>
CORVANE_INLINE simd<T, 16> half_values_as(sycl::f32x16 values) {
  if constexpr (std::is_same_v<T, BFloat16>) {
    return simd<T, 16>::from_float(values);
  } else {
    return simd<T, 16>::exact(values);
  }
}

// One value per plane entry, in all lanes, converted to T.
template <class T>
CORVANE_INLINE simd<T, 16> splat_half_as(const uint8_t* at) {
  return half_values_as<T>(sycl::splat_half(at));
}

// `count` of at most 16 neighbouring entries as lanes, converted to T; the other lanes are zero.
template <class T>
CORVANE_INLINE simd<T, 16> half_lanes(sycl::u16x16 bits) {
  return half_values_as<T>(sycl::half_bits_to_float(bits));
}
template <class T>
CORVANE_INLINE simd<T, 16> half_lanes(const uint8_t* at, unsigned count) {
  return half_lanes<T>(sycl::load_some<sycl::u16x16>(at, count * sizeof(Half)));
}
template <class T>
CORVANE_INLINE simd<T, 16> float_lanes(const uint8_t* at, unsigned count) {
  return simd<T, 16>::from_float(sycl::load_some<sycl::f32x16>(at, count * sizeof(float)));
}

template <class T>
CORVANE_INLINE simd<T, 16> splat_float_as(const uint8_t* at) {
  return simd<T, 16>::from_float(sycl::splat(sycl::load_float(at)));
}

}  // namespace corvane
