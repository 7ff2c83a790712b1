// Vector values: simd<T, N> holds N lanes of T, and every operation rounds as T does.
//
// T is float, double, Half or BFloat16. The two 16-bit types are held widened to float, each lane always a value of T:
// an operation computes in float and rounds back. A fused multiply-add rounds once in Half and, as two operations of
// the framework's BFloat16, twice in BFloat16.
#pragma once

#include <type_traits>

#include "platform/sycl/rounding.hpp"

namespace sycl {

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

// What a lane is held as.
template <class T>
using lane_of = std::conditional_t<std::is_same_v<T, double>, double, float>;

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
      for (unsigned i = 0; i < regs; ++i) v.r[i] = as_float(widen_u16(load_bytes<u16x16>(from + 16 * i)) << 16);
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

  // Values of T that are held as lanes already.
  static CORVANE_INLINE simd load_lanes(const lane_of<T>* from) {
    simd v;
    for (unsigned i = 0; i < regs; ++i) v.r[i] = load_bytes<reg>(from + reg_lanes * i);
    return v;
  }
  CORVANE_INLINE void store_lanes(lane_of<T>* to) const {
    for (unsigned i = 0; i < regs; ++i) std::memcpy(to + reg_lanes * i, &r[i], sizeof(reg));
  }
  static CORVANE_INLINE simd broadcast_lane(lane_of<T> x) {
    simd v;
    for (unsigned i = 0; i < regs; ++i) v.r[i] = x - reg{};
    return v;
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

  // The lanes as float; only of double are any rounded.
  CORVANE_INLINE f32x16 to_float() const {
    static_assert(N == 16);
    if constexpr (std::is_same_v<T, double>) {
      return narrow_to_float(r[0], r[1]);
    } else {
      return r[0];
    }
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
  return shuffle(x, from);
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

namespace detail {

// Two registers of runs of 2 * Stride lanes, each run a tree after some steps, become one of runs of Stride lanes: the
// runs of a, then those of b, all one step further.
template <class T, unsigned Stride, class Reg>
CORVANE_INLINE Reg tree_step(Reg a, Reg b) {
  using index = std::conditional_t<std::is_same_v<Reg, f64x8>, i64x8, i32x16>;
  constexpr int lanes = lane_type<T>::lanes, stride = Stride;
  index low;
  for (int t = 0; t < lanes; ++t) low[t] = t / stride * 2 * stride + t % stride;
  return rounded<T>(shuffle(a, b, low) + shuffle(a, b, low + stride));
}

}  // namespace detail

// Lane r: the scratch tree of rows[r]. Sixteen trees together take a step of one tree for each, not four, and none
// waits for another.
template <class T>
CORVANE_INLINE simd<T, 16> sum_trees(const simd<T, 16> (&rows)[16]) {
  using reg = typename simd<T, 16>::reg;
  reg r[16];
  const auto halve = [&](auto stride, unsigned count) {
    for (unsigned i = 0; i < count / 2; ++i) r[i] = detail::tree_step<T, stride>(r[2 * i], r[2 * i + 1]);
  };
  simd<T, 16> sums;
  if constexpr (std::is_same_v<T, double>) {
    for (unsigned i = 0; i < 16; ++i) r[i] = rows[i].r[0] + rows[i].r[1];
    halve(std::integral_constant<unsigned, 4>{}, 16);
    halve(std::integral_constant<unsigned, 2>{}, 8);
    halve(std::integral_constant<unsigned, 1>{}, 4);
    sums.r[1] = r[1];
  } else {
    for (unsigned i = 0; i < 16; ++i) r[i] = rows[i].r[0];
    halve(std::integral_constant<unsigned, 8>{}, 16);
    halve(std::integral_constant<unsigned, 4>{}, 8);
    halve(std::integral_constant<unsigned, 2>{}, 4);
    halve(std::integral_constant<unsigned, 1>{}, 2);
  }
  sums.r[0] = r[0];
  return sums;
}

}  // namespace sycl
