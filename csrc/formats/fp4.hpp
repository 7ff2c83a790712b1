// fp4: a sign and one of eight magnitudes, one Half scale for 64 elements. Planar.
//
//   codes   32 bytes a block   byte j:  | element j + 32 | element j |   in a nibble, bit 3 is the sign
//                                        7              4 3         0
//   scales  one Half a block   y = value * d
#pragma once

#include "formats/nibbles.hpp"
#include "formats/two_planes.hpp"

namespace corvane {

struct fp4_reader : two_planes<qtype_fp4, block_q4_0_qs, Half>, nibble_codes<fp4_values, false> {};

template <>
struct reader_for<qtype_fp4> {
  using type = fp4_reader;
};

}  // namespace corvane
