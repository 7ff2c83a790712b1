// Expansion of single elements in plain scalar steps, straight from the byte layout: what the expansion kernels are
// compared with, bit for bit. Shares nothing with the readers but the published grids.
#pragma once

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "formats/grids.hpp"
#include "formats/registry.hpp"

namespace scalar {

using c10::BFloat16;
using c10::Half;

template <class V>
V read(const uint8_t* at) {
  V v;
  std::memcpy(&v, at, sizeof(V));
  return v;
}
inline float half_at(const uint8_t* at) { return static_cast<float>(Half(read<uint16_t>(at), Half::from_bits())); }
inline float half_of_bits(unsigned bits) {
  return static_cast<float>(Half(static_cast<uint16_t>(bits), Half::from_bits()));
}

// A packed weight of nb blocks; element e of block b.
struct weight {
  int32_t qtype;
  uint64_t nb;
  std::vector<uint8_t> bytes;

  // The entry of block b in a plane of `width` bytes a block, behind planes of `before` bytes a block.
  const uint8_t* entry(unsigned before, unsigned width, uint64_t b) const {
    return bytes.data() + before * nb + width * b;
  }
};

inline unsigned nibble(const uint8_t* qs, unsigned e, bool high_first = false) {
  return ((e < 32) == high_first ? qs[e % 32] >> 4 : qs[e % 32]) & 15;
}

// Low four and high two bits of an fp6 code in the two planes of a block.
inline float fp6_value(const uint8_t* low, const uint8_t* high, unsigned e) {
  const unsigned byte = (const unsigned[]){1, 3, 0, 2}[e % 4], n = e / 4;
  const unsigned four = low[4 * (e / 8) + byte] >> (n % 2 == 0 ? 4 : 0) & 15;
  const unsigned two = high[4 * (e / 16) + byte] >> (6 - 2 * (n % 4)) & 3;
  return half_of_bits((two >> 1) << 15 | (two & 1) << 12 | four << 8 | 0x0080);
}

// Formats whose expansion has its operands converted to A and every operation rounded to A.
template <class A>
A element_in(const weight& w, uint64_t b, unsigned e) {
  static constexpr float nf4[16] = {-1.0f,
                                    -0.6961928009986877f,
                                    -0.5250730514526367f,
                                    -0.39491748809814453f,
                                    -0.28444138169288635f,
                                    -0.18477343022823334f,
                                    -0.09105003625154495f,
                                    0.0f,
                                    0.07958029955625534f,
                                    0.16093020141124725f,
                                    0.24611230194568634f,
                                    0.33791524171829224f,
                                    0.44070982933044434f,
                                    0.5626170039176941f,
                                    0.7229568362236023f,
                                    1.0f};
  static constexpr float fp4[8] = {0.03125f, 0.5f, 1.0f, 1.5f, 2.0f, 3.0f, 4.0f, 6.0f};
  const auto in = [](float x) { return static_cast<A>(x); };
  const uint8_t* codes = w.entry(0, 32, b);
  switch (w.qtype) {
    case corvane::qtype_q4_0:
      return in(static_cast<float>(nibble(codes, e)) - 8.0f) * in(half_at(w.entry(32, 2, b)));
    case corvane::qtype_q4_1: {
      const A product = in(half_at(w.entry(32, 4, b))) * in(static_cast<float>(nibble(codes, e)));
      return product + in(half_at(w.entry(32, 4, b) + 2));
    }
    case corvane::qtype_nf4:
      return in(nf4[nibble(codes, e, true)]) * in(half_at(w.entry(32, 2, b)));
    case corvane::qtype_fp4: {
      const unsigned q = nibble(codes, e);
      return in((q & 8) != 0 ? -fp4[q & 7] : fp4[q & 7]) * in(half_at(w.entry(32, 2, b)));
    }
    case corvane::qtype_q8_0:
      return in(static_cast<int8_t>(w.entry(0, 64, b)[e])) * in(read<float>(w.entry(64, 4, b)));
    case corvane::qtype_fp8_e4m3: {
      const unsigned c = w.entry(0, 64, b)[e];
      return in(half_of_bits((c & 0x80) << 8 | (c & 0x7F) << 7 | 0x0040)) * in(read<float>(w.entry(64, 4, b)));
    }
    case corvane::qtype_fp8_e5m2:
      return in(half_of_bits(static_cast<unsigned>(w.entry(0, 64, b)[e]) << 8 | 0x0080));
    case corvane::qtype_fp6:
      return in(fp6_value(codes, w.entry(32, 16, b), e)) * in(half_at(w.entry(48, 2, b)));
    case corvane::qtype_fp6_k: {
      const A d1 = in(half_at(w.entry(208, 2, b))) * in(static_cast<int8_t>(w.entry(192, 16, b)[e / 16]));
      return in(fp6_value(w.entry(0, 128, b), w.entry(128, 64, b), e)) * d1;
    }
    default:
      return in(std::nanf(""));
  }
}

// Formats whose expansion is in float.
inline float element_in_float(const weight& w, uint64_t b, unsigned e) {
  static constexpr float nf3[8] = {-1.0f,
                                   -0.4786292016506195f,
                                   -0.217141792178154f,
                                   0.0f,
                                   0.16093020141124725f,
                                   0.33791524171829224f,
                                   0.5626170039176941f,
                                   1.0f};
  const uint8_t* at = w.entry(0, corvane::registry[w.qtype].block_bytes, b);  // of interleaved formats
  switch (w.qtype) {
    case corvane::qtype_q5_0:
    case corvane::qtype_q5_1: {
      const unsigned fifth = read<uint64_t>(at + 4) >> e & 1;
      const auto q = static_cast<float>(nibble(at + 12, e) | fifth << 4);
      return w.qtype == corvane::qtype_q5_0 ? (q - 16.0f) * half_at(at) : half_at(at) * q + half_at(at + 2);
    }
    case corvane::qtype_nf3: {
      const uint8_t* codes = w.entry(0, 24, b);
      const unsigned top = read<uint64_t>(codes) >> e & 1;
      const unsigned low = codes[8 + e / 4] >> (6 - 2 * (e % 4)) & 3;
      return nf3[top << 2 | low] * half_at(w.entry(24, 2, b));
    }
    case corvane::qtype_q2_k: {
      const unsigned half = e / 128, g = e % 128 / 32, l = e % 32;
      const unsigned s = at[8 * half + 2 * g + l / 16], q = at[16 + 32 * half + l] >> (2 * g) & 3;
      return half_at(at + 80) * static_cast<float>(s & 15) * static_cast<float>(q) -
             half_at(at + 82) * static_cast<float>(s >> 4);
    }
    case corvane::qtype_q4_k: {
      const unsigned i = e / 32, r = e % 32, byte = w.entry(0, 128, b)[16 * i + r % 16];
      const uint8_t *pair = w.entry(128, 16, b) + 2 * i, *d = w.entry(144, 4, b);
      const float d1 = half_at(d) * static_cast<float>(pair[0]), m1 = half_at(d + 2) * static_cast<float>(pair[1]);
      return d1 * static_cast<float>(r < 16 ? byte & 15 : byte >> 4) - m1;
    }
    case corvane::qtype_q5_k: {
      const unsigned i = e / 32, l = e % 32;
      const uint8_t* s = at + 4;
      const unsigned sc = i < 4 ? s[i] & 63 : (s[i + 4] & 15) | (s[i - 4] >> 6) << 4;
      const unsigned m = i < 4 ? s[i + 4] & 63 : (s[i + 4] >> 4) | (s[i] >> 6) << 4;
      const unsigned byte = at[48 + 32 * (i / 2) + l];
      const unsigned q = (i % 2 == 0 ? byte & 15 : byte >> 4) | (at[16 + l] >> i & 1) << 4;
      const float d1 = half_at(at) * static_cast<float>(sc), m1 = half_at(at + 2) * static_cast<float>(m);
      return d1 * static_cast<float>(q) - m1;
    }
    case corvane::qtype_q6_k: {
      const unsigned u = e / 16, n = e % 16 / 4, p = e % 4;
      const unsigned low = w.entry(64, 128, b)[4 * (2 * u + n / 2) + p] >> (n % 2 == 0 ? 4 : 0) & 15;
      const unsigned high = w.entry(0, 64, b)[4 * u + p] >> (6 - 2 * n) & 3;
      const float d1 = half_at(w.entry(208, 2, b)) * static_cast<float>(static_cast<int8_t>(w.entry(192, 16, b)[u]));
      return d1 * (static_cast<float>(high << 4 | low) - 32.0f);
    }
    case corvane::qtype_iq2_xxs: {
      const uint8_t* group = at + 2 + 8 * (e / 32);
      const unsigned run = e % 32 / 8, j = e % 8;
      const auto word = read<uint32_t>(group + 4);
      const auto g = static_cast<float>(corvane::iq2xxs_grid[group[run]] >> (8 * j) & 255);
      const unsigned index = word >> (7 * run) & 127;
      const bool negative = j < 7 ? (index >> j & 1) != 0 : __builtin_popcount(index) % 2 == 1;
      const float y = (static_cast<float>(word >> 28) + 0.5f) * half_at(at) * 0.25f * g;
      return negative ? -y : y;
    }
    case corvane::qtype_iq1_s: {
      const unsigned ib = e / 32, run = e % 32 / 8, j = e % 8, h = read<uint16_t>(at + 34 + 2 * ib);
      const uint32_t row = corvane::iq1s_grid[at[2 + 4 * ib + run] | (h >> (3 * run) & 7) << 8];
      const auto n = static_cast<float>(row >> (j < 4 ? 8 * j : 8 * (j - 4) + 4) & 15);
      const float dl = half_at(at) * static_cast<float>(2 * (h >> 12 & 7) + 1);
      return dl * (n + ((h & 0x8000) != 0 ? -1.125f : -0.875f));
    }
    default:
      return std::nanf("");
  }
}

constexpr bool expands_in_float(int32_t qtype) {
  for (const int32_t id :
       {corvane::qtype_q5_0, corvane::qtype_q5_1, corvane::qtype_nf3, corvane::qtype_q2_k, corvane::qtype_q4_k,
        corvane::qtype_q5_k, corvane::qtype_q6_k, corvane::qtype_iq2_xxs, corvane::qtype_iq1_s}) {
    if (qtype == id) return true;
  }
  return false;
}

// Element `flat` of the matrix in arithmetic A, or in float for the formats that ask for it, converted to Out.
template <class A, class Out>
Out element(const weight& w, uint64_t flat) {
  const uint64_t per_block = corvane::registry[w.qtype].block_elements;
  const auto e = static_cast<unsigned>(flat % per_block);
  if (expands_in_float(w.qtype)) return static_cast<Out>(element_in_float(w, flat / per_block, e));
  const A value = element_in<A>(w, flat / per_block, e);
  if constexpr (std::is_same_v<A, Out>) {
    return value;
  } else {
    return static_cast<Out>(static_cast<float>(value));
  }
}

// Random bytes, with block scales (and offsets) that are normal Halfs or floats up to 2, and now and then a subnormal,
// a zero, one at which Half products overflow, or not-a-number.
inline weight random_weight(int32_t qtype, uint64_t nb, unsigned seed) {
  struct field {
    unsigned before, width, at;  // the plane and the place in its entry
    bool is_float;
  };
  const auto fields = [&]() -> std::vector<field> {
    switch (qtype) {
      case corvane::qtype_q4_0:
      case corvane::qtype_nf4:
      case corvane::qtype_fp4:
        return {{32, 2, 0, false}};
      case corvane::qtype_q4_1:
        return {{32, 4, 0, false}, {32, 4, 2, false}};
      case corvane::qtype_q5_0:
        return {{0, 44, 0, false}};  // what lies in the place of an offset is any bytes
      case corvane::qtype_q5_1:
        return {{0, 44, 0, false}, {0, 44, 2, false}};
      case corvane::qtype_q8_0:
      case corvane::qtype_fp8_e4m3:
        return {{64, 4, 0, true}};
      case corvane::qtype_fp8_e5m2:
        return {};  // its scales are not read: any bytes
      case corvane::qtype_nf3:
        return {{24, 2, 0, false}};
      case corvane::qtype_fp6:
        return {{48, 2, 0, false}};
      case corvane::qtype_fp6_k:
      case corvane::qtype_q6_k:
        return {{208, 2, 0, false}};
      case corvane::qtype_q2_k:
        return {{0, 84, 80, false}, {0, 84, 82, false}};
      case corvane::qtype_q4_k:
        return {{144, 4, 0, false}, {144, 4, 2, false}};
      case corvane::qtype_q5_k:
        return {{0, 176, 0, false}, {0, 176, 2, false}};
      case corvane::qtype_iq2_xxs:
        return {{0, 66, 0, false}};
      default:
        return {{0, 50, 0, false}};
    }
  }();
  std::mt19937 random(seed * 64 + static_cast<unsigned>(qtype));
  weight w{qtype, nb, std::vector<uint8_t>(nb * corvane::registry[qtype].block_bytes)};
  for (uint8_t& byte : w.bytes) byte = static_cast<uint8_t>(random());
  for (const field& f : fields) {
    for (uint64_t b = 0; b < nb; ++b) {
      const float unusual[] = {0.0f, 3e-7f, 60000.0f, -60000.0f, std::nanf("")};
      const float ordinary =
          std::ldexp(1.0f + static_cast<float>(random() % 4096) / 4096, -static_cast<int>(random() % 9));
      const float d = random() % 8 == 0 ? unusual[random() % 5] : random() % 2 == 0 ? ordinary : -ordinary;
      uint8_t* at = w.bytes.data() + f.before * nb + f.width * b + f.at;
      // A not-a-number with every bit set: rounding it as if it were a number would carry into the sign.
      const uint16_t half = std::isnan(d) ? 0x7FFF : Half(d).x;
      const uint32_t single = std::isnan(d) ? 0x7FFFFFFF : std::bit_cast<uint32_t>(d);
      std::memcpy(at, f.is_float ? static_cast<const void*>(&single) : &half, f.is_float ? 4 : 2);
    }
  }
  return w;
}

}  // namespace scalar
