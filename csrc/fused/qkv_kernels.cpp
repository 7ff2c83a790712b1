// The fused projections: the two rows of a work-group, the rotation and writing of their results, and the launch.
#include "fused/qkv_kernels.hpp"

#include <algorithm>
#include <cmath>
#include <memory>

#include "formats/q8_1_dots.hpp"
#include "formats/readers.hpp"
#include "linear/row_dots.hpp"
#include "platform/sycl/tuning.hpp"

namespace corvane {
namespace {

// The rows of one work-group: element e of a head and its rotary partner, half a head further. Groups are numbered
// through the heads.
struct rotary_pair {
  uint32_t half, head, e, row;

  rotary_pair() = default;
  rotary_pair(uint32_t group, uint32_t head_size)
      : half(head_size / 2), head(group / half), e(group % half), row(head * head_size + e) {}
  uint32_t partner() const { return row + half; }
  // Rows from here to those of the group `groups` further.
  uint32_t step(uint32_t groups) const { return e + groups < half ? groups : groups + half; }
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
template <class T>
void finish_pair(const projection<T>& matrix, const rotary_pair& pair, const rotation* turn, T first, T second) {
  if (matrix.bias != nullptr) {
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

// One work-group for each row pair of the largest matrix, times the matrices: groups beyond a smaller matrix's rows end
// at once. prepare_input() is the caller's share of the first phase; dot_pairs(m, pairs, sums) adds the two dot
// products of Together pairs, spread over the lanes, to sums[0] and sums[1].
template <unsigned Together, class T, unsigned Matrices, class Prepare, class DotPairs>
void launch_row_pairs(const kernel_launch& how, const projection_arguments<T, Matrices>& a, c10::Device device,
                      const Prepare& prepare_input, const DotPairs& dot_pairs) {
  uint32_t most_rows = 0;
  for (const projection<T>& matrix : a.matrices) most_rows = std::max(most_rows, matrix.rows);
  const uint32_t half = std::min(a.head_size, most_rows) / 2;  // no head, no angle

  const auto turns = std::make_unique_for_overwrite<rotation[]>(half);
  const auto prepare = [&a, &prepare_input, turns = turns.get(), half] {
    for (uint32_t e = 0; e < half; ++e) turns[e] = rotation::of(a, e);
    prepare_input();
  };
  const auto kernel = [&dot_pairs, &a, turns = turns.get()](const sycl::group_cluster<2>& groups) {
    const auto m = static_cast<unsigned>(groups.first(1));
    const projection<T>& matrix = a.matrices[m];
    // Rows come in whole heads: from this group on a pair's second row is beyond the end.
    const auto end = static_cast<uint32_t>(std::min<std::size_t>(groups.first(0) + groups.count(0), matrix.rows / 2));
    for (auto first = static_cast<uint32_t>(groups.first(0)); first < end; first += tree_rows) {
      const unsigned pairs = std::min(end - first, tree_rows);
      for_rows<T, 2, Together>(
          pairs,
          [&](unsigned i, auto& sums) {
            std::array<rotary_pair, Together> some;  // past the end the last pair again, whose sums nobody takes
            for (unsigned j = 0; j < Together; ++j) some[j] = {std::min(first + i + j, end - 1), a.head_size};
            dot_pairs(m, some, sums);
          },
          [&](const auto& totals) {
            T results[2][tree_rows];
            for (unsigned r = 0; r < 2; ++r) totals[r].store(results[r]);
            for (unsigned i = 0; i < pairs; ++i) {
              const rotary_pair pair(first + i, a.head_size);
              finish_pair(matrix, pair, m == value_matrix ? nullptr : &turns[pair.e], results[0][i], results[1][i]);
            }
          });
    }
  };
  launch<2>(device, {projection_source, how.name},
            {{std::size_t{most_rows / 2} * how.sizes.work_group, Matrices}, {how.sizes.work_group, 1}},
            sycl::sub_group_size{how.sizes.sub_group},
            sycl::prepared_kernel{
                prepare, sycl::cluster_kernel<2, decltype(kernel)>{{sycl::tuning::streamed_pairs, 1}, kernel}});
}

// In T, by units.
template <int32_t Id, class T, unsigned Matrices>
void project_units(const kernel_launch& how, const T* input, const projection_arguments<T, Matrices>& a,
                   c10::Device device) {
  using reader = scaled_reader_of<Id>;
  std::array<typename reader::planes, Matrices> planes;
  for (unsigned m = 0; m < Matrices; ++m) {
    planes[m] = reader::locate(a.matrices[m].weight, a.state_size, a.matrices[m].rows);
  }
  const auto units = static_cast<uint32_t>(a.state_size / unit_elements);
  constexpr unsigned together = fused_rows<T> / 2;
  const auto dots = scaled_row_dots<Id, T>();
  prepared_row<reader, T> row(input, units);
  launch_row_pairs<together>(
      how, a, device, [&row] { row.prepare(); },
      [&](unsigned m, const std::array<rotary_pair, together>& pairs, simd<T, 16>(&sums)[2][together]) {
        row_list<2 * together> rows;
        rows.ahead = pairs[0].step(together) * units;
        for (unsigned i = 0; i < together; ++i) {
          rows.first_unit[i] = pairs[i].row * units;
          rows.first_unit[together + i] = pairs[i].partner() * units;
        }
        dots(row.view(), 0, planes[m], rows, units, reinterpret_cast<simd<T, 16>(&)[1][2 * together]>(sums));
      });
}

// The products of the groups of a row are converted to T before they are summed.
template <class Dots, class T>
simd<T, 16> row_dot(const projection<T>& matrix, uint32_t row, const staged_row<Dots>& input, uint32_t blocks) {
  auto sum = simd<T, 16>::zero();
  for_each_dot<Dots>(matrix.weight + uint64_t{row} * blocks * Dots::block_bytes, input.data(), blocks,
                     [&](sycl::f32x16 dots) { sum = sum + simd<T, 16>::from_float(dots); });
  return sum;
}

// Integer dot products with 8-bit activations; the value weight has a format of its own.
template <int32_t Id, class T, unsigned Matrices>
void project_q8_1(const kernel_launch& how, const uint8_t* input, const projection_arguments<T, Matrices>& a,
                  c10::Device device) {
  const auto blocks = static_cast<uint32_t>(a.state_size / detail::super_block_elements);
  staged_row<dots_of<Id>> row(blocks);
  staged_row<dots_of<support[Id].qkv.value_format>> row_of_value(Matrices == 3 ? blocks : 0);
  launch_row_pairs<1>(
      how, a, device,
      [&row, &row_of_value, input] {
        row.fill(input);
        if (Matrices == 3) row_of_value.fill(input);
      },
      [&](unsigned m, const std::array<rotary_pair, 1>& pairs, simd<T, 16>(&sums)[2][1]) {
        const projection<T>& matrix = a.matrices[m];
        for (unsigned r = 0; r < 2; ++r) {
          const uint32_t n = r == 0 ? pairs[0].row : pairs[0].partner();
          sums[r][0] = m == value_matrix ? row_dot(matrix, n, row_of_value, blocks) : row_dot(matrix, n, row, blocks);
        }
      });
}

}  // namespace

template <class T, unsigned Matrices>
void project_row(int32_t qtype, const kernel_launch& how, const void* input,
                 const projection_arguments<T, Matrices>& arguments, c10::Device device) {
  constexpr auto has_kernel = [](const format_support& s) {
    return (Matrices == 3 ? s.qkv : s.qk).kernel.name != nullptr;
  };
  with_format<has_kernel>(qtype, [&](auto id) {
    if constexpr (takes_eight_bit_input(support[id])) {
      project_q8_1<id>(how, static_cast<const uint8_t*>(input), arguments, device);
    } else {
      project_units<id>(how, static_cast<const T*>(input), arguments, device);
    }
  });
}

#define INSTANCE(T, MATRICES)                                                                                     \
  template void project_row(int32_t, const kernel_launch&, const void*, const projection_arguments<T, MATRICES>&, \
                            c10::Device);
CORVANE_FOR_ELEMENT_TYPES(INSTANCE, 3)
CORVANE_FOR_ELEMENT_TYPES(INSTANCE, 2)

}  // namespace corvane
