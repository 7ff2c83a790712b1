// The slow side of the comparison: one element of a packed weight decoded in double precision from the byte layouts,
// and the tolerances of what the kernels compute from it. Shares no code with formats/, only the two published grids.
#pragma once

#include <c10/core/ScalarType.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz {

// Which of the readings of the two 8-bit floats: expansion and one-row kernels take fp8_e5m2 without its scale; the
// fused kernels with; the systolic ones with, and fp8_e4m3 without the bit that makes a code the middle of its
// interval.
enum class reading { plain, fused, systolic };

struct element {
  double value;
  double magnitude;  // sum of the magnitudes of the terms of the formula: what roundings are relative to
  double scale;      // largest factor that a code meets
};

struct format {
  const char* name;
  unsigned block_elements, block_bytes;
  // Where a block's scales stand: in a planar format behind the bytes that the planes before have for a block, else in
  // the block. 0 halfs: one float.
  bool planar;
  unsigned scales_at, halfs;
};
const format* format_of(int64_t qtype);  // null: the id names none

// Element `index` of a weight of `blocks` blocks.
element decode(int32_t qtype, const uint8_t* weight, size_t blocks, size_t index, reading how = reading::plain);

// Gives every block scales from 2^-6 to 1 of either sign, the codes staying as they are.
void set_scales(int32_t qtype, uint8_t* weight, size_t blocks, uint64_t seed);

// What an element type can do.
struct precision {
  double unit;      // largest relative error of a rounding
  double smallest;  // largest absolute error of a rounding near zero
  double largest;   // beyond it sums may have overflown
};
precision precision_of(c10::ScalarType dtype);

// A result and how far from it an answer may be.
struct expected {
  double value = 0, tolerance = 0;
  bool known = true;  // false: something on the way may have overflown
};

// The dot product of a row of x with row `row` of a weight, computed in arithmetic of `p`, each value on the way
// rounded and in any order. `quantised`: x goes through 8-bit blocks of 32 elements first.
expected dot(const std::vector<double>& x, int32_t qtype, const uint8_t* weight, size_t blocks, size_t row, reading how,
             const precision& p, bool quantised);

bool agrees(double answer, const expected& e);

}  // namespace fuzz
