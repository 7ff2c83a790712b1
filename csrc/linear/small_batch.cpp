#include "linear/small_batch.hpp"

#include <algorithm>
#include <array>
#include <type_traits>

#include "formats/readers.hpp"
#include "linear/row_dots_body.hpp"

namespace corvane {
namespace {

constexpr unsigned input_rows = 2;  // of a work-group

// Up to sixteen weight rows from first_row on against `Inputs` input rows behind each other.
template <unsigned Inputs, class Reader, class T>
void multiply_rows(const prepared_row<Reader, T>& prepared, uint64_t first_input, const typename Reader::planes& planes,
                   uint64_t first_row, unsigned rows, uint64_t output_size, T* output) {
  const uint32_t units = prepared.units();
  for_rows<T, Inputs, rows_together>(
      rows,
      [&](unsigned r, auto& sums) {
        const auto list = rows_from<rows_together>(first_row + r, output_size, units);
        row_dots<Reader, Inputs>(prepared.view(first_input), prepared.stride(), planes, list, units, sums);
      },
      [&](const auto& totals) {
        for (unsigned i = 0; i < Inputs; ++i) {
          store_rows(totals[i], output + (first_input + i) * output_size + first_row, rows);
        }
      });
}

template <int32_t Id, class T>
void multiply_batch(const kernel_launch& how, const T* input, const uint8_t* weight, T* output, uint64_t rows,
                    uint64_t state_size, uint64_t output_size, c10::Device device) {
  using reader = reader_of<Id>;
  constexpr unsigned together = sycl::tuning::inputs_together<T>;
  const origin where{linear_source, how.name};
  check_multiple(state_size, 16, where);
  check_whole_blocks(state_size, registry[Id].block_elements, where);

  const auto planes = reader::locate(weight, state_size, output_size);
  prepared_row<reader, T> prepared(input, static_cast<uint32_t>(state_size / unit_elements), rows);
  const auto prepare = [&prepared] { prepared.prepare(); };
  // Groups (g, h): the pairs of weight rows g and of input rows h, as far as they exist.
  const auto kernel = [&](const sycl::group_cluster<2>& groups) {
    const uint64_t first_row = groups.first(0) * rows_together, first_input = groups.first(1) * input_rows;
    const auto count =
        static_cast<unsigned>(std::min<uint64_t>(groups.count(0) * rows_together, output_size - first_row));
    const uint64_t inputs = std::min<uint64_t>(rows - first_input, groups.count(1) * input_rows);
    const auto multiply = [&](auto inputs, uint64_t first) {
      multiply_rows<inputs>(prepared, first, planes, first_row, count, output_size, output);
    };
    constexpr std::integral_constant<unsigned, 1> one;
    constexpr std::integral_constant<unsigned, 2> two;
    if (inputs == 1) return multiply(one, first_input);
    if (inputs == 2) {
      // A row's results are its own: rows that are not rounded alike do not meet a code together.
      if (prepared.view(first_input).quick == prepared.view(first_input + 1).quick) {
        return multiply(two, first_input);
      }
      multiply(one, first_input);
      return multiply(one, first_input + 1);
    }
    if constexpr (together == 4) {
      if (inputs == 3) return multiply(std::integral_constant<unsigned, 3>{}, first_input);
      multiply(std::integral_constant<unsigned, 4>{}, first_input);
    }
  };
  // The last dimension runs fastest: clusters of the same weight rows follow each other, and find them in the cache.
  const std::array<std::size_t, 2> cluster{tree_rows / rows_together, rows > input_rows ? together / input_rows : 1};
  launch<2>(device, where, {{(output_size + 1) / 2 * how.sizes.work_group, (rows + 1) / 2}, {how.sizes.work_group, 1}},
            sycl::sub_group_size{how.sizes.sub_group},
            sycl::prepared_kernel{prepare, sycl::cluster_kernel<2, decltype(kernel)>{cluster, kernel}});
}

}  // namespace

template <class T>
void launch_small_batch(int32_t qtype, const kernel_launch& how, const T* input, const uint8_t* weight, T* output,
                        uint64_t rows, uint64_t state_size, uint64_t output_size, c10::Device device) {
  constexpr auto has_kernel = [](const format_support& s) { return s.small_batch.kernel != nullptr; };
  with_format<has_kernel>(
      qtype, [&](auto id) { multiply_batch<id>(how, input, weight, output, rows, state_size, output_size, device); });
}

#define INSTANCE(T)                                                                                                 \
  template void launch_small_batch(int32_t, const kernel_launch&, const T*, const uint8_t*, T*, uint64_t, uint64_t, \
                                   uint64_t, c10::Device);
CORVANE_FOR_ELEMENT_TYPES(INSTANCE)

}  // namespace corvane
