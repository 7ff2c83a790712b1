// Tensors of the XPU device seen as tensors of the CPU, and back, without copying: device memory is host memory, so a
// CPU operator can work on it as soon as the labels say so. For the fallback and the device's own operators.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/core/Storage.h>
#include <c10/util/SmallVector.h>

namespace xpu {

// The tensors of one operator call. Keeps each pair of an XPU tensor and its CPU twin, so that what the operator does
// to a twin (new sizes, a grown or another storage) reaches the XPU tensor, and what it returns comes back as the right
// object.
class relabelling {
 public:
  // The CPU twin of an XPU tensor; two tensors that share storage have twins that share storage.
  at::Tensor to_cpu(const at::Tensor& tensor);

  // As to_cpu, but a twin in memory of its own with elements of another type. If `written`, finish() rounds its
  // elements back into the tensor.
  at::Tensor to_cpu_widened(const at::Tensor& tensor, at::ScalarType wider, bool written);

  // To be called after the operator, before its results are taken.
  void finish();

  // What the caller gets for a CPU result: the XPU tensor whose twin it is, a view of the storage that it shares with a
  // twin, or a new XPU tensor that keeps the CPU allocation alive.
  at::Tensor to_xpu(const at::Tensor& result);

 private:
  struct pair {
    at::Tensor xpu, cpu;
    bool widened = false, written = false;
    at::Tensor narrow = {};  // after the operator, the twin of a written tensor that was widened
  };
  struct storage_pair {
    c10::Storage xpu, cpu;
  };
  c10::Storage cpu_storage(const c10::Storage& storage);
  c10::Storage xpu_storage(const c10::Storage& storage);
  void follow(const at::Tensor& tensor, const at::Tensor& twin);

  c10::SmallVector<pair, 4> tensors_;
  c10::SmallVector<storage_pair, 4> storages_;
};

}  // namespace xpu
