// The operators that the XPU device brings itself: making tensors, views, resizing, copies, reading one element.
// Everything else but `linear` goes through the fallback.
#include <ATen/EmptyTensor.h>
#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/ops/_local_scalar_dense.h>
#include <ATen/ops/_reshape_alias_native.h>
#include <ATen/ops/as_strided_native.h>
#include <ATen/ops/resize_native.h>
#include <ATen/ops/set_native.h>
#include <ATen/ops/view_native.h>
#include <c10/core/DispatchKeySet.h>
#include <torch/library.h>

#include <cstring>

#include "platform/sycl/parallel.hpp"
#include "platform/xpu/allocator.hpp"
#include "platform/xpu/one_thread.hpp"
#include "platform/xpu/relabel.hpp"
#include "platform/xpu/stream.hpp"

namespace xpu {
namespace {

constexpr c10::DispatchKeySet xpu_keys(c10::DispatchKey::XPU);

void check_options(c10::optional<at::Layout> layout, c10::optional<at::Device> wanted, c10::optional<bool> pin_memory) {
  TORCH_CHECK(!layout || *layout == at::kStrided, "the XPU device has dense tensors only, not layout ", *layout);
  TORCH_CHECK(!wanted || wanted->index() < device_count, "XPU device ", *wanted, " does not exist: there is ",
              device_count);
  TORCH_CHECK(!pin_memory || !*pin_memory, "Only dense CPU tensors can be pinned");
}

at::Tensor empty(at::IntArrayRef sizes, c10::optional<at::ScalarType> dtype, c10::optional<at::Layout> layout,
                 c10::optional<at::Device> wanted, c10::optional<bool> pin_memory,
                 c10::optional<at::MemoryFormat> format) {
  check_options(layout, wanted, pin_memory);
  return at::detail::empty_generic(sizes, device_allocator(), xpu_keys, c10::dtype_or_default(dtype), format);
}

at::Tensor empty_strided(at::IntArrayRef sizes, at::IntArrayRef strides, c10::optional<at::ScalarType> dtype,
                         c10::optional<at::Layout> layout, c10::optional<at::Device> wanted,
                         c10::optional<bool> pin_memory) {
  check_options(layout, wanted, pin_memory);
  return at::detail::empty_strided_generic(sizes, strides, device_allocator(), xpu_keys, c10::dtype_or_default(dtype));
}

bool same_layout(const at::Tensor& a, const at::Tensor& b) {
  return a.scalar_type() == b.scalar_type() && a.sizes() == b.sizes() && a.strides() == b.strides() &&
         a.is_non_overlapping_and_dense() && a.is_conj() == b.is_conj() && a.is_neg() == b.is_neg();
}

// Copies between any two of CPU and XPU tensors, with broadcasting and conversion. Copies of one layout are plain
// bytes.
at::Tensor copy_from(const at::Tensor& source, const at::Tensor& target, bool /*non_blocking*/) {
  for (const at::Tensor& tensor : {source, target}) {
    TORCH_CHECK(tensor.is_cpu() || tensor.is_xpu(), "the XPU device cannot copy from or to ", tensor.device());
  }
  constexpr std::size_t worth_dividing = std::size_t{1} << 20;  // bytes; below, one core is as fast
  if (source.layout() == at::kStrided && target.layout() == at::kStrided && same_layout(source, target) &&
      source.nbytes() >= worth_dividing) {
    const auto* from = static_cast<const char*>(source.data_ptr());
    auto* to = static_cast<char*>(target.data_ptr());
    if (from == to) return target;
    if (from + source.nbytes() <= to || to + source.nbytes() <= from) {
      host::parallel_for(source.nbytes(), worth_dividing / 2, [&](std::size_t begin, std::size_t end) {
        std::memcpy(to + begin, from + begin, end - begin);
      });
      return target;
    }
  }
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  c10::optional<one_thread> alone;
  if (source.nbytes() + target.nbytes() < worth_other_threads) alone.emplace();
  relabelling labels;
  at::Tensor cpu_target = target.is_xpu() ? labels.to_cpu(target) : target;
  cpu_target.copy_(source.is_xpu() ? labels.to_cpu(source) : source);
  return target;
}

#ifdef CORVANE_TORCH_HAS_ACCELERATORS
// Releases with an XPU device of their own do not ask _copy_from for its tensors.
at::Tensor& copy(at::Tensor& target, const at::Tensor& source, bool non_blocking) {
  if (!target.is_same(source)) copy_from(source, target, non_blocking);
  return target;
}
TORCH_LIBRARY_IMPL(aten, XPU, library) { library.impl("copy_", TORCH_FN(copy)); }
#endif

at::Tensor copy_from_and_resize(const at::Tensor& source, const at::Tensor& target) {
  target.resize_(source.sizes());
  return copy_from(source, target, false);
}

at::Scalar local_scalar_dense(const at::Tensor& tensor) {
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  relabelling labels;
  return at::_local_scalar_dense(labels.to_cpu(tensor));
}

// The framework's own functions go in as pointers: in a sanitized build their addresses are no constants, as TORCH_FN
// needs.
TORCH_LIBRARY_IMPL(aten, XPU, library) {
  library.impl("empty.memory_format", TORCH_FN(empty));
  library.impl("empty_strided", TORCH_FN(empty_strided));
  library.impl("as_strided", &at::native::as_strided_tensorimpl);
  library.impl("view", &at::native::view);
  library.impl("_reshape_alias", &at::native::_reshape_alias);
  library.impl("resize_", &at::native::resize_);
  library.impl("set_.source_Storage", static_cast<at::Tensor& (*)(at::Tensor&, at::Storage)>(&at::native::set_));
  library.impl("set_.source_Storage_storage_offset", &at::native::set_storage_cpu_);
  library.impl("set_.source_Tensor", &at::native::set_tensor_);
  library.impl("_copy_from", TORCH_FN(copy_from));
  library.impl("_copy_from_and_resize", TORCH_FN(copy_from_and_resize));
  library.impl("_local_scalar_dense", TORCH_FN(local_scalar_dense));
}

// copy_ sees to conjugation, negation and names itself, and reaches the device through _copy_from: resolving them once
// more on the way would copy, and so recurse without end.
void pass_copies_through(torch::Library& library) {
  library.impl("_copy_from", torch::CppFunction::makeFallthrough());
  library.impl("_copy_from_and_resize", torch::CppFunction::makeFallthrough());
}
TORCH_LIBRARY_IMPL(aten, Conjugate, library) { pass_copies_through(library); }
TORCH_LIBRARY_IMPL(aten, Negative, library) { pass_copies_through(library); }
#ifdef CORVANE_TORCH_NAMES_DIMENSIONS
TORCH_LIBRARY_IMPL(aten, Named, library) { pass_copies_through(library); }
#endif

}  // namespace
}  // namespace xpu
