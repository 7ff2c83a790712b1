#include "linear/small_batch.hpp"

#include <algorithm>

#include "formats/nf4.hpp"
#include "formats/q4_0.hpp"
#include "linear/row_accumulation.hpp"
#include "module/frame/launch.hpp"

namespace corvane {
namespace {

constexpr unsigned weight_rows = 2, input_rows = 2;  // of a work-group

// Work-group (g, h): weight rows 2g and 2g + 1 against input rows 2h and 2h + 1, as far as they exist.
template <class Reader, class T, unsigned SG_SIZE, unsigned WG_SIZE>
void small_batch(const char* name, const T* input, const uint8_t* weight, T* output, uint64_t rows, uint64_t state_size,
                 uint64_t output_size, uint64_t weight_pairs, c10::Device device) {
  const origin where{"linear_xpu_kernel", name};
  check_multiple(state_size, 16, where);
  check_whole_blocks(state_size, registry[Reader::id].block_elements, where);

  const typename Reader::planes planes = Reader::locate(weight, state_size, output_size);
  const auto units = static_cast<uint32_t>(state_size / unit_elements);
  const sycl::nd_range<2> range{{weight_pairs * WG_SIZE, (rows + 1) / 2}, {WG_SIZE, 1}};

  prepared_row<T> prepared(input, static_cast<uint32_t>(rows) * units);  // all rows behind each other
  const auto kernel = [&prepared, planes, output, rows, state_size, output_size, units](sycl::group<2> group) {
    // Neighbours in dimension 1 run after each other, on the same weight rows: they find them in the cache.
    const uint64_t first_row = group.id(0) * weight_rows, first_input = group.id(1) * input_rows;
    row_list<weight_rows> list;
    list.ahead = weight_rows * units;
    for (unsigned r = 0; r < weight_rows; ++r) {
      list.first_unit[r] = static_cast<uint32_t>(std::min(first_row + r, output_size - 1)) * units;
    }
    const uint64_t inputs = std::min<uint64_t>(rows - first_input, input_rows);
    row_input<T> x = prepared.view();
    x.lanes += first_input * state_size;
    simd<T, 16> sums[input_rows * weight_rows];
    for (auto& sum : sums) sum = simd<T, 16>::zero();
    if (inputs == input_rows) {
      accumulate_rows<Reader, input_rows>(x, planes, list, units, sums, state_size);
    } else {
      simd<T, 16> one[weight_rows];
      for (auto& sum : one) sum = simd<T, 16>::zero();
      accumulate_rows<Reader>(x, planes, list, units, one);
      for (unsigned r = 0; r < weight_rows; ++r) sums[r] = one[r];
    }
    T totals[input_rows * weight_rows];
    for (unsigned s = 0; s < input_rows * weight_rows; ++s) totals[s] = sum_tree(sums[s]);
    group.single([&] {
      for (uint64_t i = 0; i < inputs; ++i) {
        for (unsigned r = 0; r < weight_rows && first_row + r < output_size; ++r) {
          output[(first_input + i) * output_size + first_row + r] = totals[i * weight_rows + r];
        }
      }
    });
  };
  const auto prepare = [&prepared] { prepared.prepare(); };
  launch<2>(device, where, range, sycl::sub_group_size{SG_SIZE}, sycl::prepared_kernel{prepare, kernel});
}

}  // namespace

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q4_0_2x16_by_batch(const T* input, const uint8_t* weight, T* output, uint64_t rows,
                                           uint64_t state_size, uint64_t output_size, c10::Device device) {
  small_batch<q4_0_reader, T, SG_SIZE, WG_SIZE>("qlinear_xpu_kernel_q4_0_2x16_by_batch", input, weight, output, rows,
                                                state_size, output_size, (output_size + 1) / 2, device);
}

// Its range covers floor(output_size / 2) pairs; with an odd output_size one group more does the last row alone.
template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_nf4_2x16_batch(const T* input, const uint8_t* weight, T* output, uint64_t rows,
                                       uint64_t state_size, uint64_t output_size, c10::Device device) {
  small_batch<nf4_reader, T, SG_SIZE, WG_SIZE>("qlinear_xpu_kernel_nf4_2x16_batch", input, weight, output, rows,
                                               state_size, output_size, output_size / 2 + output_size % 2, device);
}

#define INSTANCE(T, SG, WG)                                                                                        \
  template void qlinear_xpu_kernel_q4_0_2x16_by_batch<T, SG, WG>(const T*, const uint8_t*, T*, uint64_t, uint64_t, \
                                                                 uint64_t, c10::Device);                           \
  template void qlinear_xpu_kernel_nf4_2x16_batch<T, SG, WG>(const T*, const uint8_t*, T*, uint64_t, uint64_t,     \
                                                             uint64_t, c10::Device);
#define INSTANCES(T) INSTANCE(T, 32, 64) INSTANCE(T, 16, 32)
INSTANCES(Half)
INSTANCES(float)
INSTANCES(double)
INSTANCES(BFloat16)

}  // namespace corvane
