#include "ops/bmm.hpp"

#include <ATen/MemoryOverlap.h>

#include <string>

#include "frame/check.hpp"
#include "ops/bmm_xpu_kernel.hpp"

namespace corvane {

at::Tensor bmm_xpu(at::Tensor a, at::Tensor b, at::Tensor c) {
  const origin where{"bmm_xpu_kernel", "bmm_xpu"};
  check(a.dim() == 3 && b.dim() == 3, where, "Input tensors must have 3 dimensions");
  check(a.size(0) == b.size(0) && a.size(2) == b.size(1), where,
        "Input tensors dimensions do not match for batch multiplication");

  const int64_t batch = a.size(0), m = a.size(1), k = a.size(2), n = b.size(2);
  const auto* from_a = a.data_ptr<float>();
  const auto* from_b = b.data_ptr<float>();
  auto* to_c = c.data_ptr<float>();
  int64_t needed;
  if (__builtin_mul_overflow(batch, m, &needed) || __builtin_mul_overflow(needed, n, &needed) || c.numel() < needed) {
    fail(where, "C must hold batch * M * N = " + std::to_string(batch) + " * " + std::to_string(m) + " * " +
                    std::to_string(n) + " elements, found " + std::to_string(c.numel()));
  }
  if (needed != 0) {  // an empty range writes nothing, whatever memory they share
    at::assert_no_overlap(c, a);
    at::assert_no_overlap(c, b);
  }
  bmm_xpu_kernel(from_a, from_b, to_c, batch, m, n, k, c10::Device(c10::DeviceType::XPU, -1));
  return c;
}

}  // namespace corvane
