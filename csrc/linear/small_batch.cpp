#include "linear/small_batch.hpp"

#include <algorithm>
#include <array>
#include <type_traits>

#include "formats/nf4.hpp"
#include "formats/q4_0.hpp"
#include "frame/launch.hpp"
#include "linear/row_accumulation.hpp"
#include "linear/row_sums.hpp"

namespace corvane {
namespace {

constexpr unsigned weight_rows = 2, input_rows = 2;  // of a work-group

// Inputs that a decoded code meets at once. In float those of two groups: 4 rows against 4096 x 4096 take 0.8 of the
// time, 7 rows 0.7. In the 16-bit types the roundings are all of it, in double the registers run out.
template <class T>
constexpr unsigned most_inputs = std::is_same_v<T, float> ? 2 * input_rows : input_rows;

// Neighbouring work-groups: some pairs of weight rows against one pair of input rows, or two.
template <class Reader, class T>
struct batch {
  const prepared_row<T>& input;
  typename Reader::planes planes;
  T* output;
  uint64_t rows, state_size, output_size;

  void operator()(const sycl::group_block<2>& groups) const {
    const uint64_t first_input = groups.first(1) * input_rows;
    const uint64_t inputs = std::min<uint64_t>(rows - first_input, groups.count(1) * input_rows);
    if constexpr (std::is_same_v<T, BFloat16>) {
      // A row's results are its own: rows that are not rounded alike do not meet a code together.
      if (inputs == 2 && input.view(first_input).pairable != input.view(first_input + 1).pairable) {
        multiply_rows<1>(groups, first_input);
        return multiply_rows<1>(groups, first_input + 1);
      }
    }
    const auto multiply = [&](auto exactly) { multiply_rows<exactly>(groups, first_input); };
    if (inputs == 1) return multiply(std::integral_constant<unsigned, 1>{});
    if (inputs == 2) return multiply(std::integral_constant<unsigned, 2>{});
    if constexpr (most_inputs<T> == 4) {
      if (inputs == 3) return multiply(std::integral_constant<unsigned, 3>{});
      multiply(std::integral_constant<unsigned, 4>{});
    }
  }

 private:
  template <unsigned Inputs>
  void multiply_rows(const sycl::group_block<2>& groups, uint64_t first_input) const {
    const auto units = static_cast<uint32_t>(state_size / unit_elements);
    const uint64_t first_row = groups.first(0) * weight_rows, block_rows = groups.count(0) * weight_rows;
    const row_input<T>& x = input.view(first_input);
    simd<T, 16> sums[tree_rows];  // of an input's rows behind each other
    for (auto& sum : sums) sum = simd<T, 16>::zero();
    for (uint64_t first = 0; first < block_rows; first += weight_rows) {
      const auto list = rows_from<weight_rows>(first_row + first, output_size, units);
      simd<T, 16> pair[Inputs * weight_rows];
      for (auto& sum : pair) sum = simd<T, 16>::zero();
      accumulate_rows<Reader, Inputs>(x, planes, list, units, pair, state_size);
      for (unsigned i = 0; i < Inputs; ++i) {
        for (unsigned r = 0; r < weight_rows; ++r) sums[i * block_rows + first + r] = pair[i * weight_rows + r];
      }
    }
    const simd<T, 16> totals = sum_trees(sums);
    const uint64_t count = std::min(block_rows, output_size - first_row);
    for (unsigned i = 0; i < Inputs; ++i) {
      T* row = output + (first_input + i) * output_size + first_row;
      for (unsigned r = 0; r < count; ++r) row[r] = totals.lane(static_cast<unsigned>(i * block_rows) + r);
    }
  }
};

// Work-group (g, h): weight rows 2g and 2g + 1 against input rows 2h and 2h + 1, as far as they exist.
template <class Reader, class T>
void small_batch(const char* name, int sub_group, unsigned work_group, const T* input, const uint8_t* weight, T* output,
                 uint64_t rows, uint64_t state_size, uint64_t output_size, c10::Device device) {
  const origin where{"linear_xpu_kernel", name};
  check_multiple(state_size, 16, where);
  check_whole_blocks(state_size, registry[Reader::id].block_elements, where);

  prepared_row<T> prepared(input, static_cast<uint32_t>(state_size / unit_elements), false, rows);
  const auto planes = Reader::locate(weight, state_size, output_size);
  const auto prepare = [&prepared] { prepared.prepare(); };
  const auto kernel = [&prepared, planes, output, rows, state_size, output_size](const sycl::group_block<2>& groups) {
    batch<Reader, T>{prepared, planes, output, rows, state_size, output_size}(groups);
  };
  // The last dimension runs fastest: blocks of the same weight rows follow each other, and find them in the cache.
  const size_t input_pairs = rows > input_rows ? most_inputs<T> / input_rows : 1;
  const std::array<size_t, 2> block{tree_rows / weight_rows / (input_pairs * input_rows), input_pairs};
  launch<2>(device, where, {{(output_size + 1) / 2 * work_group, (rows + 1) / 2}, {work_group, 1}},
            sycl::sub_group_size{sub_group},
            sycl::prepared_kernel{prepare, sycl::block_kernel<2, decltype(kernel)>{block, kernel}});
}

}  // namespace

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q4_0_2x16_by_batch(const T* input, const uint8_t* weight, T* output, uint64_t rows,
                                           uint64_t state_size, uint64_t output_size, c10::Device device) {
  small_batch<q4_0_reader, T>("qlinear_xpu_kernel_q4_0_2x16_by_batch", SG_SIZE, WG_SIZE, input, weight, output, rows,
                              state_size, output_size, device);
}

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_nf4_2x16_batch(const T* input, const uint8_t* weight, T* output, uint64_t rows,
                                       uint64_t state_size, uint64_t output_size, c10::Device device) {
  small_batch<nf4_reader, T>("qlinear_xpu_kernel_nf4_2x16_batch", SG_SIZE, WG_SIZE, input, weight, output, rows,
                             state_size, output_size, device);
}

#define INSTANCE(T, SG, WG)                                                                                        \
  template void qlinear_xpu_kernel_q4_0_2x16_by_batch<T, SG, WG>(const T*, const uint8_t*, T*, uint64_t, uint64_t, \
                                                                 uint64_t, c10::Device);                           \
  template void qlinear_xpu_kernel_nf4_2x16_batch<T, SG, WG>(const T*, const uint8_t*, T*, uint64_t, uint64_t,     \
                                                             uint64_t, c10::Device);
#define INSTANCES(T) INSTANCE(T, 32, 64) INSTANCE(T, 16, 32)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
