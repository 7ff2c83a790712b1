// The input row of a launch as the lanes of its kernel hold it, made once for all work-groups.
//
// Half and BFloat16 lanes are held widened to float: widening 16 of them takes one or two instructions, and with two
// rows to a group that is a fifth of a kernel's work. Formats with an offset need the sums of the input over each unit.
#pragma once

#include <algorithm>
#include <memory>

#include "formats/reader.hpp"

namespace corvane {

template <class T>
struct row_input {
  const sycl::lane_of<T>* lanes;      // (state_size)
  const sycl::lane_of<T>* unit_sums;  // (units, rounded up to 16), zero behind the last unit; formats with an offset
};

// Owns what row_input points to, as far as it is not the input itself.
template <class T>
class prepared_row {
 public:
  prepared_row(const T* input, uint32_t units, bool with_sums) {
    using lanes = simd<T, 16>;
    if constexpr (sizeof(T) == 2) {
      widened_ = std::make_unique_for_overwrite<line[]>(uint64_t{4} * units);
      for (uint64_t i = 0; i < uint64_t{4} * units; ++i) lanes::load(input + 16 * i).store_lanes(widened_[i].lane);
      view_.lanes = widened_[0].lane;
    } else {
      view_.lanes = input;
    }
    if (!with_sums) return;
    const uint32_t padded = (units + 15) / 16 * 16;
    sums_ = std::make_unique<line[]>(padded / 16);
    for (uint32_t u = 0; u < units; ++u) {
      const auto* x = view_.lanes + uint64_t{unit_elements} * u;
      const lanes sum =
          (lanes::load_lanes(x) + lanes::load_lanes(x + 16)) + (lanes::load_lanes(x + 32) + lanes::load_lanes(x + 48));
      sums_[u / 16].lane[u % 16] = static_cast<sycl::lane_of<T>>(sum_tree(sum));
    }
    view_.unit_sums = sums_[0].lane;
  }

  row_input<T> view() const { return view_; }

 private:
  struct alignas(64) line {
    sycl::lane_of<T> lane[16];
  };
  std::unique_ptr<line[]> widened_, sums_;
  row_input<T> view_{};
};

}  // namespace corvane
