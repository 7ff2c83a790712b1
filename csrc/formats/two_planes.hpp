// What the formats of two planes share: the codes of all blocks of 64 elements, then one scale for each.
#pragma once

#include "formats/reader.hpp"

namespace corvane {

template <int32_t Id,
          class Codes,  // struct of a block's codes
          class Scale>  // Half or float
struct two_planes {
  static constexpr int32_t id = Id;
  static constexpr unsigned shared_scale = 64;
  static constexpr bool has_offset = false;
  static constexpr unsigned code_bytes = sizeof(Codes);
  using scale_type = Scale;
  static_assert(sizeof(Codes) + sizeof(Scale) == registry[id].block_bytes, "planes make up the block");

  struct planes {
    const uint8_t* codes;
    const uint8_t* scales;
  };

  static planes locate(const uint8_t* weight, uint64_t state_size, uint64_t output_size) {
    return {weight, weight + plane_offset(state_size, output_size, 64, sizeof(Codes))};
  }

  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch(const planes& p, uint32_t unit) {
    sycl::prefetch<To>(fetch(p, unit));
  }
  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch_scales(const planes& p, uint32_t unit) {
    sycl::prefetch<To>(p.scales + uint64_t{unit} * sizeof(Scale));
  }

  using raw = const uint8_t*;
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) { return p.codes + uint64_t{unit} * sizeof(Codes); }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned) {
    const uint8_t* at = p.scales + uint64_t{unit} * sizeof(Scale);
    if constexpr (std::is_same_v<Scale, Half>) {
      return splat_half_as<T>(at);
    } else {
      return splat_float_as<T>(at);
    }
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> scales(const planes& p, uint32_t unit, unsigned count) {
    const uint8_t* at = p.scales + uint64_t{unit} * sizeof(Scale);
    if constexpr (std::is_same_v<Scale, Half>) {
      return half_lanes<T>(at, count);
    } else {
      return float_lanes<T>(at, count);
    }
  }
};

}  // namespace corvane
