// fp6_k: the codes of fp6, a signed byte scale for every 16 elements, over a Half scale for 256. Planar.
//
//   4-bit plane        128 bytes a block: a block_base_fp6_k_ql, two little-endian words, for each sub-block of 16
//   2-bit plane        64 bytes a block: a block_base_fp6_k_qh, one word, for each sub-block
//   sub-block scales   16 signed bytes a block
//   super-block scale  one Half a block
//
// Codes stand in the words as in fp6, byte order 1, 3, 0, 2 included.   y = value * (d * sc), the factor taken in Half
#pragma once

#include "formats/fp6.hpp"
#include "formats/k_block.hpp"

namespace corvane {

struct block_base_fp6_k_ql {  // of a sub-block of 16 elements
  uint32_t words[2];
};
struct block_base_fp6_k_qh {
  uint32_t words[1];
};
struct block_fp6_k_scales {
  int8_t sc[16];
};

struct fp6_k_reader {
  static constexpr int32_t id = qtype_fp6_k;
  static constexpr unsigned shared_scale = 16;
  static constexpr bool has_offset = false;
  static constexpr uint32_t low_bytes = 16 * sizeof(block_base_fp6_k_ql), high_bytes = 16 * sizeof(block_base_fp6_k_qh);
  static_assert(low_bytes + high_bytes + sizeof(block_fp6_k_scales) + sizeof(Half) == registry[id].block_bytes,
                "planes make up the block");

  struct planes {
    const uint8_t* low;
    const uint8_t* high;
    const uint8_t* sub_scales;
    const uint8_t* scales;
  };

  static planes locate(const uint8_t* weight, uint64_t state_size, uint64_t output_size) {
    const auto plane = [&](uint32_t at) { return weight + plane_offset(state_size, output_size, 256, at); };
    return {weight, plane(low_bytes), plane(low_bytes + high_bytes),
            plane(low_bytes + high_bytes + sizeof(block_fp6_k_scales))};
  }

  using raw = fp6_codes::raw;
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return {p.low + uint64_t{unit} * (low_bytes / detail::super_block_units),
            p.high + uint64_t{unit} * (high_bytes / detail::super_block_units)};
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw codes, unsigned v) {
    return fp6_codes::decode<T>(codes, v);
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned v) {
    const uint64_t block = detail::block_of(unit);
    const uint8_t* sub = p.sub_scales + block * sizeof(block_fp6_k_scales) + 4 * detail::quarter_of(unit);
    const sycl::f32x16 d = sycl::splat_half(p.scales + block * sizeof(Half));
    const sycl::f32x16 factors = detail::product_in<Half>(d, sycl::to_float(detail::four_signed(sub)));
    return detail::splat_lane<T>(half_values_as<T>(factors).to_float(), static_cast<int>(v));
  }

  // A chunk is a sub-block.
  static constexpr unsigned chunk_element(unsigned c, unsigned j) { return 16 * c + fp6_codes::chunk_element(j); }
  struct chunks {
    detail::six_bit_codes codes;
  };
  static CORVANE_INLINE chunks fetch_chunks(const planes& p, uint32_t block) {
    return {detail::join_six_bits(p.low + uint64_t{block} * low_bytes, p.high + uint64_t{block} * high_bytes)};
  }
  template <class T, unsigned N>
  static CORVANE_INLINE detail::value_pair<T> chunk_pair(const chunks& c) {
    return fp6_codes::chunk_pair<T>(c.codes, N);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_scale(const planes& p, uint32_t block) {
    const sycl::f32x16 sc = sycl::to_float(sycl::widen_s8(p.sub_scales + uint64_t{block} * sizeof(block_fp6_k_scales)));
    const sycl::f32x16 d = sycl::splat_half(p.scales + uint64_t{block} * sizeof(Half));
    return half_values_as<T>(detail::product_in<Half>(d, sc));
  }
  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch_block(const planes& p, uint32_t block) {
    const uint8_t* low = p.low + uint64_t{block} * low_bytes;
    sycl::prefetch<To>(low);
    sycl::prefetch<To>(low + 64);
    sycl::prefetch<To>(p.high + uint64_t{block} * high_bytes);
  }
};

template <>
struct reader_for<qtype_fp6_k> {
  using type = fp6_k_reader;
};

}  // namespace corvane
