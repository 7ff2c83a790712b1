// The tiles of one systolic step sequence, 64 elements of K deep: 8 input rows, 32 weight columns, and the block result
// that they add to. For sysdot_forward_kernel.
#pragma once

#include <cstdint>

#include "formats/registry.hpp"
#include "platform/sycl/systolic.hpp"
#include "platform/sycl/tuning.hpp"

namespace corvane {

using sycl::BFloat16;
using sycl::f32x16;
using sycl::Half;

constexpr unsigned QK = 64;                                        // elements of a K block, under one scale
constexpr unsigned tile_rows = 8;                                  // rows of a full row tile
constexpr unsigned tile_columns = sycl::tuning::systolic_columns;  // that the host expands together
constexpr unsigned strips = tile_columns / 16;

// A cell is what one lane of a step's operand holds: one Half, widened, or two BFloat16: of every four elements the
// first and the third, the lower one in the lower half, then the second and the fourth. So they come out of words of
// four bytes without bytes being moved within them.
template <class WT>
struct cell_of;
template <>
struct cell_of<Half> {
  using type = float;
  static constexpr unsigned elements = 1;
};
template <>
struct cell_of<BFloat16> {
  using type = int32_t;
  static constexpr unsigned elements = 2;
};
template <class WT>
constexpr unsigned depth = QK / cell_of<WT>::elements;  // cells along K

template <class WT>
struct input_tile {
  alignas(64) typename cell_of<WT>::type row[tile_rows][depth<WT>];
};

template <class WT>
struct weight_tile {
  alignas(64) typename cell_of<WT>::type cell[depth<WT>][tile_columns];
  f32x16 scale[strips];
};

// What a systolic format's reader says of its bytes. For any other format: no codes.
uint32_t code_bytes(int32_t qtype);   // of a K block
uint32_t scale_bytes(int32_t qtype);  // of its scale
const uint8_t* scale_plane(int32_t qtype, const uint8_t* weight, uint64_t state_size, uint64_t output_size);

// Where the packed blocks of 32 columns lie.
struct weight_columns {
  const uint8_t* codes[tile_columns];   // first code block of each column
  const uint8_t* scales[tile_columns];  // its scale
};

// Expands block b of the columns, unscaled, and collects their scales.
template <class WT>
void expand_weights(int32_t qtype, const weight_columns& columns, uint64_t b, weight_tile<WT>& tile);

// running[r][i] += scale[i] * sum over the block of x[r][k] * w[k][i], in float, for 1 to 8 rows. tiny: BFloat16 inputs
// are so small that sums could be subnormal.
template <class WT>
void systolic_block(const input_tile<WT>& x, const weight_tile<WT>& w, unsigned rows, bool tiny,
                    float (*running)[tile_columns]);

}  // namespace corvane
