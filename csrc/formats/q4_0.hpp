// q4_0: 4-bit codes around 8, one Half scale for 64 elements. Planar.
//
//   codes   32 bytes a block   byte j:  | element j + 32 | element j |
//                                        7            4   3       0
//   scales  one Half a block   y = d * (code - 8)
#pragma once

#include "formats/nibbles.hpp"
#include "formats/two_planes.hpp"

namespace corvane {

inline constexpr std::array<float, 16> q4_0_values = {-8, -7, -6, -5, -4, -3, -2, -1, 0, 1, 2, 3, 4, 5, 6, 7};

struct q4_0_reader : two_planes<qtype_q4_0, block_q4_0_qs, Half>, nibble_codes<q4_0_values, false> {};

template <>
struct reader_for<qtype_q4_0> {
  using type = q4_0_reader;
};

}  // namespace corvane
