#include "fuzz/reference.hpp"

#include <c10/util/Half.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "fuzz/byte_source.hpp"

namespace fuzz {
namespace {

constexpr uint64_t iq2xxs_grid[] = {
#include "formats/data/iq2xxs_grid.inc"
};
constexpr uint32_t iq1s_grid[] = {
#include "formats/data/iq1s_grid.inc"
};

constexpr float nf4_table[] = {
    -1,         -0.6961928f, -0.52507305f, -0.3949175f, -0.28444138f, -0.18477343f, -0.091050036f, 0,
    0.0795803f, 0.1609302f,  0.2461123f,   0.33791524f, 0.44070983f,  0.562617f,    0.72295684f,   1};
constexpr float nf3_table[] = {-1, -0.4786292f, -0.21714179f, 0, 0.1609302f, 0.33791524f, 0.562617f, 1};
constexpr double fp4_table[] = {0.03125, 0.5, 1, 1.5, 2, 3, 4, 6};

unsigned word16(const uint8_t* at) { return at[0] | at[1] << 8; }
uint64_t word64(const uint8_t* at) {
  uint64_t w = 0;
  for (int i = 7; i >= 0; --i) w = w << 8 | at[i];
  return w;
}

double half(unsigned bits) {
  const unsigned exponent = bits >> 10 & 31, mantissa = bits & 1023;
  const double sign = bits >> 15 != 0 ? -1 : 1;
  if (exponent == 31) return mantissa != 0 ? std::nan("") : sign * std::numeric_limits<double>::infinity();
  if (exponent == 0) return sign * mantissa * 0x1p-24;
  // 2^exponent by way of an integer: most of the time of a comparison goes into this line.
  return sign * (1024 + mantissa) * (uint64_t{1} << exponent) * 0x1p-25;
}
double half_at(const uint8_t* at) { return half(word16(at)); }
double float_at(const uint8_t* at) {
  float x;
  std::memcpy(&x, at, sizeof(x));
  return x;
}

unsigned nibble(uint8_t byte, bool high) { return high ? byte >> 4 : byte & 15; }

// d * code + m
element affine(double d, double code, double m = 0) {
  return {d * code + m, std::abs(d * code) + std::abs(m), std::max(std::abs(d), std::abs(m))};
}

// The six-bit code of fp6 and fp6_k: `low` and `high` are the block's parts of the 4-bit and of the 2-bit plane.
double six_bit_float(const uint8_t* low, const uint8_t* high, size_t e) {
  constexpr unsigned byte_of[] = {1, 3, 0, 2};
  const unsigned byte = byte_of[e % 4];
  const unsigned bottom = nibble(low[4 * (e / 8) + byte], e / 4 % 2 == 0);
  const unsigned top = high[4 * (e / 16) + byte] >> (6 - 2 * (e / 4 % 4)) & 3;  // sign and top exponent bit
  return half((top & 2) << 14 | (top & 1) << 12 | bottom << 8 | 0x80);
}

}  // namespace

const format* format_of(int64_t qtype) {
  struct entry {
    int64_t id;
    format is;
  };
  static constexpr entry all[] = {
      {2, {"q4_0", 64, 34, true, 32, 1}},      {3, {"q4_1", 64, 36, true, 32, 2}},
      {6, {"q5_0", 64, 44, false, 0, 2}},      {7, {"q5_1", 64, 44, false, 0, 2}},
      {8, {"q8_0", 64, 68, true, 64, 0}},      {10, {"nf4", 64, 34, true, 32, 1}},
      {11, {"nf3", 64, 26, true, 24, 1}},      {15, {"fp8_e4m3", 64, 68, true, 64, 0}},
      {16, {"fp4", 64, 34, true, 32, 1}},      {19, {"fp8_e5m2", 64, 68, true, 64, 0}},
      {21, {"iq2_xxs", 256, 66, false, 0, 1}}, {23, {"q2_k", 256, 84, false, 80, 2}},
      {24, {"iq1_s", 256, 50, false, 0, 1}},   {26, {"q6_k", 256, 210, true, 208, 1}},
      {27, {"q4_k", 256, 148, true, 144, 2}},  {28, {"q5_k", 256, 176, false, 0, 2}},
      {29, {"fp6", 64, 50, true, 48, 1}},      {30, {"fp6_k", 256, 210, true, 208, 1}},
  };
  for (const entry& f : all) {
    if (f.id == qtype) return &f.is;
  }
  return nullptr;
}

element decode(int32_t qtype, const uint8_t* weight, size_t blocks, size_t index, reading how) {
  const format& f = *format_of(qtype);
  const size_t b = index / f.block_elements, e = index % f.block_elements;
  const uint8_t* block = weight + f.block_bytes * b;  // of interleaved formats
  const auto plane = [&](size_t before, size_t width) { return weight + before * blocks + width * b; };  // of planar
  switch (qtype) {
    case 2:
    case 3: {
      const double code = nibble(plane(0, 32)[e % 32], e >= 32);
      if (qtype == 3) return affine(half_at(plane(32, 4)), code, half_at(plane(32, 4) + 2));
      const double d = half_at(plane(32, 2));
      return affine(d, code, -8 * d);
    }
    case 6:
    case 7: {
      const double code = nibble(block[12 + e % 32], e >= 32) | (word64(block + 4) >> e & 1) << 4;
      const double d = half_at(block);
      return affine(d, code, qtype == 7 ? half_at(block + 2) : -16 * d);
    }
    case 8:
      return affine(float_at(plane(64, 4)), static_cast<int8_t>(plane(0, 64)[e]));
    case 10:
      return affine(half_at(plane(32, 2)), nf4_table[nibble(plane(0, 32)[e % 32], e < 32)]);
    case 11: {
      const uint8_t* codes = plane(0, 24);
      const unsigned low = codes[8 + e / 4] >> (6 - 2 * (e % 4)) & 3;
      return affine(half_at(plane(24, 2)), nf3_table[(word64(codes) >> e & 1) << 2 | low]);
    }
    case 15: {
      const unsigned code = plane(0, 64)[e], middle = how == reading::systolic ? 0 : 0x40;
      return affine(float_at(plane(64, 4)), half((code & 0x80) << 8 | (code & 0x7F) << 7 | middle));
    }
    case 16: {
      const unsigned code = nibble(plane(0, 32)[e % 32], e >= 32);
      return affine(half_at(plane(32, 2)), (code & 8) != 0 ? -fp4_table[code & 7] : fp4_table[code & 7]);
    }
    case 19:
      return affine(how == reading::plain ? 1.0 : float_at(plane(64, 4)), half(plane(0, 64)[e] << 8 | 0x80));
    case 21: {
      const uint8_t* group = block + 2 + 8 * (e / 32);
      const auto w = static_cast<uint32_t>(word64(group) >> 32);
      const size_t run = e % 32 / 8, j = e % 8;
      const unsigned signs = w >> (7 * run) & 127;
      const bool negative = j < 7 ? (signs >> j & 1) != 0 : __builtin_popcount(signs) % 2 != 0;
      const double g = static_cast<double>(iq2xxs_grid[group[run]] >> (8 * j) & 0xFF);
      return affine((0.5 + (w >> 28)) * half_at(block) * 0.25, negative ? -g : g);
    }
    case 23: {
      const size_t h = e / 128, g = e % 128 / 32, l = e % 32;
      const unsigned scale = block[8 * h + 2 * g + l / 16], code = block[16 + 32 * h + l] >> (2 * g) & 3;
      return affine(half_at(block + 80) * (scale & 15), code, -half_at(block + 82) * (scale >> 4));
    }
    case 24: {
      const unsigned h = word16(block + 34 + 2 * (e / 32));
      const size_t run = e % 32 / 8, j = e % 8;
      const uint32_t row = iq1s_grid[block[2 + 4 * (e / 32) + run] | (h >> (3 * run) & 7) << 8];
      const double n = row >> (j < 4 ? 8 * j : 8 * (j - 4) + 4) & 15;
      const double dl = half_at(block) * (2 * (h >> 12 & 7) + 1);
      return affine(dl, n, dl * (h >> 15 != 0 ? -1.125 : -0.875));
    }
    case 26: {
      const size_t u = e / 16, n = e % 16 / 4, p = e % 4;
      const unsigned low = nibble(plane(64, 128)[4 * (2 * u + n / 2) + p], n % 2 == 0);
      const unsigned code = low | (plane(0, 64)[4 * u + p] >> (6 - 2 * n) & 3) << 4;
      const double d = half_at(plane(208, 2)) * static_cast<int8_t>(plane(192, 16)[u]);
      return affine(d, code, -32 * d);
    }
    case 27: {
      const size_t i = e / 32, r = e % 32;
      const uint8_t *scales = plane(128, 16) + 2 * i, *super = plane(144, 4);
      const unsigned code = nibble(plane(0, 128)[16 * i + r % 16], r >= 16);
      return affine(half_at(super) * scales[0], code, -half_at(super + 2) * scales[1]);
    }
    case 28: {
      const size_t i = e / 32, l = e % 32;
      const uint8_t* s = block + 4;
      const unsigned scale = i < 4 ? s[i] & 63 : (s[i + 4] & 15) | s[i - 4] >> 6 << 4;
      const unsigned least = i < 4 ? s[i + 4] & 63 : s[i + 4] >> 4 | s[i] >> 6 << 4;
      const unsigned code = nibble(block[48 + 32 * (i / 2) + l], i % 2 != 0) | (block[16 + l] >> i & 1) << 4;
      return affine(half_at(block) * scale, code, -half_at(block + 2) * least);
    }
    case 29:
      return affine(half_at(plane(48, 2)), six_bit_float(plane(0, 32), plane(32, 16), e));
    default: {  // 30; the one factor that is a Half in every kernel, whatever it computes in
      const double factor = half_at(plane(208, 2)) * static_cast<int8_t>(plane(192, 16)[e / 16]);
      return affine(static_cast<double>(c10::Half(static_cast<float>(factor))),
                    six_bit_float(plane(0, 128), plane(128, 64), e));
    }
  }
}

void set_scales(int32_t qtype, uint8_t* weight, size_t blocks, uint64_t seed) {
  const format& f = *format_of(qtype);
  random_bits random(seed);
  for (size_t b = 0; b < blocks; ++b) {
    const size_t bytes = f.halfs == 0 ? 4 : 2 * f.halfs;
    uint8_t* to = weight + (f.planar ? f.scales_at * blocks + bytes * b : f.block_bytes * b + f.scales_at);
    const uint64_t bits = random.next();
    if (f.halfs == 0) {
      const uint32_t word = (bits >> 63) << 31 | (121 + bits % 6) << 23 | (bits >> 20 & 0x7FFFFF);
      std::memcpy(to, &word, 4);
      continue;
    }
    for (unsigned i = 0; i < f.halfs; ++i) {
      const uint64_t part = bits >> (32 * i);
      const auto word = static_cast<uint16_t>((part & 1) << 15 | (9 + (part >> 1) % 6) << 10 | (part >> 16 & 1023));
      std::memcpy(to + 2 * i, &word, 2);
    }
  }
}

precision precision_of(c10::ScalarType dtype) {
  switch (dtype) {
    case c10::ScalarType::Half:
      return {0x1p-11, 0x1p-25, 60000};
    case c10::ScalarType::BFloat16:
      return {0x1p-8, 0x1p-126, 1e38};  // sums below 2^-126 may count as zero
    default:
      return {0x1p-24, 0x1p-126, 1e38};  // double too: several formats and paths compute in float whatever T is
  }
}

expected dot(const std::vector<double>& x, int32_t qtype, const uint8_t* weight, size_t blocks, size_t row, reading how,
             const precision& p, bool quantised) {
  double sum = 0, magnitude = 0, scale = 1, codes = 0, largest_weight = 0, from_quantising = 0, terms = 0;
  bool nan_code = false;
  for (size_t i = 0; i < x.size(); ++i) {
    const element w = decode(qtype, weight, blocks, row * x.size() + i, how);
    sum += w.value * x[i];
    scale = std::max(scale, w.scale);
    largest_weight = std::max(largest_weight, w.magnitude);
    nan_code |= std::isnan(w.value) && std::isfinite(w.scale) && std::isfinite(x[i]);
    if (x[i] == 0) continue;
    ++terms;
    magnitude += std::abs(x[i]) * w.magnitude;
    if (w.scale != 0) codes += std::abs(x[i]) * w.magnitude / w.scale;
    if (!quantised) continue;
    const auto first = x.begin() + static_cast<std::ptrdiff_t>(i / 32 * 32);
    const double largest =
        std::abs(*std::max_element(first, first + 32, [](double a, double b) { return std::abs(a) < std::abs(b); }));
    // Half a step of the code, the Half that the step is kept in, and the Half of the block's sum.
    from_quantising += w.magnitude * (largest * (0.51 / 127 + 2 * 0x1p-11) + 128 * 0x1p-25);
  }
  // Each term is rounded when it is made and when it is scaled, and every sum that it enters; the factors themselves
  // take some roundings too. A sum with a zero rounds nothing. Near zero, an error made on codes meets the scale, and
  // one made on scales the largest code, 255 for q4_k's.
  const double roundings = terms + 8;
  expected e;
  e.value = sum;
  e.tolerance =
      roundings * (p.unit * magnitude * (1 + roundings * p.unit) + p.smallest * (256 + scale)) + from_quantising;
  e.known = nan_code || (std::isfinite(sum) && std::max({magnitude, codes, scale, largest_weight}) < p.largest);
  return e;
}

bool agrees(double answer, const expected& e) {
  if (!e.known) return true;
  return std::isnan(e.value) ? std::isnan(answer) : std::abs(answer - e.value) <= e.tolerance;
}

}  // namespace fuzz
