// What the formats with super-blocks of 256 elements share: units within a block, and the product of a block's Half
// scale with the small integer scales of its sub-blocks.
//
// The readers of q4_k, q5_k, q6_k and fp6_k have a second view of a block beside the units of reader.hpp: its 16 chunks
// of 16 elements side by side, one to a lane. A chunk lies under one scale.
//
//   chunk_element(c, j)               number of element j of chunk c in the block
//   chunks, fetch_chunks(planes, b)   the codes of block b, as far as they are best unpacked together
//   chunk_code<T, j>(chunks)          code of element j of each chunk, unscaled, exact in T
//   chunk_scale<T>(planes, b)         the scale of each chunk
//   chunk_offset<T>(planes, b)        its offset, where there is one
//   prefetch_block(planes, b)         hint that the codes of block b will be read
#pragma once

#include <cstddef>

#include "formats/reader.hpp"

namespace corvane {
namespace detail {

constexpr unsigned block_elements = 256;
constexpr unsigned block_units = 4;  // units of 64 elements in a super-block

CORVANE_INLINE uint64_t block_of(uint32_t unit) { return unit / block_units; }
CORVANE_INLINE unsigned quarter_of(uint32_t unit) { return unit % block_units; }

// Four bytes as lanes 0 to 3, and again as lanes 4 to 7 and so on.
CORVANE_INLINE sycl::i32x16 four_unsigned(const uint8_t* at) {
  static constexpr sycl::i32x16 place = {0, 8, 16, 24, 0, 8, 16, 24, 0, 8, 16, 24, 0, 8, 16, 24};
  return (sycl::splat(sycl::load_integer<int32_t>(at)) >> place) & 0xFF;
}
CORVANE_INLINE sycl::i32x16 four_signed(const uint8_t* at) {
  static constexpr sycl::i32x16 place = {24, 16, 8, 0, 24, 16, 8, 0, 24, 16, 8, 0, 24, 16, 8, 0};
  return (sycl::splat(sycl::load_integer<int32_t>(at)) << place) >> 24;
}

// Two neighbouring Halfs, d and dmin, as lanes d, dmin, d, dmin and so on; the second with its sign turned.
CORVANE_INLINE sycl::f32x16 scale_and_minus_minimum(const uint8_t* at) {
  constexpr auto minus = static_cast<int32_t>(0x80000000);
  static constexpr sycl::i32x16 sign = {0, minus, 0, minus, 0, minus, 0, minus, 0, minus, 0, minus, 0, minus, 0, minus};
  return sycl::as_float(sycl::as_int(sycl::splat_two_halfs(at)) ^ sign);
}

// T(d) * T(sub) lane by lane, as floats that T holds exactly. A Half times eight bits is exact in float, hence in
// double.
template <class T>
CORVANE_INLINE sycl::f32x16 product_in(sycl::f32x16 d, sycl::f32x16 sub) {
  if constexpr (std::is_same_v<T, double>) {
    return d * sub;
  } else {
    return (simd<T, 16>::from_float(d) * simd<T, 16>::exact(sub)).r[0];
  }
}

// One lane of a register of floats that T holds exactly, in all lanes.
template <class T>
CORVANE_INLINE simd<T, 16> splat_lane(sycl::f32x16 values, int lane) {
  return simd<T, 16>::exact(sycl::lookup16(values, sycl::splat(lane)));
}

}  // namespace detail
}  // namespace corvane
