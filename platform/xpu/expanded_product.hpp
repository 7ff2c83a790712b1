// Dense product y = x w^T of a weight that exists a few rows at a time: whoever makes its rows is called for each tile
// by the thread that multiplies it, so that the tile stays in that core's cache. Includes no tensor header.
#pragma once

#include <cstddef>
#include <memory>

namespace xpu {

// A borrowed callable (first_row, rows, to): writes rows of the weight, `depth` elements each, behind each other.
template <class T>
class row_source {
 public:
  template <class F>
  row_source(const F& f)  // NOLINT(google-explicit-constructor): a parameter type, as function_ref is
      : object_(std::addressof(f)), call_([](const void* object, std::size_t first, std::size_t rows, T* to) {
          (*static_cast<const F*>(object))(first, rows, to);
        }) {}
  void operator()(std::size_t first, std::size_t rows, T* to) const { call_(object_, first, rows, to); }

 private:
  const void* object_;
  void (*call_)(const void*, std::size_t, std::size_t, T*);
};

template <class T>  // float, Half, BFloat16
struct expanded_product_arguments {
  const T* x;                        // (rows, depth)
  T* y;                              // (rows, columns)
  std::size_t rows, columns, depth;  // none is 0; depth is a multiple of 64
};

// Sums in float, whatever T is, and rounds once. Runs on all cores; w is called from each.
template <class T>
void expanded_product(const expanded_product_arguments<T>& p, row_source<T> w);

}  // namespace xpu
