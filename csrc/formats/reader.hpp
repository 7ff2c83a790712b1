// What a reader of a format is: the bytes of 64 consecutive elements become lanes, here and nowhere else.
//
// Weight rows are walked in units of 64 elements, numbered through the whole matrix (unit = flat element / 64). A
// reader is a struct of static functions and constants:
//
//   id                          qtype of the format
//   shared_scale                elements under one scale: 64, 32 or 16; 0: decode gives the weight, nothing scales it
//   has_offset                  y = scale * code + offset, instead of y = scale * code
//   planes                      where the parts of a packed tensor begin
//   locate(weight, K, N)        planes of a tensor
//   prefetch(planes, unit)      hint that the unit's codes will be read
//   prefetch_scales(planes, unit)   hint that the scales of 16 units from `unit` on will, where a unit has one
//   raw, fetch(planes, unit)    a unit's codes, as far as they are best unpacked 64 at a time
//   decode<T>(raw, v)           codes of elements 16v to 16v + 15 of the unit as T, unscaled, in element order; v < 4
//   scale<T>(planes, unit, v)   their scale, in all lanes, where there is one
//   offset<T>(planes, unit, v)  their offset, where there is one
//   scales<T>(planes, unit, n), offsets<T>(planes, unit, n)   those of n <= 16 units from `unit` on, one to a lane, the
//                               other lanes zero, where all 64 elements share them
//
// A format whose units, or halves of units, have at most sixteen different values each says so by three more functions,
// for outputs of 16 bits, where a look-up of values beats decoding:
//
//   value_index(raw, h)               numbers of the values of elements 32 h to 32 h + 31 in the low four bits of 32
//                                     words; h < 2
//   value_codes<T>()                  code of value n in lane n
//   value_scales<T>(planes, unit), value_offsets<T>(planes, unit)   its scale; its offset, where there is one. Left out
//                               where the 32 elements share scale and offset: then the sixteen values are theirs
//
// A format of super-blocks of 256 elements may give all their scales in one register:
//
//   chunk_scale<T>(planes, block), chunk_offset<T>(planes, block)   those of elements 16 t to 16 t + 15 in lane t
//
// Decoded codes are exact in T: table entries are rounded to T where the table is made.
#pragma once

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

constexpr unsigned unit_elements = 64;

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
