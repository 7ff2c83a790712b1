#pragma once

#include <ATen/core/Tensor.h>
#include <c10/core/GradMode.h>

namespace xpu {

// Whether a derivative with respect to the tensor may be asked for.
inline bool needs_gradient(const at::Tensor& tensor) {
  return tensor.defined() && ((c10::GradMode::is_enabled() && tensor.requires_grad()) || tensor._fw_grad(0).defined());
}

}  // namespace xpu
