// What the fused projections share: the two rows of a work-group, the rotation and writing of their results, and the
// launch. The dot products come from outside: by a format's reader, or on 8-bit activations.
#pragma once

#include <algorithm>
#include <cmath>
#include <memory>

#include "frame/launch.hpp"
#include "fused/qkv_kernels.hpp"
#include "fused/row_dots.hpp"

namespace corvane {

// The rows of one work-group: element e of a head and its rotary partner, half a head further. Groups are numbered
// through the heads.
struct rotary_pair {
  uint32_t half, head, e, row;

  rotary_pair(uint32_t group, uint32_t head_size)
      : half(head_size / 2), head(group / half), e(group % half), row(head * head_size + e) {}
  uint32_t partner() const { return row + half; }
  uint32_t step() const { return e + 1 == half ? half + 1 : 1; }  // rows from here to the next group's
};

// The angle by which element e of every head turns.
struct rotation {
  float cosine, sine;

  template <class T, unsigned Matrices>
  static rotation of(const projection_arguments<T, Matrices>& a, uint32_t e) {
    const auto position = static_cast<float>(a.position_ids[0]);
    const float angle = std::pow(a.theta_scale, static_cast<float>(e)) * position;
    return {std::cos(angle), std::sin(angle)};
  }
};

// Work-item 0 at the end: bias in T, rotation in float, and the write to the query or a cache. `first` and `second` are
// the dot products of the pair's rows; a value is not turned.
template <bool BIAS, class T>
void finish_pair(const projection<T>& matrix, const rotary_pair& pair, const rotation* turn, T first, T second) {
  if constexpr (BIAS) {
    first = first + matrix.bias[pair.row];
    second = second + matrix.bias[pair.partner()];
  }
  if (turn != nullptr) {
    const auto a = static_cast<float>(first), b = static_cast<float>(second);
    first = static_cast<T>(turn->cosine * a - turn->sine * b);
    second = static_cast<T>(turn->cosine * b + turn->sine * a);
  }
  T* output = matrix.output + matrix.base_offset + pair.head * matrix.head_stride + pair.e;
  output[0] = first;
  output[pair.half] = second;
}

constexpr unsigned tree_pairs = tree_rows / 2;  // pairs whose scratch trees are added together

// One work-group for each row pair of the largest matrix, times the matrices: groups beyond a smaller matrix's rows end
// at once. prepare_input() is the caller's share of the first phase; dot_pair(m, pair, sums) makes the two dot
// products, spread over the lanes of sums[0] and sums[1].
template <class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS, unsigned Matrices, class Prepare, class DotPair>
void launch_projections(const projection_kernel& which, const projection_arguments<T, Matrices>& a, c10::Device device,
                        const Prepare& prepare_input, const DotPair& dot_pair) {
  // On the host neighbouring groups of one matrix run after each other, not the matrices in turn: measured with 4096,
  // 1024 and 1024 rows of q4_0, one stream of weights at a time takes a tenth less time than three.
  constexpr std::size_t streamed_groups = 32;

  uint32_t most_rows = 0;
  for (const projection<T>& matrix : a.matrices) most_rows = std::max(most_rows, matrix.rows);
  const uint32_t half = std::min(a.head_size, most_rows) / 2;  // no head, no angle

  const auto turns = std::make_unique_for_overwrite<rotation[]>(half);
  const auto prepare = [&a, &prepare_input, turns = turns.get(), half] {
    for (uint32_t e = 0; e < half; ++e) turns[e] = rotation::of(a, e);
    prepare_input();
  };
  const auto kernel = [&dot_pair, &a, turns = turns.get()](const sycl::group_block<2>& block) {
    const auto m = static_cast<unsigned>(block.first(1));
    const projection<T>& matrix = a.matrices[m];
    // Rows come in whole heads: from this group on a pair's second row is beyond the end.
    const auto end = static_cast<uint32_t>(std::min<std::size_t>(block.first(0) + block.count(0), matrix.rows / 2));
    for (auto first = static_cast<uint32_t>(block.first(0)); first < end; first += tree_pairs) {
      const unsigned pairs = std::min(end - first, tree_pairs);
      simd<T, 16> sums[tree_rows];
      for (unsigned i = 0; i < tree_pairs; ++i) {
        if (i < pairs) {
          simd<T, 16> pair_sums[2];
          dot_pair(m, rotary_pair(first + i, a.head_size), pair_sums);
          sums[i] = pair_sums[0];
          sums[tree_pairs + i] = pair_sums[1];
        } else {
          sums[i] = sums[tree_pairs + i] = simd<T, 16>::zero();
        }
      }
      T results[tree_rows];
      sum_trees(sums).store(results);
      for (unsigned i = 0; i < pairs; ++i) {
        const rotary_pair pair(first + i, a.head_size);
        finish_pair<BIAS>(matrix, pair, m == value_matrix ? nullptr : &turns[pair.e], results[i],
                          results[tree_pairs + i]);
      }
    }
  };
  launch<2>(device, {projection_source, which.name}, {{std::size_t{most_rows / 2} * WG_SIZE, Matrices}, {WG_SIZE, 1}},
            sycl::sub_group_size{SG_SIZE},
            sycl::prepared_kernel{prepare, sycl::block_kernel<2, decltype(kernel)>{{streamed_groups, 1}, kernel}});
}

// The kernels of formats that are multiplied in T.
template <class Reader, class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS>
void project_qkv(const projection_kernel& which, const T* input, const qkv_arguments<T>& a, c10::Device device) {
  std::array<typename Reader::planes, 3> planes;
  for (unsigned m = 0; m < 3; ++m) planes[m] = Reader::locate(a.matrices[m].weight, a.state_size, a.matrices[m].rows);
  const auto units = static_cast<uint32_t>(a.state_size / unit_elements);
  prepared_row<T> row(input, units);
  launch_projections<T, SG_SIZE, WG_SIZE, BIAS>(
      which, a, device, [&row] { row.prepare(); },
      [&row, &planes, units](unsigned m, const rotary_pair& pair, simd<T, 16>(&sums)[2]) {
        const row_list<2> rows{{pair.row * units, pair.partner() * units}, pair.step() * units};
        row_dots<Reader>(row, planes[m], rows, sums);
      });
}

}  // namespace corvane
