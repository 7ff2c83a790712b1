// q5_1: 5-bit codes in interleaved blocks of 64 elements, y = d * code + m. The layout: q5.hpp.
#pragma once

#include "formats/q5.hpp"

namespace corvane {

using q5_1_reader = detail::q5_reader<qtype_q5_1>;

template <>
struct reader_for<qtype_q5_1> {
  using type = q5_1_reader;
};

}  // namespace corvane
