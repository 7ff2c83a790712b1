// Expansion of packed weights: units of 64 elements become dense values, with every rounding where the format has it.
// The one body of all expansion kernels, compiled once for each format, arithmetic and output type.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "formats/k_block.hpp"
#include "ops/expansion.hpp"
#include "platform/sycl/tuning.hpp"

namespace corvane {

namespace detail {

// Type of the last operation's result. For a 16-bit output the store does the rounding, to the same bits, so the lanes
// stay float.
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

// Where a format's scales and offsets come from: asked for by unit, or the sixteen of a super-block at once.
template <class Reader, class A>
struct unit_scales {
  const typename Reader::planes& weight;
  uint32_t unit;
  CORVANE_INLINE simd<A, 16> scale(unsigned v) const { return Reader::template scale<A>(weight, unit, v); }
  CORVANE_INLINE simd<A, 16> offset(unsigned v) const { return Reader::template offset<A>(weight, unit, v); }
};
template <class A>
struct run_scales {
  const float *scales, *offsets;  // of the unit's runs of 16 elements, as values of A
  CORVANE_INLINE simd<A, 16> scale(unsigned v) const { return simd<A, 16>::exact(sycl::splat(scales[v])); }
  CORVANE_INLINE simd<A, 16> offset(unsigned v) const { return simd<A, 16>::exact(sycl::splat(offsets[v])); }
};

// Elements 16 v to 16 v + 15 of a unit.
template <class Reader, class A, class Out, class Scales>
CORVANE_INLINE auto expanded(const Scales& scales, typename Reader::raw codes, unsigned v) {
  const simd<A, 16> code = Reader::template decode<A>(codes, v);
  if constexpr (Reader::shared_scale == 0) {
    return code;
  } else if constexpr (Reader::has_offset) {
    return scaled<Out>(code, scales.scale(v), scales.offset(v));
  } else {
    return scaled<Out>(code, scales.scale(v));
  }
}

// Where expanded values go. An output that outgrows the caches is stored past them: a store does not read its line
// first then, and neither the codes nor what the product reads meanwhile are driven out.
template <class Out>
struct destination {
  Out* at;
  bool past_caches;
  CORVANE_INLINE destination operator+(uint64_t n) const { return {at + n, past_caches}; }
  template <class Register>
  CORVANE_INLINE void put(const Register& r, unsigned number) const {
    static_assert(sizeof(r) == 64);
    char* to = reinterpret_cast<char*>(at) + 64 * number;
    if (past_caches) {
      sycl::store_past_caches(r, to);
    } else {
      std::memcpy(to, &r, sizeof(r));
    }
  }
};

// 32 neighbouring values, number h of a unit, converted to Out.
template <class Out, class A>
CORVANE_INLINE void store_pair(const simd<A, 16>& first, const simd<A, 16>& second, const destination<Out>& to,
                               unsigned h) {
  if constexpr (std::is_same_v<Out, Half>) {
    to.put(sycl::to_half_bits(first.r[0], second.r[0]), h);
  } else if constexpr (std::is_same_v<Out, BFloat16>) {
    to.put(sycl::to_bfloat16_bits(first.r[0], second.r[0]), h);
  } else {
    const auto values = [](const simd<A, 16>& x) {
      if constexpr (std::is_same_v<Out, A>) {
        return x;
      } else {
        return simd<Out, 16>::exact(x.r[0]);
      }
    };
    const simd<Out, 16> both[2] = {values(first), values(second)};
    constexpr unsigned regs = simd<Out, 16>::regs;
    for (unsigned i = 0; i < 2 * regs; ++i) to.put(both[i / regs].r[i % regs], 2 * regs * h + i);
  }
}

// The values of elements 32 h to 32 h + 31 as bits of Out, value n in word n.
template <class Reader, class A, class Out, class Scales>
CORVANE_INLINE sycl::u16x16 value_bits(const typename Reader::planes& weight, uint32_t unit, const Scales& scales,
                                       unsigned h) {
  const simd<A, 16> codes = Reader::template value_codes<A>();
  const auto values = [&] {
    if constexpr (scales_by_value<Reader>) {
      return scaled<Out>(codes, Reader::template value_scales<A>(weight, unit),
                         Reader::template value_offsets<A>(weight, unit));
    } else if constexpr (Reader::has_offset) {
      return scaled<Out>(codes, scales.scale(2 * h), scales.offset(2 * h));
    } else {
      return scaled<Out>(codes, scales.scale(2 * h));
    }
  }();
  return std::is_same_v<Out, Half> ? sycl::float_to_half_bits(values.r[0]) : sycl::float_to_bfloat16_bits(values.r[0]);
}

template <class Reader, class A, class Out, class Scales>
CORVANE_INLINE void expand_unit(const typename Reader::planes& weight, uint32_t unit, const Scales& scales,
                                const destination<Out>& out) {
  const typename Reader::raw codes = Reader::fetch(weight, unit);
  // All values before the first store, which might, for all the compiler knows, change the codes.
  if constexpr (few_values<Reader> && sizeof(Out) == 2 && sycl::looks_up_words) {
    // To 16 bits: the values are worked out once and looked up, 32 elements at a time.
    constexpr bool own_values = Reader::shared_scale == 32;  // of each half
    const sycl::u16x16 first = value_bits<Reader, A, Out>(weight, unit, scales, 0);
    const sycl::u16x16 second = own_values ? value_bits<Reader, A, Out>(weight, unit, scales, 1) : first;
    const auto low = sycl::lookup16(first, Reader::value_index(codes, 0));
    const auto high = sycl::lookup16(second, Reader::value_index(codes, 1));
    out.put(low, 0);
    out.put(high, 1);
  } else if constexpr (plain_halves<Reader> && std::is_same_v<Out, Half> && sycl::looks_up_words) {
    const auto low = Reader::halves(codes, 0), high = Reader::halves(codes, 1);
    out.put(low, 0);
    out.put(high, 1);
  } else {
    const auto value = [&](unsigned v) { return expanded<Reader, A, Out>(scales, codes, v); };
    const auto a = value(0), b = value(1), c = value(2), d = value(3);
    store_pair(a, b, out, 0);
    store_pair(c, d, out, 1);
  }
}

// A super-block: its scales as one register, from where they are picked up one by one.
template <class Reader, class A, class Out>
CORVANE_INLINE void expand_block(const typename Reader::planes& weight, uint32_t block, const destination<Out>& out) {
  constexpr uint32_t unit_runs = 4;
  const sycl::f32x16 scale = Reader::template chunk_scale<A>(weight, block).r[0];
  alignas(64) float scales[16], offsets[16];
  std::memcpy(scales, &scale, sizeof(scales));
  if constexpr (Reader::has_offset) {
    const sycl::f32x16 offset = Reader::template chunk_offset<A>(weight, block).r[0];
    std::memcpy(offsets, &offset, sizeof(offsets));
  }
  sycl::unroll<super_block_units>([&](auto u) {
    const run_scales<A> of_unit{scales + unit_runs * u, offsets + unit_runs * u};
    expand_unit<Reader, A>(weight, super_block_units * block + u, of_unit, out + unit_elements * u);
  });
}

}  // namespace detail

// Units `unit` to `unit` + `units` - 1 of a weight, into 64 * units values at `output`: codes and scales are converted
// to A, each operation is one of A, the result is converted to Out. Of super-block formats only whole blocks.
//
// Measured and dropped: prefetching codes or output, expanding into the first-level cache and copying.
template <class Reader,
          class A,    // the arithmetic: Half, float, double, BFloat16
          class Out>  // the output: A itself; any type where A is float; float where A is Half
void expand_units(const packed_weight& weight, uint32_t unit, uint32_t units, Out* output, bool past_caches) {
  const typename Reader::planes planes = Reader::locate(weight.bytes, weight.state_size, weight.output_size);
  const uint32_t end = unit + units;
  detail::destination<Out> out{output, past_caches};
  if constexpr (scales_by_block<Reader>) {
    using detail::super_block_units;
    for (; unit < end; unit += super_block_units, out = out + detail::super_block_elements) {
      detail::expand_block<Reader, A>(planes, unit / super_block_units, out);
    }
  } else {
    for (; unit < end; ++unit, out = out + unit_elements) {
      detail::expand_unit<Reader, A>(planes, unit, detail::unit_scales<Reader, A>{planes, unit}, out);
    }
  }
}

template <int32_t Id, class Out>
unit_expander<Out> general_expander() {
  if constexpr (support[Id].general.cut != expansion_cut::none) {
    using arithmetic = std::conditional_t<support[Id].general.in_float, float, Out>;
    return &expand_units<reader_of<Id>, arithmetic, Out>;
  } else {
    return nullptr;
  }
}

template <int32_t Id, class Out>
unit_expander<Out> explicit_simd_expander() {
  if constexpr (support[Id].explicit_simd.kernel != nullptr && has_explicit_simd<Out>) {
    using arithmetic = std::conditional_t<support[Id].explicit_simd.rules.in_float, float, Half>;
    return &expand_units<reader_of<Id>, arithmetic, Out>;
  } else {
    return nullptr;
  }
}

}  // namespace corvane
