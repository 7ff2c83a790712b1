// The framework's attention in releases with an XPU device of their own: it chooses a kernel by device and takes this
// one for that. Here it is the device's own for one row over a cache, as decoding has it, else the CPU's, and with
// gradients the formula in differentiable operators.
#ifdef CORVANE_TORCH_HAS_ACCELERATORS
#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <torch/library.h>

#include <cmath>

#include "platform/xpu/fallback.hpp"
#include "platform/xpu/gradient.hpp"
#include "platform/xpu/row_operators.hpp"

namespace xpu {
namespace {

constexpr std::ptrdiff_t dropout_mask = 6;  // its place among the formula's arguments; the others are the same

// Whether row_attention gives what the arguments ask for: query, key, value, mask, dropout, causality, scale and, in
// later releases, whether heads are shared.
bool is_one_row(c10::ArrayRef<c10::IValue> arguments) {
  const at::Tensor &query = arguments[0].toTensor(), &keys = arguments[1].toTensor(), &values = arguments[2].toTensor();
  const at::ScalarType type = query.scalar_type();
  if (type != at::kFloat && type != at::kHalf && type != at::kBFloat16) return false;
  for (const at::Tensor* tensor : {&query, &keys, &values}) {
    if (!tensor->is_xpu() || tensor->scalar_type() != type || tensor->dim() != 4 || tensor->size(0) != 1 ||
        tensor->stride(3) != 1 || tensor->is_neg() || tensor->numel() == 0) {
      return false;
    }
  }
  const int64_t heads = query.size(1), kv_heads = keys.size(1), head_size = query.size(3);
  const bool shared = arguments.size() > 7 && arguments[7].toBool();
  const double scale = 1.0 / std::sqrt(static_cast<double>(head_size));
  return query.size(2) == 1 && head_size % 16 == 0 && keys.sizes() == values.sizes() && keys.size(3) == head_size &&
         (heads == kv_heads || (shared && heads % kv_heads == 0)) && arguments[3].isNone() &&
         arguments[4].toDouble() == 0.0 && (!arguments[5].toBool() || keys.size(2) == 1) &&
         (arguments[6].isNone() || std::abs(arguments[6].toDouble() - scale) < 1e-6 * scale);
}

void attention(const c10::OperatorHandle& op, torch::jit::Stack* stack) {
  const std::size_t count = op.schema().arguments().size();
  const auto arguments = torch::jit::last(*stack, count);
  if (!is_one_row(arguments)) return fallback(op, stack);
  const at::Tensor query = arguments[0].toTensor();
  at::Tensor y =
      row_attention(query.contiguous(), arguments[1].toTensor(), arguments[2].toTensor()).view(query.sizes());
  torch::jit::drop(*stack, count);
  stack->emplace_back(std::move(y));
}

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
  library.impl("scaled_dot_product_attention", torch::CppFunction::makeFromBoxedFunction<&attention>());
}
TORCH_LIBRARY_IMPL(aten, AutogradXPU, library) {
  library.impl("scaled_dot_product_attention", torch::CppFunction::makeFromBoxedFunction<&attention_autograd>());
}

}  // namespace
}  // namespace xpu
#endif
