// histc of integers: devices count them, the CPU's kernel does not. Libraries that choose by device rely on it.
#include <ATen/core/Tensor.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <ATen/ops/histc.h>
#include <torch/library.h>

#include "platform/xpu/fallback.hpp"

namespace xpu {
namespace {

at::Tensor histc(const at::Tensor& input, int64_t bins, const at::Scalar& least, const at::Scalar& most) {
  if (at::isIntegralType(input.scalar_type(), /*includeBool=*/false)) {
    return at::histc(input.to(at::kDouble), bins, least, most).to(input.scalar_type());
  }
  static const auto op = c10::Dispatcher::singleton().findSchemaOrThrow("aten::histc", "");
  torch::jit::Stack stack{input, bins, least, most};
  fallback(op, &stack);
  return stack.back().toTensor();
}

TORCH_LIBRARY_IMPL(aten, XPU, library) { library.impl("histc", TORCH_FN(histc)); }

}  // namespace
}  // namespace xpu
