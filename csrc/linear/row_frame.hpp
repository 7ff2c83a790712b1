// The frame of all kernels that make output rows from weight rows: sums set to zero, the rows of a cluster of
// work-groups, the trees, the rows that exist. A kernel brings a dot and an ending.
//
// A tree alone waits for its own steps; sixteen rows are reduced together, so clusters make so many.
#pragma once

#include <algorithm>
#include <array>

#include "formats/support.hpp"
#include "frame/launch.hpp"
#include "platform/sycl/simd.hpp"

namespace corvane {

using sycl::simd;

constexpr unsigned tree_rows = 16;

// A kernel as a launch shows it.
struct kernel_launch {
  const char* name;
  launch_sizes sizes;
};

// Up to sixteen rows. dot(r, sums) adds to sums[t][i] what row r + i has for tree t, a part of it to each lane;
// ending(totals) gets the lanes of totals[t], one for each row.
template <class Sum,              // type of the sums: Half, float, double, BFloat16
          unsigned Trees = 1,     // sums of a row: for each input, or each weight
          unsigned Together = 1,  // rows that one dot makes; a divisor of 16. Those past the end are not used.
          class Dot, class Ending>
CORVANE_INLINE void for_rows(unsigned rows, const Dot& dot, const Ending& ending) {
  simd<Sum, 16> sums[Trees][tree_rows];
  for (auto& tree : sums) std::fill_n(tree, tree_rows, simd<Sum, 16>::zero());
  for (unsigned first = 0; first < rows; first += Together) {
    simd<Sum, 16> next[Trees][Together];
    for (auto& tree : next) std::fill_n(tree, Together, simd<Sum, 16>::zero());
    dot(first, next);
    for (unsigned t = 0; t < Trees; ++t) std::copy_n(next[t], Together, sums[t] + first);
  }
  simd<Sum, 16> totals[Trees];
  for (unsigned t = 0; t < Trees; ++t) totals[t] = sum_trees(sums[t]);
  ending(totals);
}

// The ending of most kernels: the totals of `rows` rows, as far as they exist, at `output`.
template <class T, class Sum>
CORVANE_INLINE void store_rows(const simd<Sum, 16>& totals, T* output, unsigned rows) {
  for (unsigned r = 0; r < rows; ++r) output[r] = static_cast<T>(totals.lane(r));
}

// One launch over all output rows. prepare() runs before the first group; kernel(first_row, rows) makes up to sixteen
// neighbouring rows. D: 1, or 2 where the rows of a group are its second dimension.
template <int D = 1, class Prepare, class Kernel>
void launch_rows(c10::Device device, const origin& where, const launch_sizes& sizes, uint64_t output_size,
                 const Prepare& prepare, const Kernel& kernel, host_wait wait = host_wait::no) {
  sycl::nd_range<D> range;
  range.global[0] = (output_size + sizes.rows - 1) / sizes.rows * sizes.work_group;
  range.local[0] = sizes.work_group;
  std::array<std::size_t, D> cluster;
  cluster[0] = tree_rows / sizes.rows;
  if constexpr (D == 2) {
    range.global[1] = range.local[1] = sizes.rows;
    cluster[1] = 1;
  }
  const auto groups = [&kernel, &sizes, output_size](const sycl::group_cluster<D>& c) {
    const uint64_t first_row = c.first(0) * sizes.rows;
    kernel(first_row, static_cast<unsigned>(std::min<uint64_t>(c.count(0) * sizes.rows, output_size - first_row)));
  };
  launch<D>(device, where, range, sycl::sub_group_size{sizes.sub_group},
            sycl::prepared_kernel{prepare, sycl::cluster_kernel<D, decltype(groups)>{cluster, groups}}, wait);
}

}  // namespace corvane
