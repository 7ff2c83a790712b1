// Which path a linear call takes: a pure function of the call and the policy.
#pragma once

#include <c10/core/ScalarType.h>

#include <cstdint>

#include "linear/policy.hpp"

namespace corvane {

enum class linear_path : uint8_t {
  systolic,           // a few rows on the systolic unit, straight from the packed weight
  matrix_vector,      // one row
  small_batch,        // a few rows, two or four at a time
  tile,               // the weight expanded tile by tile, one product a tile
  fast_expansion,     // whole weight by the explicit-SIMD kernels, then one product
  general_expansion,  // whole weight by dequant(), then one product
  direct_expansion,   // whole weight by the format's own general kernel, then one product
  refused,            // no expansion for this dtype or size
};

struct linear_call {
  uint8_t device_class;
  int32_t qtype;
  c10::ScalarType dtype;
  int64_t rows;
  int64_t state_size;
  int64_t output_size;
  int64_t row_hint;
};

// The systolic test, which comes before any launcher.
bool takes_systolic_path(const linear_call& call, bool allowed);

// Column width of the systolic kernels on a class: 16 on class 0, else 8.
constexpr bool systolic_is_wide(uint8_t device_class) { return device_class == 0; }

// Whether the launcher of a format reads the tile variables.
bool reads_tile_policy(int32_t qtype);

// What a launcher does with a call that is not systolic.
linear_path select_path(const linear_call& call, const tile_policy& policy);

}  // namespace corvane
