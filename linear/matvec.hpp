// The matrix-vector skeleton: one input row against a packed weight, y[n] = sum over k of x[k] * W[n][k].
//
// A work-group makes ROWS_PER_WG neighbouring output rows. Its lanes walk the rows together, each keeping one partial
// sum per row; the tree adds the lanes; item 0 writes the rows that exist. All arithmetic is in T. A format enters
// through its reader alone (formats/reader.hpp).
#pragma once

#include <algorithm>

#include "linear/row_accumulation.hpp"
#include "module/frame/launch.hpp"

namespace corvane {

template <class Reader,
          class T,               // input, output and sums: Half, float, double, BFloat16
          unsigned SG_SIZE,      // required sub-group size: 32 on device class 0, else 16
          unsigned WG_SIZE,      // work-items of a group: 2 * SG_SIZE
          unsigned ROWS_PER_WG>  // output rows of a group: 1, 2 or 8
void matvec_groups(const char* kernel, const T* input, const uint8_t* weight, T* output, uint64_t state_size,
                   uint64_t output_size, c10::Device device) {
  const origin where{"linear_xpu_kernel", kernel};
  check_whole_blocks(state_size, registry[Reader::id].block_elements, where);

  const typename Reader::planes planes = Reader::locate(weight, state_size, output_size);
  const auto units = static_cast<uint32_t>(state_size / unit_elements);
  const uint64_t groups = (output_size + ROWS_PER_WG - 1) / ROWS_PER_WG;

  const prepared_row<T> row(input, units, Reader::has_offset);

  launch<1>(device, where, {{groups * WG_SIZE}, {WG_SIZE}}, sycl::sub_group_size{SG_SIZE},
            [=, x = row.view()](sycl::group<1> group) {
              const uint64_t first_row = group.id() * ROWS_PER_WG;
              row_list<ROWS_PER_WG> rows;
              rows.ahead = ROWS_PER_WG * units;
              simd<T, 16> sums[ROWS_PER_WG];
              for (unsigned r = 0; r < ROWS_PER_WG; ++r) {
                // A row past the end reads the last row again, so that nothing beyond the weight is touched; it is not
                // written.
                rows.first_unit[r] = static_cast<uint32_t>(std::min(first_row + r, output_size - 1)) * units;
                sums[r] = simd<T, 16>::zero();
              }
              accumulate_rows<Reader>(x, planes, rows, units, sums);

              T row_sum[ROWS_PER_WG];
              for (unsigned r = 0; r < ROWS_PER_WG; ++r) row_sum[r] = sum_tree(sums[r]);
              group.single([&] {
                for (unsigned r = 0; r < ROWS_PER_WG && first_row + r < output_size; ++r)
                  output[first_row + r] = row_sum[r];
              });
            });
}

// The same for the kernels that refuse a state_size by the elements that a work-item of a device takes in one step.
template <class Reader, class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG,
          unsigned SUB_BLK_H>  // 16 or 8
void matvec(const char* kernel, const T* input, const uint8_t* weight, T* output, uint64_t state_size,
            uint64_t output_size, c10::Device device) {
  check_multiple(state_size, SUB_BLK_H, {"linear_xpu_kernel", kernel});
  matvec_groups<Reader, T, SG_SIZE, WG_SIZE, ROWS_PER_WG>(kernel, input, weight, output, state_size, output_size,
                                                          device);
}

}  // namespace corvane
