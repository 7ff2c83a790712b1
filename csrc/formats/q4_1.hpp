// q4_1: 4-bit codes, scale and offset as Half for 64 elements. Planar.
//
//   codes        32 bytes a block     nibbles as in q4_0
//   scale pairs  two Half a block     | d | m |    y = d * code + m
#pragma once

#include "formats/nibbles.hpp"

namespace corvane {

inline constexpr std::array<float, 16> q4_1_values = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

struct q4_1_reader : nibble_codes<q4_1_values, false> {
  static constexpr int32_t id = qtype_q4_1;
  static constexpr unsigned shared_scale = 64;
  static constexpr bool has_offset = true;

  static constexpr unsigned pair_bytes = 2 * sizeof(Half);
  static_assert(sizeof(block_q4_0_qs) + pair_bytes == registry[id].block_bytes, "planes make up the block");

  struct planes {
    const uint8_t* codes;
    const uint8_t* pairs;
  };

  static planes locate(const uint8_t* weight, uint64_t state_size, uint64_t output_size) {
    return {weight, weight + plane_offset(state_size, output_size, 64, sizeof(block_q4_0_qs))};
  }

  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch(const planes& p, uint32_t unit) {
    sycl::prefetch<To>(fetch(p, unit));
  }
  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch_scales(const planes& p, uint32_t unit) {
    sycl::prefetch<To>(p.pairs + uint64_t{unit} * pair_bytes);
  }

  using raw = const uint8_t*;
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return p.codes + uint64_t{unit} * sizeof(block_q4_0_qs);
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned) {
    return splat_half_as<T>(p.pairs + uint64_t{unit} * pair_bytes);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> offset(const planes& p, uint32_t unit, unsigned) {
    return splat_half_as<T>(p.pairs + uint64_t{unit} * pair_bytes + sizeof(Half));
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scales(const planes& p, uint32_t unit, unsigned count) {
    return half_lanes<T>(sycl::narrow_u16(pairs_of(p, unit, count)));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> offsets(const planes& p, uint32_t unit, unsigned count) {
    return half_lanes<T>(sycl::narrow_u16(pairs_of(p, unit, count) >> 16));
  }

 private:
  // One pair to a lane, d in its low half.
  static CORVANE_INLINE sycl::i32x16 pairs_of(const planes& p, uint32_t unit, unsigned count) {
    return sycl::load_some<sycl::i32x16>(p.pairs + uint64_t{unit} * pair_bytes, count * pair_bytes);
  }
};

template <>
struct reader_for<qtype_q4_1> {
  using type = q4_1_reader;
};

}  // namespace corvane
