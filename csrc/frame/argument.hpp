// A tensor of a call under the name that messages give it, and what operators ask of one before they launch.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/core/GradMode.h>

#include <initializer_list>
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

// Operators compute no gradients: what they return and write would lose one without a word.
inline void check_no_gradients(std::initializer_list<argument> floating, const origin& where) {
  const bool recording = c10::GradMode::is_enabled();
  for (const argument& a : floating) {
    if ((recording && a.tensor.requires_grad()) || a.tensor._fw_grad(0).defined()) {
      fail(where, std::string(a.name) +
                      " requires a gradient, which no operator of corvane computes: call it under torch.no_grad(), or "
                      "pass a detached tensor");
    }
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
