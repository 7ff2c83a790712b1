// q8_0: signed 8-bit codes, one float scale for 64 elements. Planar.
//
//   codes   64 bytes a block   byte j is element j, two's complement
//   scales  one float a block  y = d * code
#pragma once

#include "formats/two_planes.hpp"

namespace corvane {

struct block_fp8_qs {  // the codes of q8_0, fp8_e4m3 and fp8_e5m2
  uint8_t qs[64];
};

struct q8_0_reader : two_planes<qtype_q8_0, block_fp8_qs, float> {
  static constexpr unsigned largest_code = 128;

  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw qs, unsigned v) {
    return simd<T, 16>::exact(sycl::to_float(sycl::widen_s8(qs + 16 * v)));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_in_words(sycl::i32x16 words, unsigned i) {
    return simd<T, 16>::exact(sycl::to_float((words << (24 - 8 * i)) >> 24));
  }
};

template <>
struct reader_for<qtype_q8_0> {
  using type = q8_0_reader;
};

}  // namespace corvane
