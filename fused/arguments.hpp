// Checks of tensors that the fused operators share: what a kernel takes for granted, refused before anything is
// launched.
#pragma once

#include <ATen/core/Tensor.h>

#include <string>

#include "formats/registry.hpp"

namespace corvane {

// A tensor under the name that messages give it.
struct argument {
  const char* name;
  const at::Tensor& tensor;
};

inline void check_device(const argument& a, c10::Device device, const origin& where) {
  if (a.tensor.device() != device) {
    fail(where, std::string(a.name) + " must be on " + device.str() + ", found on " + a.tensor.device().str());
  }
}

// Packed bytes: size(0) is their number.
inline void check_packed(const argument& a, const origin& where) {
  if (a.tensor.scalar_type() != c10::ScalarType::Byte) {
    fail(where, std::string(a.name) + " must be unsigned bytes, found " + c10::toString(a.tensor.scalar_type()));
  }
  if (a.tensor.dim() < 1 || a.tensor.numel() < a.tensor.size(0)) {
    fail(where, std::string(a.name) + " must have its bytes in dimension 0");
  }
}

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
