// Which path a linear call takes: a function of the call, its format's support row and the environment.
#pragma once

#include <c10/core/ScalarType.h>

#include <cstdint>

namespace corvane {

enum class linear_path : uint8_t {
  systolic,                 // a few rows on the systolic unit, straight from the packed weight
  matrix_vector,            // one row
  small_batch,              // a few rows, two or four at a time
  tile,                     // the weight tile by tile by the general family, one product a tile
  explicit_simd_expansion,  // the whole weight by the explicit-SIMD family, then one product
  general_expansion,        // the whole weight by the general family, then one product
  refused,                  // no expansion for this dtype or size
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

struct path_choice {
  linear_path path;
  uint64_t tile_rows = 0;  // of the tile path: weight rows of a tile
};

// Reads of the environment (policy.hpp) what the decision needs, when it needs it.
path_choice select_path(const linear_call& call);

}  // namespace corvane
