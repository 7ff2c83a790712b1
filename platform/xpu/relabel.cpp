#include "platform/xpu/relabel.hpp"

#include <ATen/ops/zeros.h>

#ifdef CORVANE_TORCH_NAMES_DIMENSIONS
#include <ATen/core/NamedTensor.h>
#endif

#include "platform/xpu/allocator.hpp"
#include "platform/xpu/stream.hpp"

namespace xpu {
namespace {

const c10::Device cpu(c10::DeviceType::CPU);

void drop_storage(void* storage) {
  c10::intrusive_ptr<c10::StorageImpl>::reclaim(static_cast<c10::StorageImpl*>(storage));
}

// A storage on `device` over the memory of another, which it keeps alive.
c10::Storage share(const c10::Storage& storage, c10::Device device, c10::Allocator* allocator, bool resizable) {
  void* memory = storage.data_ptr().get();
  const std::size_t bytes = storage.nbytes();
  void* owner = c10::Storage(storage).unsafeReleaseStorageImpl();
  return c10::Storage(
      c10::make_intrusive<c10::StorageImpl>(c10::StorageImpl::use_byte_size_t(), static_cast<int64_t>(bytes),
                                            c10::DataPtr(memory, owner, &drop_storage, device), allocator, resizable));
}

// A tensor with everything of `like` but the device and the storage.
at::Tensor same_view(const at::Tensor& like, c10::Storage storage, c10::DispatchKey key) {
  at::Tensor tensor =
      at::detail::make_tensor<c10::TensorImpl>(std::move(storage), c10::DispatchKeySet(key), like.dtype());
  c10::TensorImpl* impl = tensor.unsafeGetTensorImpl();
  impl->set_sizes_and_strides(like.sizes(), like.strides());
  impl->set_storage_offset(like.storage_offset());
  if (like.is_conj()) impl->_set_conj(true);
  if (like.is_neg()) impl->_set_neg(true);
  if (like.unsafeGetTensorImpl()->is_wrapped_number()) impl->set_wrapped_number(true);
#ifdef CORVANE_TORCH_NAMES_DIMENSIONS
  if (like.has_names()) at::impl::internal_set_names_inplace(impl, like.opt_names(), /*validate_names=*/false);
#endif
  return tensor;
}

}  // namespace

c10::Storage relabelling::cpu_storage(const c10::Storage& storage) {
  for (const storage_pair& p : storages_) {
    if (p.xpu.is_alias_of(storage)) return p.cpu;
  }
  c10::Storage twin = share(storage, cpu, relabelled_allocator(), storage.unsafeGetStorageImpl()->resizable());
  storages_.push_back({storage, twin});
  return twin;
}

c10::Storage relabelling::xpu_storage(const c10::Storage& storage) {
  for (const storage_pair& p : storages_) {
    if (p.cpu.is_alias_of(storage)) return p.xpu;
  }
  c10::Storage twin = share(storage, device(), device_allocator(), true);
  storages_.push_back({twin, storage});
  return twin;
}

at::Tensor relabelling::to_cpu(const at::Tensor& tensor) {
  for (const pair& p : tensors_) {
    if (p.xpu.is_same(tensor)) return p.cpu;
  }
  TORCH_CHECK(tensor.layout() == at::kStrided && tensor.has_storage() && !tensor.is_quantized(),
              "the XPU device has dense tensors only, not ", tensor.toString());
  at::Tensor twin = same_view(tensor, cpu_storage(tensor.storage()), c10::DispatchKey::CPU);
  tensors_.push_back({tensor, twin});
  return twin;
}

at::Tensor relabelling::to_cpu_widened(const at::Tensor& tensor, at::ScalarType wider, bool written) {
  for (pair& p : tensors_) {
    if (!p.xpu.is_same(tensor)) continue;
    p.written |= written;  // one tensor may be both input and output
    return p.cpu;
  }
  at::Tensor twin = to_cpu(tensor).to(wider);
  tensors_.back() = {tensor, twin, /*widened=*/true, written};
  return twin;
}

void relabelling::finish() {
  for (pair& p : tensors_) {
    if (!p.widened || !p.written) continue;
    const at::Tensor narrow = same_view(p.xpu, cpu_storage(p.xpu.storage()), c10::DispatchKey::CPU);
    if (narrow.sizes() != p.cpu.sizes()) narrow.resize_(p.cpu.sizes());
    narrow.copy_(p.cpu);
    p.narrow = narrow;
  }
  for (const storage_pair& p : storages_) {
    c10::StorageImpl* of_xpu = p.xpu.unsafeGetStorageImpl();
    c10::StorageImpl* of_cpu = p.cpu.unsafeGetStorageImpl();
    if (of_cpu->data_ptr().get_context() == of_xpu) continue;  // the memory is still the device's
    of_xpu->set_data_ptr_noswap(relabel(of_cpu->set_data_ptr(c10::DataPtr(nullptr, cpu)), device()));
    of_xpu->set_nbytes(of_cpu->nbytes());
  }
  for (const pair& p : tensors_) {
    if (!p.widened) {
      follow(p.xpu, p.cpu);
    } else if (p.written) {
      follow(p.xpu, p.narrow);
    }
  }
}

void relabelling::follow(const at::Tensor& tensor, const at::Tensor& twin) {
  c10::TensorImpl* impl = tensor.unsafeGetTensorImpl();
  const c10::Storage storage = xpu_storage(twin.storage());
  if (!storage.is_alias_of(tensor.storage())) impl->set_storage_keep_dtype(storage);
  if (twin.sizes() != tensor.sizes() || twin.strides() != tensor.strides() ||
      twin.storage_offset() != tensor.storage_offset()) {
    impl->set_sizes_and_strides(twin.sizes(), twin.strides());
    impl->set_storage_offset(twin.storage_offset());
  }
  if (twin.is_conj() != tensor.is_conj()) impl->_set_conj(twin.is_conj());
  if (twin.is_neg() != tensor.is_neg()) impl->_set_neg(twin.is_neg());
}

at::Tensor relabelling::to_xpu(const at::Tensor& result) {
  if (!result.defined() || !result.device().is_cpu()) return result;
  for (const pair& p : tensors_) {
    if (result.is_same(p.cpu)) return p.xpu;
  }
  TORCH_CHECK(result.layout() == at::kStrided && !result.is_quantized(), "the XPU device has dense tensors only: a ",
              result.toString(), " cannot be moved to it");
  if (result._is_zerotensor()) return to_xpu(at::zeros(result.sizes(), result.scalar_type()));
  return same_view(result, xpu_storage(result.storage()), c10::DispatchKey::XPU);
}

}  // namespace xpu
