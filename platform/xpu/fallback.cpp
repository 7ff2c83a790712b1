// Every operator that the XPU device has no kernel for: the CPU kernel runs on the same memory. Tensors are
// re-labelled, `device` arguments name the CPU while it runs, and results are labelled back; in-place operators and
// views share storage.
#include "platform/xpu/fallback.hpp"

#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <ATen/core/ivalue.h>
#include <ATen/core/jit_type.h>
#include <c10/util/DimVector.h>
#include <torch/library.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/sycl/fork.hpp"
#include "platform/xpu/one_thread.hpp"
#include "platform/xpu/relabel.hpp"
#include "platform/xpu/stream.hpp"

namespace xpu {
namespace {

using c10::Argument;
using c10::IValue;

// Operators found to lack a CPU kernel for a 16-bit type. They get inputs of that type widened to float.
class widened_operators {
 public:
  bool has(const c10::FunctionSchema& schema, at::ScalarType type) const {
    const std::shared_lock<std::shared_mutex> lock(mutex_);
    return known_.count({&schema, type}) != 0;
  }
  void add(const c10::FunctionSchema& schema, at::ScalarType type) {
    const std::unique_lock<std::shared_mutex> lock(mutex_);
    known_.emplace(&schema, type);
  }

 private:
  std::shared_mutex& mutex_ = host::held_while_forking(new std::shared_mutex);
  std::set<std::pair<const c10::FunctionSchema*, at::ScalarType>> known_;
};

widened_operators& widened = *new widened_operators;  // leaked

bool is_narrow(at::ScalarType type) { return type == at::kHalf || type == at::kBFloat16; }

bool is_written(const Argument& argument) {
  const c10::AliasInfo* alias = argument.alias_info();
  if (alias == nullptr) return false;
  if (alias->isWrite()) return true;
  for (const c10::AliasInfo& element : alias->containedTypes()) {
    if (element.isWrite()) return true;
  }
  return false;
}

bool is_dtype(const Argument& argument) {
  c10::TypePtr type = argument.real_type();
  if (const auto optional = type->cast<c10::OptionalType>()) type = optional->getElementType();
  return type->kind() == c10::TypeKind::ScalarTypeType;
}

bool is_half_to_float(const Argument& argument, const IValue& value) {
  return value.isBool() && value.toBool() && argument.name() == "half_to_float";
}

// An estimate of the bytes that an operator touches: its tensors together, or, if it broadcasts them against each
// other, what that makes.
class work {
 public:
  void add(const at::Tensor& tensor) {
    if (tensor.layout() != at::kStrided) return;
    sum_ += tensor.nbytes();
    item_ = std::max(item_, tensor.itemsize());
    const at::IntArrayRef sizes = tensor.sizes();
    if (sizes.size() > sizes_.size()) sizes_.insert(sizes_.begin(), sizes.size() - sizes_.size(), 1);
    const std::size_t first = sizes_.size() - sizes.size();
    for (std::size_t i = 0; i < sizes.size(); ++i) sizes_[first + i] = std::max(sizes_[first + i], sizes[i]);
  }
  std::size_t bytes() const {
    double together = static_cast<double>(item_);  // no whole number: it may be as large as any
    for (const int64_t size : sizes_) together *= static_cast<double>(size);
    constexpr double most = 1e18;
    return std::max(sum_, static_cast<std::size_t>(std::min(together, most)));
  }

 private:
  c10::DimVector sizes_;
  std::size_t sum_ = 0, item_ = 0;
};

// The arguments of one call on their way to the CPU kernel, and its results on their way back.
class call {
 public:
  call(const c10::OperatorHandle& op, const std::vector<IValue>& arguments) : op_(op), arguments_(arguments) {
    survey();
  }

  // The 16-bit floating type among the tensors and `dtype` arguments, else Undefined.
  at::ScalarType narrow_type() const { return narrow_; }

  // Whether the operator is to widen its input, which CPU kernels refuse.
  bool half_to_float() const { return half_to_float_; }

  // Pushes the results on the stack. `widen`: 16-bit floating tensors take part as float.
  void run(torch::jit::Stack* stack, bool widen) {
    relabelling labels;
    const std::size_t base = stack->size();
    try {
      for (std::size_t i = 0; i < arguments_.size(); ++i) {
        stack->push_back(to_cpu(arguments_[i], op_.schema().arguments()[i], labels, widen));
      }
      c10::optional<one_thread> alone;
      if (work_.bytes() < worth_other_threads) alone.emplace();
      op_.redispatchBoxed(c10::DispatchKeySet(c10::DispatchKey::CPU), stack);
    } catch (...) {
      stack->erase(stack->begin() + static_cast<std::ptrdiff_t>(base), stack->end());
      throw;
    }
    labels.finish();
    if (results_stay_) return;
    for (std::size_t i = base; i < stack->size(); ++i) (*stack)[i] = to_xpu((*stack)[i], labels, widen);
  }

 private:
  template <class F>
  static void for_each_tensor(const IValue& value, F f) {
    if (value.isTensor()) {
      f(value.toTensor());
    } else if (value.isTensorList()) {
      for (const at::Tensor& tensor : value.toTensorVector()) f(tensor);
    } else if (value.isList()) {  // optional tensors
      for (const IValue& element : value.toListRef()) {
        if (element.isTensor()) f(element.toTensor());
      }
    }
  }

  // Finds the dtypes and refuses tensors of two devices: a CPU tensor may take part as a number (no dimensions, not
  // written) or as an index.
  void survey() {
    const auto& formal = op_.schema().arguments();
    bool any_xpu = false, all_narrow = true;
    const Argument* stranger = nullptr;
    for (std::size_t i = 0; i < arguments_.size(); ++i) {
      const IValue& value = arguments_[i];
      if (value.isDevice()) results_stay_ |= value.toDevice().is_cpu();
      if (value.isInt() && is_dtype(formal[i])) dtype_ = static_cast<at::ScalarType>(value.toInt());
      if (is_half_to_float(formal[i], value)) {
        half_to_float_ = true;
        dtype_ = at::kFloat;
      }
      const bool index = value.isList() && !value.isTensorList();
      for_each_tensor(value, [&](const at::Tensor& tensor) {
        if (!tensor.defined()) return;
        work_.add(tensor);
        if (tensor.is_xpu()) {
          any_xpu = true;
        } else {
          outside_.push_back(tensor);
          if (!index && (tensor.dim() > 0 || is_written(formal[i]))) stranger = &formal[i];
        }
        if (is_narrow(tensor.scalar_type())) {
          narrow_ = tensor.scalar_type();
        } else if (tensor.is_floating_point() && tensor.dim() > 0) {
          all_narrow = false;
        }
      });
    }
    if (dtype_ && is_narrow(*dtype_)) narrow_ = *dtype_;
    if (!dtype_ && narrow_ != at::ScalarType::Undefined && all_narrow) dtype_ = narrow_;
    TORCH_CHECK(!any_xpu || stranger == nullptr,
                "Expected all tensors to be on the same device, but found at least two devices, ", device(),
                " and cpu! (argument '", stranger != nullptr ? stranger->name() : "", "' of ", op_.operator_name(),
                ")");
  }

  static at::Tensor to_cpu(const at::Tensor& tensor, bool written, relabelling& labels, bool widen) {
    if (!tensor.defined() || !tensor.is_xpu()) return tensor;
    if (widen && is_narrow(tensor.scalar_type())) return labels.to_cpu_widened(tensor, at::kFloat, written);
    return labels.to_cpu(tensor);
  }

  static IValue to_cpu(const IValue& value, const Argument& formal, relabelling& labels, bool widen) {
    const bool written = is_written(formal);
    if (value.isTensor()) return to_cpu(value.toTensor(), written, labels, widen);
    if (value.isTensorList()) {
      c10::List<at::Tensor> twins;
      for (const at::Tensor& tensor : value.toTensorVector()) twins.push_back(to_cpu(tensor, written, labels, widen));
      return twins;
    }
    if (value.isOptionalTensorList()) {
      c10::List<c10::optional<at::Tensor>> twins;
      for (const c10::optional<at::Tensor>& tensor : value.toOptionalTensorVector()) {
        twins.push_back(tensor ? c10::optional<at::Tensor>(to_cpu(*tensor, written, labels, widen)) : c10::nullopt);
      }
      return twins;
    }
    if (value.isDevice() && value.toDevice().is_xpu()) return c10::Device(c10::DeviceType::CPU);
    if (is_half_to_float(formal, value)) return false;
    if (widen && value.isInt() && is_dtype(formal) && is_narrow(static_cast<at::ScalarType>(value.toInt()))) {
      return static_cast<int64_t>(at::kFloat);
    }
    return value;
  }

  at::Tensor to_xpu(const at::Tensor& result, relabelling& labels, bool widen) const {
    for (const at::Tensor& tensor : outside_) {
      if (result.defined() && result.is_alias_of(tensor)) return result;
    }
    at::Tensor device_result = labels.to_xpu(result);
    const bool rounds = widen && dtype_ && is_narrow(*dtype_) && result.defined() && result.scalar_type() == at::kFloat;
    if (!rounds || !device_result.is_xpu() || device_result.scalar_type() != at::kFloat) return device_result;
    return labels.to_xpu(result.to(*dtype_));
  }

  IValue to_xpu(const IValue& value, relabelling& labels, bool widen) const {
    if (value.isTensor()) return to_xpu(value.toTensor(), labels, widen);
    if (value.isTensorList()) {
      c10::List<at::Tensor> results;
      for (const at::Tensor& tensor : value.toTensorVector()) results.push_back(to_xpu(tensor, labels, widen));
      return results;
    }
    return value;
  }

  const c10::OperatorHandle& op_;
  const std::vector<IValue>& arguments_;
  std::vector<at::Tensor> outside_;  // CPU tensors among the arguments
  at::ScalarType narrow_ = at::ScalarType::Undefined;
  c10::optional<at::ScalarType> dtype_;  // of results, where it is asked for or plain
  work work_;
  bool half_to_float_ = false;
  bool results_stay_ = false;  // a `device` argument asks for the CPU
};

}  // namespace

void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack) {
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  const c10::FunctionSchema& schema = op.schema();
  const auto first = stack->end() - static_cast<std::ptrdiff_t>(schema.arguments().size());
  const std::vector<IValue> arguments(std::make_move_iterator(first), std::make_move_iterator(stack->end()));
  stack->erase(first, stack->end());

  call c(op, arguments);
  const at::ScalarType narrow = c.narrow_type();
  if (narrow == at::ScalarType::Undefined) return c.run(stack, /*widen=*/false);
  if (c.half_to_float() || widened.has(schema, narrow)) return c.run(stack, /*widen=*/true);
  try {
    c.run(stack, /*widen=*/false);
  } catch (const c10::Error& error) {
    const std::string lacks = std::string("not implemented for '") + c10::toString(narrow) + "'";
    if (std::string(error.what_without_backtrace()).find(lacks) == std::string::npos) throw;
    c.run(stack, /*widen=*/true);
    widened.add(schema, narrow);
  }
}

namespace {

TORCH_LIBRARY_IMPL(_, XPU, library) { library.fallback(torch::CppFunction::makeFromBoxedFunction<&fallback>()); }

// Operators whose composition for any device stands before the fallback. Those of convolution choose by device and do
// not know this one; the others are what the CPU's own kernels replace, and group_norm's divides by a batch of 0.
constexpr const char* composed[] = {
    "convolution", "convolution_backward", "native_group_norm", "native_layer_norm", "_stack", "_stack.out", "addr",
    "addr.out",
};

TORCH_LIBRARY_IMPL(aten, XPU, library) {
  for (const char* name : composed) library.impl(name, torch::CppFunction::makeFromBoxedFunction<&fallback>());
}

}  // namespace
}  // namespace xpu
