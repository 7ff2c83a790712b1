// Bodies of the general family of expansion kernels: what a work-group expands, and the geometry of each launch.
#pragma once

#include <algorithm>

#include "frame/launch.hpp"
#include "ops/expand.hpp"

namespace corvane {

namespace detail {

constexpr const char* general_source = "linear_xpu_kernel";

// Work-items for a row: the largest power of two, 256 at most, that takes it in whole passes of `per_item` elements an
// item. state_size is a multiple of 64.
constexpr uint64_t row_group_size(uint64_t state_size, unsigned per_item) {
  uint64_t size = 256;
  while (state_size % (size * per_item) != 0) size /= 2;
  return size;
}

}  // namespace detail

// `rows` rows from first_row on of a weight of output_size rows, a work-group each.
template <class Reader,
          class A,            // the arithmetic, as expand_units has it
          unsigned SG_SIZE,   // required sub-group size: 32 on device class 0, else 16
          unsigned PER_ITEM,  // elements of a work-item in one pass: 4, 2 or 1
          class T>
void expand_rows(const char* kernel, const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                 uint64_t rows, uint64_t first_row, c10::Device device, host_wait wait) {
  const origin where{detail::general_source, kernel};
  check_multiple(state_size, unit_elements, where);
  const auto planes = Reader::locate(weight, state_size, output_size);
  const auto units = static_cast<uint32_t>(state_size / unit_elements);
  const uint64_t local = detail::row_group_size(state_size, PER_ITEM);
  const bool past_caches = outgrows_caches(output, rows * state_size);
  launch<1>(
      device, where, {{rows * local}, {local}}, sycl::sub_group_size{SG_SIZE},
      [=](sycl::group<1> group) {
        const auto first_unit = static_cast<uint32_t>(first_row + group.id()) * units;
        expand_units<Reader, A>(planes, first_unit, units, output + group.id() * state_size, past_caches);
      },
      wait);
}

// A whole weight in groups of 256 work-items. On a device an item expands 2 or 4 elements and groups overlap, writing
// the same values twice; here each group expands the 256 elements that it begins with.
template <class Reader, class A, class T>
void expand_elements(const char* kernel, const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size,
                     c10::Device device, host_wait wait) {
  constexpr uint32_t local = 256, group_units = local / unit_elements;
  const origin where{detail::general_source, kernel};
  check_multiple(state_size, unit_elements, where);
  const auto planes = Reader::locate(weight, state_size, output_size);
  const auto units = static_cast<uint32_t>(state_size * output_size / unit_elements);
  const uint64_t groups = (units + group_units - 1) / group_units;
  const bool past_caches = outgrows_caches(output, state_size * output_size);
  launch<1>(
      device, where, {{groups * local}, {local}}, sycl::sub_group_size{},
      [=](sycl::group<1> group) {
        const auto first_unit = static_cast<uint32_t>(group.id()) * group_units;
        expand_units<Reader, A>(planes, first_unit, std::min(group_units, units - first_unit),
                                output + uint64_t{first_unit} * unit_elements, past_caches);
      },
      wait);
}

// The whole super-blocks of a weight, a work-group of `local` items each.
template <class Reader, class T>
void expand_super_blocks(const char* kernel, uint64_t local, const uint8_t* weight, T* output, uint64_t state_size,
                         uint64_t output_size, c10::Device device, host_wait wait) {
  using detail::block_elements, detail::block_units;
  static_assert(registry[Reader::id].block_elements == block_elements);
  const origin where{detail::general_source, kernel};
  check_multiple(state_size, unit_elements, where);
  const auto planes = Reader::locate(weight, state_size, output_size);
  const uint64_t blocks = state_size * output_size / block_elements;
  const bool past_caches = outgrows_caches(output, state_size * output_size);
  launch<1>(
      device, where, {{blocks * local}, {local}}, sycl::sub_group_size{},
      [=](sycl::group<1> group) {
        expand_units<Reader, float>(planes, static_cast<uint32_t>(group.id()) * block_units, block_units,
                                    output + group.id() * block_elements, past_caches);
      },
      wait);
}

}  // namespace corvane
