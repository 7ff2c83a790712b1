// The framework's `linear` on XPU tensors: input (..., depth) times weight (columns, depth) transposed, plus bias
// (columns). Floating types but double have a product of their own; whatever else the framework accepts goes through
// the fallback, which also words the refusals.
#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/core/Tensor.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <ATen/ops/empty.h>
#include <ATen/ops/linear.h>
#include <ATen/ops/linear_native.h>
#include <torch/library.h>

#include "platform/xpu/fallback.hpp"
#include "platform/xpu/gradient.hpp"
#include "platform/xpu/product.hpp"

namespace xpu {
namespace {

using optional_tensor = c10::optional<at::Tensor>;

bool has_value(const optional_tensor& tensor) { return tensor && tensor->defined(); }

bool has_product(const at::Tensor& input, const at::Tensor& weight, const optional_tensor& bias) {
  const at::ScalarType type = input.scalar_type();
  if (type != at::kFloat && type != at::kHalf && type != at::kBFloat16) return false;
  if (!input.is_xpu() || !weight.is_xpu() || weight.scalar_type() != type || input.dim() < 1 || weight.dim() != 2) {
    return false;
  }
  if (input.size(-1) != weight.size(1) || input.numel() == 0 || weight.numel() == 0) return false;
  return !has_value(bias) ||
         (bias->is_xpu() && bias->scalar_type() == type && bias->dim() == 1 && bias->size(0) == weight.size(0));
}

template <class T>
void run_product(const at::Tensor& x, const at::Tensor& w, const at::Tensor& bias, const at::Tensor& y) {
  const auto depth = static_cast<std::size_t>(w.size(1));
  product(product_arguments<T>{
      x.data_ptr<T>(), w.data_ptr<T>(), w.size(0) == 1 ? depth : static_cast<std::size_t>(w.stride(0)),
      bias.defined() ? bias.data_ptr<T>() : nullptr, y.data_ptr<T>(), static_cast<std::size_t>(x.numel()) / depth,
      static_cast<std::size_t>(w.size(0)), depth});
}

at::Tensor linear(const at::Tensor& input, const at::Tensor& weight, const optional_tensor& bias) {
  if (!has_product(input, weight, bias)) {
    static const auto op = c10::Dispatcher::singleton().findSchemaOrThrow("aten::linear", "");
    torch::jit::Stack stack{input, weight, bias};
    fallback(op, &stack);
    return stack.back().toTensor();
  }
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  const at::Tensor x = input.resolve_neg().contiguous();
  at::Tensor w = weight.resolve_neg();
  if (w.stride(1) != 1 || w.stride(0) < w.size(1)) w = w.contiguous();
  const at::Tensor b = has_value(bias) ? bias->resolve_neg().contiguous() : at::Tensor();
  c10::DimVector sizes(input.sizes());
  sizes.back() = weight.size(0);
  at::Tensor y = at::empty(sizes, input.options());
  if (input.scalar_type() == at::kFloat) {
    run_product<float>(x, w, b, y);
  } else if (input.scalar_type() == at::kHalf) {
    run_product<at::Half>(x, w, b, y);
  } else {
    run_product<at::BFloat16>(x, w, b, y);
  }
  return y;
}

// The product has no derivative of its own: where one may be asked for, the framework's composition of differentiable
// operators runs.
at::Tensor linear_autograd(const at::Tensor& input, const at::Tensor& weight, const optional_tensor& bias) {
  if (needs_gradient(input) || needs_gradient(weight) || (has_value(bias) && needs_gradient(*bias))) {
    return at::native::linear(input, weight, bias);
  }
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  return at::linear(input, weight, bias);  // and not the kernel itself: modes of the framework may stand before it
}

TORCH_LIBRARY_IMPL(aten, XPU, library) { library.impl("linear", TORCH_FN(linear)); }
TORCH_LIBRARY_IMPL(aten, AutogradXPU, library) { library.impl("linear", TORCH_FN(linear_autograd)); }

}  // namespace
}  // namespace xpu
