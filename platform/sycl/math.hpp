// Elementary functions on vector values, as a device's math library has them.
#pragma once

#include "platform/sycl/simd.hpp"

namespace sycl {

// The floating-point maximum that ignores a not-a-number operand.
CORVANE_INLINE f32x16 fmax(f32x16 a, f32x16 b) {
  const f32x16 larger = a > b ? a : b;  // b where either is not a number
  return b != b ? a : larger;
}

// e to the power x, within 1 unit in the last place (subnormal results too): 0 for -inf, +inf for +inf and for what
// exceeds the largest float, and a not-a-number stays one.
CORVANE_INLINE f32x16 exp(f32x16 x) {
  // Beyond these bounds the result no longer changes. The comparisons are written so that a not-a-number passes.
  const f32x16 lowest = splat(-104.0f), highest = splat(89.0f);
  x = x < lowest ? lowest : x;
  x = x > highest ? highest : x;

  // x = n ln 2 + r, |r| <= ln 2 / 2. Adding 1.5 * 2^23 leaves the nearest integer in the low bits of the sum. ln 2 is
  // split so that n times its upper part, which has 9 bits, is exact.
  const f32x16 shift = splat(0x1.8p23f);
  const f32x16 shifted = fused_multiply_add(x, splat(0x1.715476p0f), shift);
  const f32x16 n = shifted - shift;
  f32x16 r = fused_multiply_add(n, splat(-0x1.63p-1f), x);
  r = fused_multiply_add(n, splat(0x1.bd0106p-13f), r);

  // e^r = 1 + r + r^2 p(r), p the minimax polynomial of degree 4 for the relative error of the whole, 3.1e-9.
  f32x16 p = splat(0x1.6a23dp-10f);
  p = fused_multiply_add(p, r, splat(0x1.123a2p-7f));
  p = fused_multiply_add(p, r, splat(0x1.5558f2p-5f));
  p = fused_multiply_add(p, r, splat(0x1.555492p-3f));
  p = fused_multiply_add(p, r, splat(0x1.fffffcp-2f));
  const f32x16 e = fused_multiply_add(p, r * r, r) + 1.0f;

#ifdef CORVANE_AVX512
  return (f32x16)_mm512_scalef_ps((__m512)e, (__m512)n);
#else
  // Times 2^n in two factors, since neither 2^-150 nor 2^128 is a float; the first product is exact.
  const i32x16 whole = as_int(shifted) - as_int(shift);
  const i32x16 half = whole >> 1;
  return e * as_float((half + 127) << 23) * as_float((whole - half + 127) << 23);
#endif
}

}  // namespace sycl
