// An input row as blocks of 8-bit integers, for the kernels that multiply it with iq2_xxs, iq1_s and q2_k weights:
// their inner loops are integer dot products.
#pragma once

#include <cstdint>

#include "formats/reader.hpp"

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

}  // namespace corvane
