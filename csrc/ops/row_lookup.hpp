// Row look-up: chosen rows of a packed weight, expanded to float. On pointers and sizes.
#pragma once

#include "ops/expansion.hpp"

namespace corvane {

// For formats with a row look-up kernel.
//
//   row_numbers  (count), each from 0 to output_size - 1: the caller has seen to that
//   output       state_size / 256 super-blocks for each row number, without a gap
void look_up_rows(int32_t qtype, const packed_weight& weight, const int64_t* row_numbers, uint64_t count,
                  float* output);

}  // namespace corvane
