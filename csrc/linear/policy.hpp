// The environment variables that steer a linear call, read afresh at every call.
#pragma once

#include <cstdint>

namespace corvane {

// VOREL_LLM_SYSDOT_DISABLED: the systolic path is open unless it is exactly "1".
bool systolic_allowed();

// TILE_THRESHOLD, TARN_LLM_LOW_MEM, TILE_SIZE, for the formats that have a tile rule.
struct tile_policy {
  int64_t threshold = 50000;  // output rows from which a layer is large
  bool low_memory = false;
  uint64_t tile_rows = 4096;  // weight rows of a tile
};

// Reads the variables in that order; low-memory mode only for a format whose tile rule asks for it. A value without
// digits throws std::invalid_argument, one out of range std::out_of_range, with the texts of the standard conversions.
tile_policy read_tile_policy(int32_t qtype);

}  // namespace corvane
