// nf4: codes into the 16 values of 4-bit NormalFloat, one Half scale for 64 elements. Planar.
//
//   codes   32 bytes a block   byte j:  | element j | element j + 32 |   (q4_0 and fp4 have them the other way round)
//                                        7         4 3              0
//   scales  one Half a block   y = table[code] * d
#pragma once

#include "formats/nibbles.hpp"
#include "formats/two_planes.hpp"

namespace corvane {

struct nf4_reader : two_planes<qtype_nf4, block_q4_0_qs, Half>, nibble_codes<nf4_values, true> {};

template <>
struct reader_for<qtype_nf4> {
  using type = nf4_reader;
};

}  // namespace corvane
