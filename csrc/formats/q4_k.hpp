// q4_k: 4-bit codes, a scale and a minimum of eight bits for every 32 elements, over two Half scales for 256. Planar.
//
//   codes              128 bytes a block, block_q4_K_qs   qs[16 i + j]: | element 32 i + j + 16 | element 32 i + j |
//                                                                       7                  4   3             0
//   sub-block scales   16 bytes a block                   sc[0] m[0] sc[1] m[1] ... sc[7] m[7]
//   super-block scales two Halfs a block                  d dmin
//
//   y = d * sc[i] * code - dmin * m[i], sub-block i = element / 32
#pragma once

#include "formats/k_block.hpp"

namespace corvane {

struct block_q4_K_qs {
  uint8_t qs[128];
};
struct block_q4_K_scales {
  struct {
    uint8_t sc, m;
  } sub[8];
};
struct block_q4_K_d {
  Half d, dmin;
};

struct q4_k_reader {
  static constexpr int32_t id = qtype_q4_k;
  static constexpr unsigned largest_code = 15;
  static constexpr unsigned shared_scale = 32;
  static constexpr bool has_offset = true;
  static_assert(sizeof(block_q4_K_qs) + sizeof(block_q4_K_scales) + sizeof(block_q4_K_d) == registry[id].block_bytes,
                "planes make up the block");

  struct planes {
    const uint8_t* codes;
    const uint8_t* sub_scales;
    const uint8_t* scales;
  };

  static planes locate(const uint8_t* weight, uint64_t state_size, uint64_t output_size) {
    return {weight, weight + plane_offset(state_size, output_size, 256, sizeof(block_q4_K_qs)),
            weight + plane_offset(state_size, output_size, 256, sizeof(block_q4_K_qs) + sizeof(block_q4_K_scales))};
  }

  using raw = const uint8_t*;  // two sub-blocks of 16 bytes
  static CORVANE_INLINE raw fetch(const planes& p, uint32_t unit) {
    return p.codes + uint64_t{unit} * (sizeof(block_q4_K_qs) / detail::super_block_units);
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw qs, unsigned v) {
    const sycl::i32x16 bytes = sycl::widen_u8(qs + 16 * (v / 2));
    return simd<T, 16>::exact(v % 2 == 0 ? detail::low_codes(bytes) : detail::high_codes(bytes));
  }

  static CORVANE_INLINE sycl::u16x32 value_index(raw qs, unsigned h) {
    const sycl::u16x16 codes = sycl::widen_u8_to_u16(qs + 16 * h);
    return sycl::join(codes, codes >> 4);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> value_codes() {
    return simd<T, 16>::exact(sycl::f32x16{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15});
  }

  template <class T>
  static CORVANE_INLINE simd<T, 16> scale(const planes& p, uint32_t unit, unsigned v) {
    return detail::splat_lane<T>(factors<T>(p, unit), static_cast<int>(v & 2));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> offset(const planes& p, uint32_t unit, unsigned v) {
    return detail::splat_lane<T>(factors<T>(p, unit), static_cast<int>(v & 2) + 1);
  }

  // A chunk is eight neighbouring bytes: elements 8 (c % 2) to 8 (c % 2) + 7 of a sub-block, and those 16 further on. A
  // pair is two nibbles two bytes apart.
  static constexpr unsigned chunk_element(unsigned c, unsigned j) {
    const unsigned n = j / 2, byte = 4 * (n / 4) + n % 4 / 2 + 2 * (j % 2);
    return 32 * (c / 2) + 8 * (c % 2) + byte + 16 * (n % 2);
  }
  struct chunks {
    sycl::i32x16 bytes[2];  // bytes 0 to 3 of each chunk, bytes 4 to 7
  };
  static CORVANE_INLINE chunks fetch_chunks(const planes& p, uint32_t block) {
    const uint8_t* qs = p.codes + uint64_t{block} * sizeof(block_q4_K_qs);
    const auto a = sycl::load_bytes<sycl::i32x16>(qs), b = sycl::load_bytes<sycl::i32x16>(qs + 64);
    return {{sycl::even_lanes(a, b), sycl::odd_lanes(a, b)}};
  }
  template <class T, unsigned N>
  static CORVANE_INLINE detail::value_pair<T> chunk_pair(const chunks& c) {
    static constexpr auto values = detail::make_values<32>([](unsigned code) { return code % 16; });
    return detail::values_at<T>(c.bytes[N / 4], 4 * (N % 4), values);
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_scale(const planes& p, uint32_t block) {
    return simd<T, 16>::exact(sycl::lookup16(block_factors<T>(p, block), even_twice));
  }
  template <class T>
  static CORVANE_INLINE simd<T, 16> chunk_offset(const planes& p, uint32_t block) {
    return simd<T, 16>::exact(sycl::lookup16(block_factors<T>(p, block), even_twice + 1));
  }
  template <sycl::cache_level To>
  static CORVANE_INLINE void prefetch_block(const planes& p, uint32_t block) {
    const uint8_t* qs = p.codes + uint64_t{block} * sizeof(block_q4_K_qs);
    sycl::prefetch<To>(qs);
    sycl::prefetch<To>(qs + 64);
  }

 private:
  static constexpr sycl::i32x16 even_twice = {0, 0, 2, 2, 4, 4, 6, 6, 8, 8, 10, 10, 12, 12, 14, 14};

  // Lanes d * sc, -dmin * m of the unit's first sub-block, then of its second.
  template <class T>
  static CORVANE_INLINE sycl::f32x16 factors(const planes& p, uint32_t unit) {
    const uint64_t block = detail::block_of(unit);
    const uint8_t* sub = p.sub_scales + block * sizeof(block_q4_K_scales) + 4 * detail::quarter_of(unit);
    return products<T>(p, block, detail::four_unsigned(sub));
  }
  // The same of all eight sub-blocks.
  template <class T>
  static CORVANE_INLINE sycl::f32x16 block_factors(const planes& p, uint64_t block) {
    return products<T>(p, block, sycl::widen_u8(p.sub_scales + block * sizeof(block_q4_K_scales)));
  }
  template <class T>
  static CORVANE_INLINE sycl::f32x16 products(const planes& p, uint64_t block, sycl::i32x16 sub) {
    const sycl::f32x16 d = detail::scale_and_minus_minimum(p.scales + block * sizeof(block_q4_K_d));
    return detail::product_in<T>(d, sycl::to_float(sub));
  }
};

template <>
struct reader_for<qtype_q4_k> {
  using type = q4_k_reader;
};

}  // namespace corvane
