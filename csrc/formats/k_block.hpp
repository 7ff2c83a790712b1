// What the formats with super-blocks of 256 elements share: units within a block, and the product of a block's Half
// scale with the small integer scales of its sub-blocks.
#pragma once

#include <bit>
#include <cstddef>

#include "formats/reader.hpp"

namespace corvane {
namespace detail {

constexpr unsigned super_block_elements = 256;
constexpr unsigned super_block_units = 4;  // units of 64 elements in a super-block

CORVANE_INLINE uint64_t block_of(uint32_t unit) { return unit / super_block_units; }
CORVANE_INLINE unsigned quarter_of(uint32_t unit) { return unit % super_block_units; }

// Four bytes as lanes 0 to 3, and again as lanes 4 to 7 and so on.
CORVANE_INLINE sycl::i32x16 four_unsigned(const uint8_t* at) {
  static constexpr sycl::i32x16 place = {0, 8, 16, 24, 0, 8, 16, 24, 0, 8, 16, 24, 0, 8, 16, 24};
  return (sycl::splat(sycl::load_integer<int32_t>(at)) >> place) & 0xFF;
}
CORVANE_INLINE sycl::i32x16 four_signed(const uint8_t* at) {
  static constexpr sycl::i32x16 place = {24, 16, 8, 0, 24, 16, 8, 0, 24, 16, 8, 0, 24, 16, 8, 0};
  return (sycl::splat(sycl::load_integer<int32_t>(at)) << place) >> 24;
}

// The low or the high nibbles of bytes, with what stands above them in `higher`, as numbers. As float bits over 2^23
// (high nibbles: 2^19) a code is the last bits of the number; subtracting the power leaves it.
CORVANE_INLINE sycl::f32x16 low_codes(sycl::i32x16 bytes, sycl::i32x16 higher = sycl::i32x16{}) {
  return sycl::as_float(((bytes & 0x0F) | 0x4B000000) | higher) - 8388608.0f;
}
CORVANE_INLINE sycl::f32x16 high_codes(sycl::i32x16 bytes, sycl::i32x16 higher = sycl::i32x16{}) {
  return sycl::as_float(((bytes & 0xF0) | 0x49000000) | higher) - 524288.0f;
}

// Two neighbouring Halfs, d and dmin, as lanes d, dmin, d, dmin and so on; the second with its sign turned.
CORVANE_INLINE sycl::f32x16 scale_and_minus_minimum(const uint8_t* at) {
  constexpr auto minus = static_cast<int32_t>(0x80000000);
  static constexpr sycl::i32x16 sign = {0, minus, 0, minus, 0, minus, 0, minus, 0, minus, 0, minus, 0, minus, 0, minus};
  return sycl::as_float(sycl::as_int(sycl::splat_two_halfs(at)) ^ sign);
}

// A Half in memory in lanes 0 to 7, another in lanes 8 to 15.
CORVANE_INLINE sycl::f32x16 two_halfs(const uint8_t* first, const uint8_t* second) {
  using u16x8 = uint16_t __attribute__((vector_size(16)));
  const u16x8 a = u16x8{} + sycl::load_integer<uint16_t>(first), b = u16x8{} + sycl::load_integer<uint16_t>(second);
  return sycl::half_bits_to_float(__builtin_shufflevector(a, b, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
}
// Of d and dmin in the same way, the second with its sign turned.
CORVANE_INLINE sycl::f32x16 scale_then_minus_minimum(const uint8_t* at) {
  constexpr auto minus = static_cast<int32_t>(0x80000000);
  static constexpr sycl::i32x16 sign = {0, 0, 0, 0, 0, 0, 0, 0, minus, minus, minus, minus, minus, minus, minus, minus};
  return sycl::as_float(sycl::as_int(two_halfs(at, at + sizeof(Half))) ^ sign);
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

// The codes of q6_k and fp6_k, of a block's 16 chunks of 16 elements: lane c of entry n has elements 4 n to 4 n + 3 of
// chunk c, a byte each, the two high bits in bits 5 and 4 and rubbish above them.
struct six_bit_codes {
  sycl::i32x16 of_four[4];
};
// From two words of low bits and one of high bits a chunk; of `chunks` chunks, the others having codes 0.
CORVANE_INLINE six_bit_codes join_six_bits(const uint8_t* low_plane, const uint8_t* high_plane, unsigned chunks = 16) {
  const auto a = sycl::load_some<sycl::i32x16>(low_plane, 8 * chunks);
  const auto b = sycl::load_some<sycl::i32x16>(low_plane + 64, chunks > 8 ? 8 * chunks - 64 : 0);
  const auto high = sycl::load_some<sycl::i32x16>(high_plane, 4 * chunks);
  const sycl::i32x16 first = sycl::even_lanes(a, b), second = sycl::odd_lanes(a, b);
  const auto join = [](sycl::i32x16 low4, sycl::i32x16 high2) { return sycl::select_bits(0x0F0F0F0F, low4, high2); };
  return {{join(first >> 4, high >> 2), join(first, high), join(second >> 4, high << 2), join(second, high << 4)}};
}

// Values of codes of up to six bits as BFloat16, which holds all that these formats have. With sixteen bits an entry
// one permute finds two elements of a lane. Measured and dropped: a permute of floats for each; shift, mask and
// subtraction.
template <unsigned Codes>  // 32 or 64
struct alignas(64) value_table {
  uint16_t bits[Codes];
};
template <unsigned Codes, class Value>
constexpr value_table<Codes> make_values(const Value& value) {
  value_table<Codes> t{};
  for (unsigned code = 0; code < Codes; ++code) {
    t.bits[code] = static_cast<uint16_t>(std::bit_cast<uint32_t>(static_cast<float>(value(code))) >> 16);
  }
  return t;
}

// Values of the five or six bits from bit `bit` of each lane on, below 16, and of those from bit + 16 on.
template <class T>
struct value_pair {
  simd<T, 16> first, second;
};
template <class T, unsigned Codes>
CORVANE_INLINE value_pair<T> values_at(sycl::i32x16 codes, unsigned bit, const value_table<Codes>& values) {
  static_assert(Codes == 32 || Codes == 64);
  const auto index = (sycl::u16x32)codes >> static_cast<uint16_t>(bit);
  const auto table = sycl::load_bytes<sycl::u16x32>(values.bits);
  sycl::i32x16 two;
  if constexpr (Codes == 32) {
    two = (sycl::i32x16)sycl::lookup32(table, index);
  } else {
    two = (sycl::i32x16)sycl::lookup64(table, sycl::load_bytes<sycl::u16x32>(values.bits + 32), index);
  }
  return {simd<T, 16>::exact(sycl::as_float(two << 16)),
          simd<T, 16>::exact(sycl::as_float(two & static_cast<int32_t>(0xFFFF0000)))};
}

}  // namespace detail
}  // namespace corvane
