// The matrix-vector skeleton: one input row against a packed weight, y[n] = sum over k of x[k] * W[n][k].
//
// A work-group makes ROWS_PER_WG neighbouring output rows. Its lanes walk the rows together, each keeping one partial
// sum per row; the tree adds the lanes; item 0 writes the rows that exist. All arithmetic is in T. A format enters
// through its reader alone (formats/reader.hpp).
#pragma once

#include "frame/launch.hpp"
#include "linear/row_accumulation.hpp"
#include "linear/row_sums.hpp"

namespace corvane {

template <class Reader,
          class T,               // input, output and sums: Half, float, double, BFloat16
          unsigned SG_SIZE,      // required sub-group size: 32 on device class 0, else 16
          unsigned WG_SIZE,      // work-items of a group: 2 * SG_SIZE
          unsigned ROWS_PER_WG,  // output rows of a group: 1, 2 or 8
          unsigned SUB_BLK_H>    // 16, 8 or 1: state_size is refused if no multiple of it
void matvec(const char* name, const T* input, const uint8_t* weight, T* output, uint64_t state_size,
            uint64_t output_size, c10::Device device) {
  const origin where{"linear_xpu_kernel", name};
  check_multiple(state_size, SUB_BLK_H, where);
  check_whole_blocks(state_size, registry[Reader::id].block_elements, where);

  const typename Reader::planes planes = Reader::locate(weight, state_size, output_size);
  const auto units = static_cast<uint32_t>(state_size / unit_elements);
  const uint64_t groups = (output_size + ROWS_PER_WG - 1) / ROWS_PER_WG;

  prepared_row<T> row(input, units, Reader::has_offset);

  const auto kernel = [&row, planes, output, output_size, units](const sycl::group_block<1>& groups) {
    simd<T, 16> sums[tree_rows];
    for (auto& sum : sums) sum = simd<T, 16>::zero();
    const uint64_t first_row = groups.first(0) * ROWS_PER_WG;
    for (unsigned g = 0; g < groups.count(0); ++g) {
      const auto rows = rows_from<ROWS_PER_WG>(first_row + g * ROWS_PER_WG, output_size, units);
      simd<T, 16> group_sums[ROWS_PER_WG];
      for (auto& sum : group_sums) sum = simd<T, 16>::zero();
      accumulate_rows<Reader>(row.view(), planes, rows, units, group_sums);
      for (unsigned r = 0; r < ROWS_PER_WG; ++r) sums[g * ROWS_PER_WG + r] = group_sums[r];
    }
    store_rows(sum_trees(sums), output, first_row, output_size);
  };
  const auto prepare = [&row] { row.prepare(); };
  launch<1>(device, where, {{groups * WG_SIZE}, {WG_SIZE}}, sycl::sub_group_size{SG_SIZE},
            sycl::prepared_kernel{prepare, sycl::block_kernel<1, decltype(kernel)>{{tree_rows / ROWS_PER_WG}, kernel}});
}

#define MATVEC_INSTANCES(T, NAME)                                                                         \
  template void NAME<T, 32, 64>(const T*, const uint8_t*, T*, uint64_t, uint64_t, uint64_t, c10::Device); \
  template void NAME<T, 16, 32>(const T*, const uint8_t*, T*, uint64_t, uint64_t, uint64_t, c10::Device);

// A one-row kernel by its name, which is also what launches show: reader, output rows of a group, and what state_size
// has to be a multiple of.
#define MATVEC_KERNEL(NAME, READER, ROWS_PER_WG, SUB_BLK_H)                                                            \
  template <class T, unsigned SG_SIZE, unsigned WG_SIZE>                                                               \
  void NAME(const T* input, const uint8_t* weight, T* output, uint64_t, uint64_t state_size, uint64_t output_size,     \
            c10::Device device) {                                                                                      \
    matvec<READER, T, SG_SIZE, WG_SIZE, ROWS_PER_WG, SUB_BLK_H>(#NAME, input, weight, output, state_size, output_size, \
                                                                device);                                               \
  }                                                                                                                    \
  CORVANE_FOR_ELEMENT_TYPES(MATVEC_INSTANCES, NAME)

}  // namespace corvane
