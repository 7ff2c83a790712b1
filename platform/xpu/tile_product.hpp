// One tile of a dense product on the calling thread: what product.cpp asks of the library that multiplies. CMake
// chooses the source behind it, in onednn/ or framework/ (cmake/torch.cmake says why). Includes no tensor header.
#pragma once

#include <cstddef>

namespace xpu {

template <class T>  // float, BFloat16
struct product_tile {
  const T* x;  // (rows, depth)
  const T* w;  // (columns, depth), rows w_stride elements apart
  std::size_t w_stride;
  const T* bias;  // (columns), or null
  T* y;           // (rows, columns), rows y_stride elements apart
  std::size_t y_stride;
  std::size_t rows, columns, depth;
};

// Sums in float and rounds once. To be called within a one_thread.
template <class T>
void tile_product(const product_tile<T>& tile);

// Whether the library has a product of BFloat16 that this processor runs fast.
bool has_bfloat16_product();

// As long as it lives, libraries that are called on this thread run on it alone.
class one_thread {
 public:
  one_thread();
  ~one_thread();
  one_thread(const one_thread&) = delete;
  one_thread& operator=(const one_thread&) = delete;

 private:
  int before_;
};

}  // namespace xpu
