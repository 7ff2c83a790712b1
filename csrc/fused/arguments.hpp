// What the kernels of the fused operators take for granted of a weight, refused before anything is launched.
#pragma once

#include <string>

#include "formats/registry.hpp"
#include "frame/argument.hpp"

namespace corvane {

// Refuses a weight with fewer bytes than `rows` rows of state_size elements take in the format that a kernel reads.
// state_size is a multiple of the format's block.
inline void check_holds(const argument& a, int64_t rows, int64_t state_size, int32_t id, const origin& where) {
  const format_info& format = registry[id];
  const uint64_t needed = static_cast<uint64_t>(rows * (state_size / format.block_elements)) * format.block_bytes;
  if (static_cast<uint64_t>(a.tensor.size(0)) < needed) {
    fail(where, std::string(a.name) + " must hold " + std::to_string(needed) + " bytes of " + format.name + ", found " +
                    std::to_string(a.tensor.size(0)));
  }
}

}  // namespace corvane
