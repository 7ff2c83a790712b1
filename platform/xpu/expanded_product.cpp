// Both operands lie along the depth, so lanes are elements of a dot product: nothing is packed or turned. A few rows of
// x meet a few rows of w in registers; their lanes are added up at the end.
#include "platform/xpu/expanded_product.hpp"

#include <algorithm>
#include <type_traits>

#include "platform/sycl/parallel.hpp"
#include "platform/sycl/simd.hpp"
#include "platform/sycl/systolic.hpp"
#include "platform/sycl/tuning.hpp"
#include "platform/xpu/allocator.hpp"
#include "platform/xpu/product.hpp"

namespace xpu {
namespace {

using sycl::BFloat16;
using sycl::f32x16;
using sycl::Half;

constexpr unsigned x_rows = sycl::tuning::product_rows;     // most rows of x that meet in registers
constexpr unsigned w_rows = sycl::tuning::product_columns;  // rows of w

// What 16 lanes of an operand are loaded as. BFloat16 goes in pairs, 32 elements at a time; Half is widened, of x
// beforehand.
template <class T>
struct operands {
  using x_element = float;
  static constexpr std::size_t step = 16;
  static CORVANE_INLINE f32x16 load_x(const float* x) { return sycl::load_bytes<f32x16>(x); }
  static CORVANE_INLINE f32x16 load_w(const T* w) { return sycl::simd<T, 16>::load(w).r[0]; }
  static CORVANE_INLINE f32x16 add(f32x16 x, f32x16 w, f32x16 sum) { return sycl::fused_multiply_add(x, w, sum); }
};
template <>
struct operands<BFloat16> {
  using x_element = BFloat16;
  static constexpr std::size_t step = 32;
  static CORVANE_INLINE sycl::i32x16 load_x(const BFloat16* x) { return sycl::load_bytes<sycl::i32x16>(x); }
  static CORVANE_INLINE sycl::i32x16 load_w(const BFloat16* w) { return sycl::load_bytes<sycl::i32x16>(w); }
  static CORVANE_INLINE f32x16 add(sycl::i32x16 x, sycl::i32x16 w, f32x16 sum) {
    return sycl::multiply_add_pairs_flushing(x, w, sum);
  }
};

template <class T>
struct job {
  const expanded_product_arguments<T>& p;
  const typename operands<T>::x_element* x;
};

// Rows `row` to `row` + M - 1 of x against w_rows rows at w, of which `columns` exist, the first being `column` of y.
template <class T, unsigned M>
void multiply_tile(const job<T>& j, std::size_t row, const T* w, std::size_t column, unsigned columns) {
  using op = operands<T>;
  const std::size_t depth = j.p.depth;
  const auto* x = j.x + row * depth;
  const T* at[w_rows];
  for (unsigned n = 0; n < w_rows; ++n) at[n] = w + std::min(n, columns - 1) * depth;
  f32x16 sum[M][w_rows] = {};
  for (std::size_t k = 0; k < depth; k += op::step) {
    decltype(op::load_w(w)) lanes[w_rows];
    sycl::unroll<w_rows>([&](auto n) CORVANE_INLINE_LAMBDA { lanes[n] = op::load_w(at[n] + k); });
    sycl::unroll<M>([&](auto m) CORVANE_INLINE_LAMBDA {
      const auto values = op::load_x(x + m * depth + k);
      sycl::unroll<w_rows>([&](auto n) CORVANE_INLINE_LAMBDA { sum[m][n] = op::add(values, lanes[n], sum[m][n]); });
    });
  }
  constexpr unsigned trees = (M * w_rows + 15) / 16;
  for (unsigned t = 0; t < trees; ++t) {
    sycl::simd<float, 16> parts[16];
    for (unsigned i = 0; i < 16; ++i) {
      const unsigned n = 16 * t + i;
      parts[i] =
          n < M * w_rows ? sycl::simd<float, 16>::exact(sum[n / w_rows][n % w_rows]) : sycl::simd<float, 16>::zero();
    }
    T totals[16];
    sycl::simd<T, 16>::from_float(sum_trees(parts).r[0]).store(totals);
    for (unsigned i = 0; i < 16 && 16 * t + i < M * w_rows; ++i) {
      const unsigned m = (16 * t + i) / w_rows, n = (16 * t + i) % w_rows;
      if (n < columns) j.p.y[(row + m) * j.p.columns + column + n] = totals[i];
    }
  }
}

// As multiply_tile, for 1 to x_rows rows.
template <class T>
void multiply_rows(const job<T>& j, std::size_t row, unsigned rows, const T* w, std::size_t column, unsigned columns) {
  sycl::unroll<x_rows>([&](auto m) {
    if (rows == m + 1) multiply_tile<T, m + 1>(j, row, w, column, columns);
  });
}

std::size_t divide_up(std::size_t a, std::size_t b) { return (a + b - 1) / b; }

}  // namespace

template <class T>
void expanded_product(const expanded_product_arguments<T>& p, row_source<T> w) {
  if (p.rows > sycl::tuning::product_few_rows<T>) {
    return product(product_arguments<T>{p.x, nullptr, p.depth, nullptr, p.y, p.rows, p.columns, p.depth, &w});
  }
  constexpr bool widens = std::is_same_v<T, Half>;
  const buffer<float> wide(widens ? p.rows * p.depth : 0);
  job<T> j{p, nullptr};
  if constexpr (widens) {
    for (std::size_t i = 0; i < p.rows * p.depth; i += 16) {
      sycl::simd<T, 16>::load(p.x + i).store_lanes(wide.get() + i);
    }
    j.x = wide.get();
  } else {
    j.x = p.x;
  }
  const std::size_t fitting = sycl::tuning::product_tile_bytes / (p.depth * sizeof(T)) / w_rows * w_rows;
  const std::size_t tile_rows = std::clamp<std::size_t>(fitting, w_rows, 64);
  const std::size_t tiles = divide_up(p.columns, tile_rows);
  const std::size_t parts = divide_up(p.rows, x_rows);
  host::parallel_for(tiles, 1, [&](std::size_t begin, std::size_t end) {
    const buffer<T> tile(tile_rows * p.depth);
    for (std::size_t t = begin; t < end; ++t) {
      const std::size_t first = t * tile_rows, rows = std::min(tile_rows, p.columns - first);
      w(first, rows, tile.get());
      for (std::size_t part = 0; part < parts; ++part) {
        const std::size_t row = p.rows * part / parts, count = p.rows * (part + 1) / parts - row;
        for (std::size_t n = 0; n < rows; n += w_rows) {
          multiply_rows(j, row, static_cast<unsigned>(count), tile.get() + n * p.depth, first + n,
                        static_cast<unsigned>(std::min<std::size_t>(w_rows, rows - n)));
        }
      }
    }
  });
}

template void expanded_product(const expanded_product_arguments<float>&, row_source<float>);
template void expanded_product(const expanded_product_arguments<Half>&, row_source<Half>);
template void expanded_product(const expanded_product_arguments<BFloat16>&, row_source<BFloat16>);

}  // namespace xpu
