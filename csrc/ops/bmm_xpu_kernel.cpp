// Batch product of float matrices. The work-items of a basic range, one an element of C, come in boxes of neighbours. A
// box goes along k in steps; of each step it gathers its part of B, which many rows read, in one place, and then makes
// small tiles of C whose sums stay in registers. Every sum runs over k in ascending order.
#include "ops/bmm_xpu_kernel.hpp"

#include <algorithm>
#include <cstring>

#include "frame/launch.hpp"
#include "platform/sycl/simd.hpp"

namespace corvane {
namespace {

using sycl::f32x16;

constexpr unsigned tile_rows = 6;   // 6 x 4 sums of 16 lanes, of 32 registers
constexpr unsigned tile_parts = 4;  // of 16 columns
constexpr unsigned box_columns = 16 * tile_parts;
constexpr unsigned box_rows = 16 * tile_rows;  // rows that share one copy of a part of B
constexpr unsigned step = 128;                 // of k: such a part takes 32 KiB, two thirds of a first-level cache

// Rows `Rows` of the box's sums, for one step: sums += a (rows, k) * part (k, box_columns).
template <unsigned Rows>
void add_products(const float* a, uint64_t a_stride, const float* part, uint64_t k, float* sums) {
  f32x16 acc[Rows][tile_parts];
  std::memcpy(acc, sums, sizeof(acc));
  for (uint64_t i = 0; i < k; ++i) {
    f32x16 b[tile_parts];
    std::memcpy(b, part + i * box_columns, sizeof(b));
    for (unsigned r = 0; r < Rows; ++r) {
      for (unsigned p = 0; p < tile_parts; ++p) acc[r][p] += a[r * a_stride + i] * b[p];
    }
  }
  std::memcpy(sums, acc, sizeof(acc));
}

}  // namespace

void bmm_xpu_kernel(const float* a, const float* b, float* c, uint64_t batch, uint64_t m, uint64_t n, uint64_t k,
                    c10::Device device) {
  const auto product = [=](const sycl::item_box& box) {
    alignas(64) float part[step * box_columns];
    alignas(64) float sums[box_rows * box_columns];
    const uint64_t rows = box.end[1] - box.begin[1], columns = box.end[2] - box.begin[2];
    const float* a_rows = a + (box.begin[0] * m + box.begin[1]) * k;
    std::memset(sums, 0, rows * box_columns * sizeof(float));
    // Columns that do not exist are computed, but not written.
    if (columns < box_columns) std::memset(part, 0, sizeof(part));

    for (uint64_t first = 0; first < k; first += step) {
      const uint64_t length = std::min<uint64_t>(step, k - first);
      for (uint64_t i = 0; i < length; ++i) {
        std::memcpy(part + i * box_columns, b + (box.begin[0] * k + first + i) * n + box.begin[2],
                    columns * sizeof(float));
      }
      uint64_t row = 0;
      for (; row + tile_rows <= rows; row += tile_rows) {
        add_products<tile_rows>(a_rows + row * k + first, k, part, length, sums + row * box_columns);
      }
      for (; row < rows; ++row) add_products<1>(a_rows + row * k + first, k, part, length, sums + row * box_columns);
    }

    float* c_rows = c + (box.begin[0] * m + box.begin[1]) * n + box.begin[2];
    for (uint64_t row = 0; row < rows; ++row) {
      std::memcpy(c_rows + row * n, sums + row * box_columns, columns * sizeof(float));
    }
  };

  current_queue(device).submit(
      [&](sycl::handler& h) {
        h.parallel_for({batch, m, n}, {1, box_rows, box_columns}, product);
      },
      sycl::detail::code_location{"bmm_xpu_kernel", "bmm_xpu"});
}

}  // namespace corvane
