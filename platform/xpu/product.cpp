// The product is cut into tiles of columns (rows of the weight) and blocks of rows. Each tile is one call of a
// library's matrix product (tile_product.hpp) on one thread of our own pool: with a pool of its own beside ours the two
// would spin against each other.
#include "platform/xpu/product.hpp"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "platform/sycl/parallel.hpp"
#include "platform/sycl/simd.hpp"
#include "platform/xpu/allocator.hpp"
#include "platform/xpu/one_thread.hpp"
#include "platform/xpu/tile_product.hpp"

namespace xpu {
namespace {

using sycl::BFloat16;
using sycl::Half;

// --- staging: a tile of the weight is brought to the cache as floats, row by row, before its product
// ------------------

template <class T>
void widen(const T* from, float* to, std::size_t n) {
  if constexpr (std::is_same_v<T, float>) {
    std::memcpy(to, from, n * sizeof(float));
    return;
  }
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const sycl::f32x16 lanes = sycl::simd<T, 16>::load(from + i).r[0];
    std::memcpy(to + i, &lanes, sizeof(lanes));
  }
  for (; i < n; ++i) to[i] = static_cast<float>(from[i]);
}

// One row of a tile: adds the bias and rounds.
template <class T>
void narrow(const float* from, const T* bias, T* to, std::size_t n) {
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    auto lanes = sycl::load_bytes<sycl::f32x16>(from + i);
    if (bias != nullptr) lanes += sycl::simd<T, 16>::load(bias + i).r[0];
    sycl::simd<T, 16>::from_float(lanes).store(to + i);
  }
  for (; i < n; ++i) to[i] = static_cast<T>(from[i] + (bias != nullptr ? static_cast<float>(bias[i]) : 0.0F));
}

using float_buffer = buffer<float>;

// --- tiles ----------------------------------------------------------------------------------------------------------

struct tiling {
  std::size_t columns;  // of a tile
  std::size_t tiles;
  std::size_t block_rows;  // rows of a call
  std::size_t row_parts;   // parts that the rows of a tile are divided into, when there are too few tiles
  std::size_t grain;       // pieces (tile, part) worth a fork
};

std::size_t divide_up(std::size_t a, std::size_t b) { return (a + b - 1) / b; }

// Tiles have up to twice the least columns of the rule, and fewer only where each core would not get one.
template <class T>
tiling tile(const product_arguments<T>& p, const tile_rule& rule) {
  const auto workers = static_cast<std::size_t>(host::concurrency());
  const std::size_t least = std::min(rule.least_columns, std::max<std::size_t>(64, p.columns / workers));
  tiling t{};
  t.tiles = std::max<std::size_t>(1, p.columns / least);
  if (t.tiles > workers) t.tiles -= t.tiles % workers;
  t.columns = divide_up(divide_up(p.columns, t.tiles), 16) * 16;
  t.tiles = divide_up(p.columns, t.columns);
  t.block_rows = std::min(p.rows, rule.most_rows);
  t.row_parts = 1;
  if (t.tiles < workers) t.row_parts = std::min(divide_up(p.rows, 32), divide_up(workers, t.tiles));
  constexpr double floats_per_ns = 50, bytes_per_ns = 15, worth_a_fork_ns = 10'000;  // of one core, in rough figures
  const double piece = static_cast<double>(t.columns * p.depth) / static_cast<double>(t.row_parts);
  const double piece_ns =
      piece * std::max(static_cast<double>(p.rows) / floats_per_ns, static_cast<double>(sizeof(T)) / bytes_per_ns);
  t.grain = static_cast<std::size_t>(std::max(1.0, worth_a_fork_ns / piece_ns));
  return t;
}

struct tile_part {
  std::size_t first_column, columns, first_row, end_row;
};

template <class T>
void direct_part(const product_arguments<T>& p, const tiling& t, const tile_part& part) {
  const buffer<T> made(p.w_rows == nullptr ? 0 : part.columns * p.depth);
  if (p.w_rows != nullptr) {
    (*p.w_rows)(part.first_column, part.columns, made.get());
  }
  const T* const w = p.w_rows == nullptr ? p.w + part.first_column * p.w_stride : made.get();
  for (std::size_t row = part.first_row; row < part.end_row; row += t.block_rows) {
    const std::size_t rows = std::min(t.block_rows, part.end_row - row);
    tile_product(product_tile<T>{p.x + row * p.depth, w, p.w_stride,
                                 p.bias != nullptr ? p.bias + part.first_column : nullptr,
                                 p.y + row * p.columns + part.first_column, p.columns, rows, part.columns, p.depth});
  }
}

template <class T>
void staged_part(const product_arguments<T>& p, const tiling& t, const tile_part& part, const float* x) {
  const float_buffer w(part.columns * p.depth), y(t.block_rows * part.columns);
  if (p.w_rows == nullptr) {
    for (std::size_t column = 0; column < part.columns; ++column) {
      widen(p.w + (part.first_column + column) * p.w_stride, w.get() + column * p.depth, p.depth);
    }
  } else if constexpr (std::is_same_v<T, float>) {
    (*p.w_rows)(part.first_column, part.columns, w.get());
  } else {
    const buffer<T> made(part.columns * p.depth);
    (*p.w_rows)(part.first_column, part.columns, made.get());
    widen(made.get(), w.get(), part.columns * p.depth);
  }
  for (std::size_t row = part.first_row; row < part.end_row; row += t.block_rows) {
    const std::size_t rows = std::min(t.block_rows, part.end_row - row);
    tile_product(product_tile<float>{x + row * p.depth, w.get(), p.depth, nullptr, y.get(), part.columns, rows,
                                     part.columns, p.depth});
    for (std::size_t i = 0; i < rows; ++i) {
      narrow(y.get() + i * part.columns, p.bias != nullptr ? p.bias + part.first_column : nullptr,
             p.y + (row + i) * p.columns + part.first_column, part.columns);
    }
  }
}

}  // namespace

template <class T>
void product(const product_arguments<T>& p) {
  const tile_rule rule = tile_rule_of<T>(p.rows);
  const bool direct = rule.direct;
  const tiling t = tile(p, rule);
  const bool widens = !direct && !std::is_same_v<T, float>;
  const float_buffer wide(widens ? p.rows * p.depth : 0);
  if (widens) widen(p.x, wide.get(), p.rows * p.depth);
  const std::size_t part_rows = divide_up(p.rows, t.row_parts);
  host::parallel_for(t.tiles * t.row_parts, t.grain, [&](std::size_t begin, std::size_t end) {
    const one_thread within;
    for (std::size_t i = begin; i < end; ++i) {
      tile_part part{};
      part.first_column = i / t.row_parts * t.columns;
      part.columns = std::min(t.columns, p.columns - part.first_column);
      part.first_row = std::min(p.rows, i % t.row_parts * part_rows);
      part.end_row = std::min(p.rows, part.first_row + part_rows);
      if (direct) {
        direct_part(p, t, part);
      } else if constexpr (std::is_same_v<T, float>) {
        staged_part(p, t, part, p.x);
      } else {
        staged_part(p, t, part, wide.get());
      }
    }
  });
}

template void product(const product_arguments<float>&);
template void product(const product_arguments<Half>&);
template void product(const product_arguments<BFloat16>&);

}  // namespace xpu
