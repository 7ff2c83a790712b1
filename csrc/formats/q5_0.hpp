// q5_0: 5-bit codes in interleaved blocks of 64 elements, y = (code - 16) * d. The layout: q5.hpp.
#pragma once

#include "formats/q5.hpp"

namespace corvane {

using q5_0_reader = detail::q5_reader<qtype_q5_0>;

template <>
struct reader_for<qtype_q5_0> {
  using type = q5_0_reader;
};

}  // namespace corvane
