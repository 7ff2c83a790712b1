// Dot products of whole weight blocks with 8-bit activations, 16 lanes at a time. For the one-row kernels, the fused
// projections and the gated MLP.
//
// The activations are laid out anew for the format, once a launch, so that the bytes that meet in an instruction lie
// together. A format's struct has:
//
//   sum_of<T>                   type in which the lanes of a row of output type T are added
//   step                        weight blocks that one call of dots() takes
//   staged, stage(y, n, staged) activations of `step` blocks, of which n exist
//   dots(weight, staged)        16 floats whose sum is the product of `step` blocks with their activations. For iq2_xxs
//                               and iq1_s lane g is the product of group g % 8, 32 elements, of block g / 8.
//   tail(weight, staged)        for a step of two: the same when only the first is left; the other eight lanes are 0
#pragma once

#include <cstring>
#include <memory>

#include "formats/byte_table.hpp"
#include "formats/iq1_s.hpp"
#include "formats/iq2_xxs.hpp"
#include "formats/q2_k.hpp"
#include "formats/q8_1.hpp"
#include "platform/sycl/bytes.hpp"

namespace corvane {

namespace detail {

// Activations of two weight blocks, as scalars in lanes: lane g belongs to group g.
template <class Get>
sycl::f32x16 of_groups(const block_q8_1* y, unsigned blocks, const Get& get) {
  sycl::f32x16 lanes{};
  for (unsigned g = 0; g < 8 * blocks; ++g) lanes[g] = static_cast<float>(get(y[g]));
  return lanes;
}

}  // namespace detail

// A lane is a group of 32 elements, its four bytes the four runs. The magnitudes of two positions of all runs are
// looked up together, in registers: for two positions 256 grid rows are 128 bytes. Measured and dropped: one position
// at a time, 64 bytes; signs on the looked-up values, which makes 128 plus the activation the unsigned factor, 1.05.
struct iq2_xxs_dots {
  template <class T>
  using sum_of = T;
  static constexpr unsigned step = 2;
  static constexpr unsigned block_bytes = sizeof(block_iq2_xxs);

  struct staged {
    sycl::u8x64 codes[8];    // [j]: byte 4 g + il is element 8 il + j of group g
    sycl::f32x16 quarter_d;  // of each group
  };

  static void stage(const block_q8_1* y, unsigned blocks, staged& s) {
    alignas(64) int8_t bytes[8][64] = {};
    for (unsigned g = 0; g < 8 * blocks; ++g) {
      for (unsigned e = 0; e < 32; ++e) bytes[e % 8][4 * g + e / 8] = y[g].qs[e];
    }
    for (unsigned j = 0; j < 8; ++j) s.codes[j] = sycl::load_bytes<sycl::u8x64>(bytes[j]);
    s.quarter_d = detail::of_groups(y, blocks, [](const block_q8_1& b) { return static_cast<float>(b.d) * 0.25f; });
  }

  static CORVANE_INLINE sycl::f32x16 dots(const uint8_t* weight, const staged& s) {
    return dots(weight, weight + block_bytes, s);
  }
  static CORVANE_INLINE sycl::f32x16 tail(const uint8_t* weight, const staged& s) {
    return sycl::select(0x00FF, dots(weight, weight, s), sycl::f32x16{});
  }

 private:
  static CORVANE_INLINE sycl::f32x16 dots(const uint8_t* first, const uint8_t* second, const staged& s) {
    // Seven bits a run, four runs in either half of a 64-bit word.
    static constexpr auto sign_index_from =
        detail::table_of_bytes([](unsigned t) { return 32 * (t / 4 % 2) + 7 * (t % 4); });
    static constexpr auto byte_place = detail::table_of_bytes([](unsigned t) { return 8 * (t % 8); });
    // By two of the bits of an index.
    static constexpr auto lower_magnitude = detail::table_of_bytes([](unsigned t) { return iq2xxs_magnitudes[t % 4]; });
    static constexpr auto upper_magnitude =
        detail::table_of_bytes([](unsigned t) { return iq2xxs_magnitudes[t / 4 % 4]; });
    constexpr unsigned at = offsetof(block_iq2_xxs, qs);
    const auto a = sycl::load_bytes<sycl::i32x16>(first + at), b = sycl::load_bytes<sycl::i32x16>(second + at);
    const auto row = (sycl::u8x64)sycl::even_lanes(a, b);
    const sycl::i32x16 w = sycl::odd_lanes(a, b);

    const sycl::u8x64 sign_index = sycl::multishift_words((sycl::u8x64)w, sign_index_from.value());
    const sycl::u8x64 signs = sycl::lookup128(sycl::load_bytes<sycl::u8x64>(ksigns_iq2xs.data()),
                                              sycl::load_bytes<sycl::u8x64>(ksigns_iq2xs.data() + 64), sign_index);
    // The low seven bits of a row's number find a byte for two rows; the eighth says which.
    const sycl::u8x64 pair_from = (sycl::u8x64)(((sycl::u16x32)row >> 5) & 0x0404) + byte_place.value();
    sycl::i32x16 sumi{};
    sycl::unroll<4>([&](auto p) {
      const uint8_t* table = iq2xxs_pairs[p].data();
      const sycl::u8x64 two_rows =
          sycl::lookup128(sycl::load_bytes<sycl::u8x64>(table), sycl::load_bytes<sycl::u8x64>(table + 64), row);
      const sycl::u8x64 pair = sycl::multishift_words(two_rows, pair_from);
      sumi = sycl::add_products(sumi, sycl::lookup64(lower_magnitude.value(), pair),
                                sycl::negate_where(signs, kmask_iq2xs[2 * p], s.codes[2 * p]));
      sumi = sycl::add_products(sumi, sycl::lookup64(upper_magnitude.value(), pair),
                                sycl::negate_where(signs, kmask_iq2xs[2 * p + 1], s.codes[2 * p + 1]));
    });
    const sycl::f32x16 scale = sycl::to_float((sycl::i32x16)((sycl::u32x16)w >> 28)) + 0.5f;
    return scale * detail::two_halfs(first, second) * s.quarter_d * sycl::to_float(sumi);
  }
};

// The grid, 16 kB, is read one run at a time. The four lanes of a group hold two runs and then the other two; they are
// added at the end. Measured and dropped: gathers, which take 1.5 times as long; numbers of runs made in vectors, which
// become addresses by way of memory; a grid of half the size, two values to a byte.
struct iq1_s_dots {
  template <class>
  using sum_of = float;
  static constexpr unsigned step = 2;
  static constexpr unsigned block_bytes = sizeof(block_iq1_s);

  struct staged {
    sycl::u8x64 codes[4][2];  // [n][h]: byte 16 g + e is element 16 h + e of group 4 n + g
    sycl::f32x16 d, s;        // of each group
  };

  static void stage(const block_q8_1* y, unsigned blocks, staged& s) {
    alignas(64) int8_t bytes[4][2][64] = {};
    for (unsigned g = 0; g < 8 * blocks; ++g) {
      for (unsigned h = 0; h < 2; ++h) std::memcpy(bytes[g / 4][h] + 16 * (g % 4), y[g].qs + 16 * h, 16);
    }
    for (unsigned i = 0; i < 8; ++i) s.codes[i / 2][i % 2] = sycl::load_bytes<sycl::u8x64>(bytes[i / 2][i % 2]);
    s.d = detail::of_groups(y, blocks, [](const block_q8_1& b) { return b.d; });
    s.s = detail::of_groups(y, blocks, [](const block_q8_1& b) { return b.s; });
  }

  static CORVANE_INLINE sycl::f32x16 dots(const uint8_t* weight, const staged& s) {
    return dots(weight, weight + block_bytes, s);
  }
  static CORVANE_INLINE sycl::f32x16 tail(const uint8_t* weight, const staged& s) {
    return sycl::select(0x00FF, dots(weight, weight, s), sycl::f32x16{});
  }

 private:
  static CORVANE_INLINE sycl::f32x16 dots(const uint8_t* first, const uint8_t* second, const staged& s) {
    sycl::i32x16 sumi[4];
    sycl::unroll<4>([&](auto n) {
      const uint8_t* block = n < 2 ? first : second;
      constexpr unsigned group = 4 * (n % 2);
      const two_pairs a = runs_of(block, group), b = runs_of(block, group + 1), c = runs_of(block, group + 2),
                      d = runs_of(block, group + 3);
      sumi[n] = sycl::add_products(sycl::i32x16{}, sycl::join(a.first, b.first, c.first, d.first), s.codes[n][0]);
      sumi[n] = sycl::add_products(sumi[n], sycl::join(a.second, b.second, c.second, d.second), s.codes[n][1]);
    });
    const auto halve = [](sycl::i32x16 a, sycl::i32x16 b) { return sycl::even_lanes(a, b) + sycl::odd_lanes(a, b); };
    const sycl::i32x16 sum = halve(halve(sumi[0], sumi[1]), halve(sumi[2], sumi[3]));

    const sycl::i32x16 h = sycl::widen_two_u16(first + offsetof(block_iq1_s, qh), second + offsetof(block_iq1_s, qh));
    const sycl::f32x16 scale = sycl::to_float(((h >> 11) & 14) | 1);
    const sycl::f32x16 dl = detail::two_halfs(first, second) * scale;
    const sycl::f32x16 delta = sycl::to_float(h & 0x8000) * (-0.25f / 32768.0f) - 0.875f;
    return dl * s.d * sycl::to_float(sum) + dl * s.s * delta;
  }

  struct two_pairs {
    sycl::u8x16 first, second;  // runs 0 and 1 of a group, runs 2 and 3
  };
  static CORVANE_INLINE two_pairs runs_of(const uint8_t* block, unsigned group) {
    const uint64_t rows = iq1_s_rows(sycl::load_integer<uint32_t>(block + offsetof(block_iq1_s, qs) + 4 * group),
                                     sycl::load_integer<uint16_t>(block + offsetof(block_iq1_s, qh) + 2 * group));
    const auto run = [&](unsigned il) CORVANE_INLINE_LAMBDA { return iq1s_runs[rows >> (16 * il) & 0xFFFF]; };
    using u64x2 = uint64_t __attribute__((vector_size(16)));
    return {(sycl::u8x16)u64x2{run(0), run(1)}, (sycl::u8x16)u64x2{run(2), run(3)}};
  }
};

// Lane u is elements 16 u to 16 u + 15, which have a scale and a minimum of their own. Their codes stand in one of the
// four positions of four neighbouring words: the upper two positions are brought down, codes in the second count four
// times. Measured and dropped: a lane of four code bytes, thus elements under four scales.
struct q2_k_dots {
  template <class T>
  using sum_of = T;
  static constexpr unsigned step = 1;
  static constexpr unsigned block_bytes = sizeof(block_q2_K);

  struct staged {
    sycl::u8x64 codes[4];  // [n]: byte 4 u + i is element 16 u + 4 n + i
    sycl::f32x16 d;        // by four where the weight's codes count four times
    sycl::f32x16 sums;     // d times the sum of the codes
  };

  static void stage(const block_q8_1* y, unsigned, staged& s) {
    for (unsigned u = 0; u < 16; ++u) {
      for (unsigned n = 0; n < 4; ++n) {
        std::memcpy(reinterpret_cast<uint8_t*>(&s.codes[n]) + 4 * u, y[u / 2].qs + 16 * (u % 2) + 4 * n, 4);
      }
      const auto d = static_cast<float>(y[u / 2].d);
      int sum = 0;
      for (unsigned e = 0; e < 16; ++e) sum += y[u / 2].qs[16 * (u % 2) + e];
      s.d[u] = u / 2 % 2 == 0 ? d : d * 0.25f;
      s.sums[u] = d * static_cast<float>(sum);
    }
  }

  static CORVANE_INLINE sycl::f32x16 dots(const uint8_t* weight, const staged& s) {
    // Positions 0, 0, 1, 1, 2, 2, 3, 3 of words 0 and 4 of the first half, then of the second; 16: positions 2 and 3.
    static constexpr sycl::i32x16 word = {0, 4, 0, 4, 16, 20, 16, 20, 8, 12, 8, 12, 24, 28, 24, 28};
    static constexpr sycl::i32x16 position = {0x03030303, 0x03030303, 0x0C0C0C0C, 0x0C0C0C0C, 0x03030303, 0x03030303,
                                              0x0C0C0C0C, 0x0C0C0C0C, 0x03030303, 0x03030303, 0x0C0C0C0C, 0x0C0C0C0C,
                                              0x03030303, 0x03030303, 0x0C0C0C0C, 0x0C0C0C0C};
    const auto qs = sycl::load_bytes<sycl::i32x16>(weight + offsetof(block_q2_K, qs));
    const sycl::i32x16 upper = qs >> 4;
    sycl::i32x16 dot{};
    sycl::unroll<4>([&](auto n) {
      const sycl::i32x16 codes = sycl::shuffle(qs, upper, word + static_cast<int32_t>(n)) & position;
      dot = sycl::add_products(dot, (sycl::u8x64)codes, s.codes[n]);
    });
    const sycl::i32x16 scales = sycl::widen_u8(weight + offsetof(block_q2_K, scales));
    const sycl::f32x16 scale = sycl::to_float(scales & 15), minimum = sycl::to_float(scales >> 4);
    return sycl::to_float(dot) * s.d * (scale * sycl::splat_half(weight + offsetof(block_q2_K, d))) -
           minimum * s.sums * sycl::splat_half(weight + offsetof(block_q2_K, dmin));
  }
};

// The dots of a format.
template <int32_t Id>
struct dots_for;
template <>
struct dots_for<qtype_iq2_xxs> {
  using type = iq2_xxs_dots;
};
template <>
struct dots_for<qtype_iq1_s> {
  using type = iq1_s_dots;
};
template <>
struct dots_for<qtype_q2_k> {
  using type = q2_k_dots;
};
template <int32_t Id>
using dots_of = typename dots_for<Id>::type;

// The activations of a row, laid out for a format.
template <class Dots>
class staged_row {
 public:
  explicit staged_row(uint32_t blocks)
      : blocks_(blocks), parts_(std::make_unique_for_overwrite<typename Dots::staged[]>(count())) {}

  uint32_t count() const { return (blocks_ + Dots::step - 1) / Dots::step; }
  const typename Dots::staged* data() const { return parts_.get(); }

  void fill(const uint8_t* activations) {
    const auto* y = reinterpret_cast<const block_q8_1*>(activations);
    for (uint32_t b = 0; b < blocks_; b += Dots::step) {
      Dots::stage(y + uint64_t{8} * b, blocks_ - b < Dots::step ? blocks_ - b : Dots::step, parts_[b / Dots::step]);
    }
  }

 private:
  uint32_t blocks_;
  std::unique_ptr<typename Dots::staged[]> parts_;
};

// One weight row of `blocks` blocks with a staged row: add(lanes) for every 16 products.
template <class Dots, class Add>
CORVANE_INLINE void for_each_dot(const uint8_t* weight, const typename Dots::staged* input, uint32_t blocks,
                                 const Add& add) {
  uint32_t b = 0;
  for (; b + Dots::step <= blocks; b += Dots::step, ++input, weight += Dots::step * Dots::block_bytes) {
    add(Dots::dots(weight, *input));
  }
  if constexpr (Dots::step > 1) {
    if (b < blocks) add(Dots::tail(weight, *input));
  }
}

}  // namespace corvane
