// Dense product y = x w^T + bias on the host's cores, for `linear` on the XPU device. Includes no tensor header.
#pragma once

#include <cstddef>

namespace xpu {

template <class T>  // float, Half, BFloat16
struct product_arguments {
  const T* x;  // (rows, depth)
  const T* w;  // (columns, depth), rows w_stride elements apart
  std::size_t w_stride;
  const T* bias;                     // (columns), or null
  T* y;                              // (rows, columns)
  std::size_t rows, columns, depth;  // none is 0
};

// Sums in float, whatever T is, and rounds once. Runs on all cores.
template <class T>
void product(const product_arguments<T>& p);

}  // namespace xpu
