// The environment variables that steer a linear call, read afresh at every call.
#pragma once

#include <cstdint>
#include <optional>

namespace corvane {

// VOREL_LLM_SYSDOT_DISABLED: the systolic path is open unless it is exactly "1".
bool systolic_allowed();

// TILE_THRESHOLD, TARN_LLM_LOW_MEM, TILE_SIZE, as the launchers of q4_0, q8_0 and fp8_e5m2 read them.
struct tile_policy {
  int64_t threshold = 50000;  // output rows from which a layer is large
  bool low_memory = false;
  uint64_t tile_rows = 4096;  // weight rows of a tile
};

// Reads the variables in that order; low-memory mode only for a format whose tile rule asks for it. A value without
// digits throws std::invalid_argument, one out of range std::out_of_range, with the texts of the standard conversions.
tile_policy read_tile_policy(int32_t qtype);

// What a decision asks for. What is not given comes from the environment, read when it is asked for.
struct linear_policy {
  std::optional<bool> systolic = std::nullopt;
  std::optional<tile_policy> fixed_tiles = std::nullopt;

  bool systolic_allowed() const { return systolic ? *systolic : corvane::systolic_allowed(); }
  tile_policy tiles(int32_t qtype) const { return fixed_tiles ? *fixed_tiles : read_tile_policy(qtype); }
};

}  // namespace corvane
