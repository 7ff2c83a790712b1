// One tile of a dense product on the calling thread: what product.cpp asks of the library that multiplies. CMake
// chooses the source behind it, in onednn/ or framework/ (cmake/torch.cmake says why). Includes no tensor header.
#pragma once

#include <cstddef>
#include <string>

namespace xpu {

template <class T>  // float, Half, BFloat16
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

// How the library is best called for a product of some rows.
struct tile_rule {
  bool direct;                // from the caller's memory; else a tile of the weight is widened to floats in the cache
  std::size_t least_columns;  // of a tile, so far as there are as many
  std::size_t most_rows;      // of a call
};
template <class T>
tile_rule tile_rule_of(std::size_t rows);

// The library's name and version.
std::string product_library();

constexpr std::size_t few_rows = 15;          // with more, the libraries pack their operands
constexpr std::size_t rows_of_a_block = 128;  // beyond, the packed operands of a call leave the second-level cache

}  // namespace xpu
