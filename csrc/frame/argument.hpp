// A tensor of a call under the name that messages give it, and what operators ask of one before they launch.
#pragma once

#include <ATen/core/Tensor.h>

#include <string>

#include "frame/check.hpp"

namespace corvane {

struct argument {
  const char* name;
  const at::Tensor& tensor;
};

inline void check_on_xpu(const argument& a, const origin& where) {
  if (!a.tensor.is_xpu()) fail(where, std::string(a.name) + " must be a XPU tensor");
}

inline void check_contiguous(const argument& a, const origin& where) {
  if (!a.tensor.is_contiguous()) fail(where, std::string(a.name) + " must be contiguous");
}

inline void check_device(const argument& a, c10::Device device, const origin& where) {
  if (a.tensor.device() != device) {
    fail(where, std::string(a.name) + " must be on " + device.str() + ", found on " + a.tensor.device().str());
  }
}

// Packed bytes: size(0) is their number. Dimensions after the first are not looked at; one of size 0 would leave the
// first without data.
inline void check_packed(const argument& a, const origin& where) {
  const std::string name = a.name;
  if (a.tensor.dim() < 1) fail(where, name + " must have at least one dimension");
  if (a.tensor.scalar_type() != c10::ScalarType::Byte) {
    fail(where, name + " must be unsigned bytes, found " + c10::toString(a.tensor.scalar_type()));
  }
  if (a.tensor.numel() < a.tensor.size(0)) fail(where, name + " must not have an empty dimension behind the first");
}

}  // namespace corvane
