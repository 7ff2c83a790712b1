// An input row as blocks of 8-bit integers, for the kernels that multiply it with iq2_xxs, iq1_s and q2_k weights:
// their inner loops are integer dot products.
#pragma once

#include <cstddef>
#include <cstdint>

#include "formats/iq1_s.hpp"
#include "formats/iq2_xxs.hpp"
#include "formats/q2_k.hpp"

namespace corvane {

// 32 consecutive elements of the row.
struct block_q8_1 {
  Half d;         // scale
  Half s;         // sum of the elements, not of the codes
  int8_t qs[32];  // element / d, rounded
};
static_assert(sizeof(block_q8_1) == 36);

constexpr int64_t q8_1_elements = 32;

// Bytes of a quantised row.
constexpr int64_t q8_1_bytes(int64_t state_size) {
  return state_size / q8_1_elements * static_cast<int64_t>(sizeof(block_q8_1));
}

// --- dot products of one group -------------------------------------------------------------------------------------
//
// Group `iqs` of a weight block with its part of the eight activation blocks from y on. The kernels take all groups of
// a block at once (q8_1_dots.hpp); these say what a group's product is.

// 32 elements; iqs < 8.
inline float vec_dot_iq2_xxs_q8_1(const uint8_t* weight, const block_q8_1* y, const int& iqs) {
  const auto x = sycl::load_bytes<block_iq2_xxs>(weight);
  const uint8_t* group = weight + offsetof(block_iq2_xxs, qs) + 8 * iqs;
  uint32_t w = sycl::load_integer<uint32_t>(group + 4);
  int32_t sumi = 0;
  for (int il = 0; il < 4; ++il, w >>= 7) {
    const uint64_t row = iq2xxs_grid[group[il]];
    const uint8_t signs = ksigns_iq2xs[w & 127];
    for (int j = 0; j < 8; ++j) {
      const int32_t product = y[iqs].qs[8 * il + j] * static_cast<int32_t>(row >> (8 * j) & 0xFF);
      sumi += (signs & kmask_iq2xs[j]) != 0 ? -product : product;
    }
  }
  return (static_cast<float>(w) + 0.5f) * static_cast<float>(x.d) * static_cast<float>(y[iqs].d) * 0.25f *
         static_cast<float>(sumi);
}

// 32 elements; iqs < 8. The delta of the elements enters through the sum of the activation block.
inline float vec_dot_iq1_s_q8_1(const uint8_t* weight, const block_q8_1* y, const int& iqs) {
  const auto x = sycl::load_bytes<block_iq1_s>(weight);
  const unsigned h = x.qh[iqs];
  int32_t sumi = 0;
  for (unsigned il = 0; il < 4; ++il) {
    const uint32_t row = iq1s_grid[iq1_s_row(x.qs[4 * iqs + static_cast<int>(il)], h, il)];
    const int8_t* q = y[iqs].qs + 8 * il;
    for (int j = 0; j < 4; ++j) {
      sumi += q[j] * static_cast<int32_t>(row >> (8 * j) & 15);
      sumi += q[4 + j] * static_cast<int32_t>(row >> (8 * j + 4) & 15);
    }
  }
  const float dl = static_cast<float>(x.d) * iq1_s_scale(h);
  return dl * static_cast<float>(y[iqs].d) * static_cast<float>(sumi) +
         dl * static_cast<float>(y[iqs].s) * iq1_s_delta(h);
}

// Four code bytes, so four elements of each of four runs of 32; iqs < 16.
inline float vec_dot_q2_k_q8_1(const uint8_t* weight, const block_q8_1* y, const int& iqs) {
  const auto x = sycl::load_bytes<block_q2_K>(weight);
  const auto v = sycl::load_integer<uint32_t>(x.qs + 4 * iqs);
  const int half = iqs / 8, cut = iqs % 8;
  float sumd = 0, summ = 0;
  for (int i = 0; i < 4; ++i) {
    const block_q8_1& block = y[4 * half + i];
    const uint8_t s = x.scales[8 * half + cut / 4 + 2 * i];
    int32_t dot = 0, su = 0;
    for (int t = 0; t < 4; ++t) {
      const int32_t u = block.qs[4 * cut + t];
      dot += static_cast<int32_t>(v >> (2 * i + 8 * t) & 3) * u;
      su += u;
    }
    sumd += static_cast<float>(block.d) * static_cast<float>(dot * (s & 15));
    summ += static_cast<float>(block.d) * static_cast<float>((s >> 4) * su);
  }
  return sumd * static_cast<float>(x.d) - summ * static_cast<float>(x.dmin);
}

}  // namespace corvane
