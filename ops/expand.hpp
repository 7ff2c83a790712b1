// Expansion of packed weights: units of 64 elements become dense values, with every rounding where the format has it.
// The one body of both families of expansion kernels, of the tile kernels and of the row look-up.
#pragma once

#include <cstdint>

#include "formats/reader.hpp"

namespace corvane {

namespace detail {

// What the last operation of arithmetic type A gives on its way to Out. A 16-bit Out is rounded to by the store alone,
// to the bits that rounding the lanes first would give.
template <class A, class Out>
using unstored = std::conditional_t<sizeof(Out) == 2 && std::is_same_v<A, Out>, float, A>;

template <class Out, class A, class Operation>
CORVANE_INLINE simd<unstored<A, Out>, 16> last_operation(const Operation& op, const simd<A, 16>& a,
                                                         const simd<A, 16>& b) {
  if constexpr (std::is_same_v<unstored<A, Out>, A>) {
    return op(a, b);
  } else {
    return {op(a.r[0], b.r[0])};
  }
}

template <class Out, class A>
CORVANE_INLINE auto scaled(const simd<A, 16>& code, const simd<A, 16>& scale) {
  return last_operation<Out>([](const auto& a, const auto& b) { return a * b; }, code, scale);
}
template <class Out, class A>
CORVANE_INLINE auto scaled(const simd<A, 16>& code, const simd<A, 16>& scale, const simd<A, 16>& offset) {
  return last_operation<Out>([](const auto& a, const auto& b) { return a + b; }, code * scale, offset);
}

// Elements 16 v to 16 v + 15 of a unit.
template <class Reader, class A, class Out>
CORVANE_INLINE auto expanded(const typename Reader::planes& weight, uint32_t unit, typename Reader::raw codes,
                             unsigned v) {
  const simd<A, 16> code = Reader::template decode<A>(codes, v);
  if constexpr (Reader::shared_scale == 0) {
    return code;
  } else if constexpr (Reader::has_offset) {
    return scaled<Out>(code, Reader::template scale<A>(weight, unit, v), Reader::template offset<A>(weight, unit, v));
  } else {
    return scaled<Out>(code, Reader::template scale<A>(weight, unit, v));
  }
}

// 32 neighbouring values, converted to Out.
template <class Out, class A>
CORVANE_INLINE void store_pair(const simd<A, 16>& first, const simd<A, 16>& second, Out* to) {
  if constexpr (std::is_same_v<Out, Half>) {
    sycl::store_as_half(first.r[0], second.r[0], to);
  } else if constexpr (std::is_same_v<Out, BFloat16>) {
    sycl::store_as_bfloat16(first.r[0], second.r[0], to);
  } else if constexpr (std::is_same_v<Out, A>) {
    first.store(to);
    second.store(to + 16);
  } else {
    simd<Out, 16>::exact(first.r[0]).store(to);
    simd<Out, 16>::exact(second.r[0]).store(to + 16);
  }
}

// A format of Halfs as they are, to Half.
template <class Reader>
concept plain_halves = requires(typename Reader::raw codes) {
  Reader::halves(codes, 0U);
};

template <class Reader>
CORVANE_INLINE void expand_unit_of_halves(const typename Reader::planes& weight, uint32_t unit, Half* out) {
  const typename Reader::raw codes = Reader::fetch(weight, unit);
  const sycl::u16x32 first = Reader::halves(codes, 0), second = Reader::halves(codes, 1);
  std::memcpy(static_cast<void*>(out), &first, sizeof(first));
  std::memcpy(static_cast<void*>(out + 32), &second, sizeof(second));
}

template <class Reader, class A, class Out>
CORVANE_INLINE void expand_unit(const typename Reader::planes& weight, uint32_t unit, Out* out) {
  const typename Reader::raw codes = Reader::fetch(weight, unit);
  const auto value = [&](unsigned v) { return expanded<Reader, A, Out>(weight, unit, codes, v); };
  // All values before the first store, which might, for all the compiler knows, change the codes.
  const auto a = value(0), b = value(1), c = value(2), d = value(3);
  store_pair(a, b, out);
  store_pair(c, d, out + 32);
}

template <class Reader>
concept few_values = requires(typename Reader::raw codes) {
  Reader::value_index(codes, 0U);
};

// The unit's sixteen values, value n in lane n.
template <class Reader, class A, class Out>
CORVANE_INLINE auto unit_values(const typename Reader::planes& weight, uint32_t unit) {
  const simd<A, 16> codes = Reader::template value_codes<A>(), scales = Reader::template value_scales<A>(weight, unit);
  if constexpr (Reader::has_offset) {
    return scaled<Out>(codes, scales, Reader::template value_offsets<A>(weight, unit));
  } else {
    return scaled<Out>(codes, scales);
  }
}

// To 16 bits: the values are worked out once and looked up, 32 elements at a time.
template <class Reader, class A, class Out>
CORVANE_INLINE void expand_unit_by_values(const typename Reader::planes& weight, uint32_t unit, Out* out) {
  const typename Reader::raw codes = Reader::fetch(weight, unit);
  const auto values = unit_values<Reader, A, Out>(weight, unit);
  const sycl::u16x16 bits =
      std::is_same_v<Out, Half> ? sycl::float_to_half_bits(values.r[0]) : sycl::float_to_bfloat16_bits(values.r[0]);
  const sycl::u16x32 first = sycl::lookup16(bits, Reader::value_index(codes, 0));
  const sycl::u16x32 second = sycl::lookup16(bits, Reader::value_index(codes, 1));
  std::memcpy(static_cast<void*>(out), &first, sizeof(first));
  std::memcpy(static_cast<void*>(out + 32), &second, sizeof(second));
}

}  // namespace detail

// Units `unit` to `unit` + `units` - 1 of a weight, into 64 * units values at `out`: codes and scales are converted to
// A, each operation is one of A, the result is converted to Out.
//
// Measured and dropped: stores past the caches (the same time, and what follows finds nothing in a cache), prefetching
// codes or output (slower by a tenth), expanding into the first-level cache and copying (slower by half).
template <class Reader,
          class A,    // the arithmetic: Half, float, double, BFloat16
          class Out>  // the output: A itself; any type where A is float; float where A is Half
CORVANE_INLINE void expand_units(const typename Reader::planes& weight, uint32_t unit, uint32_t units, Out* out) {
  for (const uint32_t end = unit + units; unit < end; ++unit, out += unit_elements) {
    if constexpr (detail::few_values<Reader> && sizeof(Out) == 2 && sycl::looks_up_words) {
      detail::expand_unit_by_values<Reader, A>(weight, unit, out);
    } else if constexpr (detail::plain_halves<Reader> && std::is_same_v<Out, Half> && sycl::looks_up_words) {
      detail::expand_unit_of_halves<Reader>(weight, unit, out);
    } else {
      detail::expand_unit<Reader, A>(weight, unit, out);
    }
  }
}

}  // namespace corvane
