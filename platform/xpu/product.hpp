// Dense product y = x w^T + bias on the host's cores, for `linear` on the XPU device. Includes no tensor header.
#pragma once

#include <cstddef>

#include "platform/xpu/expanded_product.hpp"

namespace xpu {

template <class T>  // float, Half, BFloat16
struct product_arguments {
  const T* x;  // (rows, depth)
  const T* w;  // (columns, depth), rows w_stride elements apart
  std::size_t w_stride;
  const T* bias;                          // (columns), or null
  T* y;                                   // (rows, columns)
  std::size_t rows, columns, depth;       // none is 0
  const row_source<T>* w_rows = nullptr;  // makes rows of w, tile by tile, where w is null
};

// Sums in float, whatever T is, and rounds once. Runs on all cores.
template <class T>
void product(const product_arguments<T>& p);

}  // namespace xpu
