// The framework's attention in releases with an XPU device of their own: it chooses a kernel by device and takes this
// one for that. Here it is the CPU's, and with gradients the formula in differentiable operators.
#ifdef CORVANE_TORCH_HAS_ACCELERATORS
#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <torch/library.h>

#include "platform/xpu/fallback.hpp"
#include "platform/xpu/gradient.hpp"

namespace xpu {
namespace {

constexpr std::ptrdiff_t dropout_mask = 6;  // its place among the formula's arguments; the others are the same

void attention_autograd(const c10::OperatorHandle& op, torch::jit::Stack* stack) {
  const std::size_t count = op.schema().arguments().size();
  bool gradient = false;
  for (const c10::IValue& value : torch::jit::last(*stack, count)) {
    gradient |= value.isTensor() && needs_gradient(value.toTensor());
  }
  if (!gradient) {
    const at::AutoDispatchBelowADInplaceOrView below_autograd;
    return op.callBoxed(stack);
  }
  static const auto formula =
      c10::Dispatcher::singleton().findSchemaOrThrow("aten::_scaled_dot_product_attention_math", "");
  stack->insert(stack->end() - static_cast<std::ptrdiff_t>(count) + dropout_mask, c10::IValue());
  formula.callBoxed(stack);
  stack->pop_back();  // the weights
}

TORCH_LIBRARY_IMPL(aten, XPU, library) {
  library.impl("scaled_dot_product_attention", torch::CppFunction::makeFromBoxedFunction<&fallback>());
}
TORCH_LIBRARY_IMPL(aten, AutogradXPU, library) {
  library.impl("scaled_dot_product_attention", torch::CppFunction::makeFromBoxedFunction<&attention_autograd>());
}

}  // namespace
}  // namespace xpu
#endif
