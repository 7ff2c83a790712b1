// The input rows of a launch as the lanes of its kernel hold them, made once for all work-groups.
//
// Half and BFloat16 lanes are held widened to float, so that no kernel widens them for each of its rows. Formats with
// an offset need the sums of the input over each unit.
#pragma once

#include <memory>
#include <vector>

#include "formats/reader.hpp"

namespace corvane {

// BFloat16 products and sums can be rounded in pairs, which is faster, but what is below 2^-126 may then be lost.
// Nothing is where every input is 0 or reaches this magnitude: no weight but 0 is below 2^-24, a product keeps 8 bits,
// and a sum is a multiple of the last of them.
constexpr float smallest_pairable = 0x1p-90f;

// Whether an input has lanes below that.
template <class T>
class tiny_lanes {
 public:
  CORVANE_INLINE void look_at(const simd<T, 16>& x) {
    if constexpr (std::is_same_v<T, BFloat16>) {
      const sycl::f32x16 v = x.r[0];
      seen_ |= (sycl::i32x16)((v < smallest_pairable) & (v > -smallest_pairable) & (v != 0.0f));
    }
  }
  bool any() const { return !std::is_same_v<T, BFloat16> || sycl::any_lane(seen_); }

 private:
  sycl::i32x16 seen_{};
};

template <class T>
struct row_input {
  const sycl::lane_of<T>* lanes;  // (state_size)
  const sycl::lane_of<T>* sums;   // (units, 16): lane t adds up elements t, 16 + t, 32 + t, 48 + t of a unit, as its
                                  // dot product does; formats with an offset
  bool pairable;                  // BFloat16: rounding in pairs loses nothing
};

// The input rows of one launch, of `units` units each, and what row_input points to beside them. Rows lie behind each
// other, so that the view of one reaches those that follow.
template <class T>
class prepared_row {
 public:
  prepared_row(const T* input, uint32_t units, bool with_sums = false, uint64_t rows = 1)
      : input_(input), units_(units), views_(rows) {
    const sycl::lane_of<T>* lanes;
    if constexpr (sizeof(T) == 2) {
      widened_ = std::make_unique_for_overwrite<line[]>(rows * units * lines);
      lanes = widened_.get()->lane;
    } else {
      lanes = input;
    }
    if (with_sums) sums_ = std::make_unique_for_overwrite<line[]>(rows * units);
    for (uint64_t row = 0; row < rows; ++row) {
      views_[row].lanes = lanes + row * units * unit_elements;
      if (with_sums) views_[row].sums = sums_[row * units].lane;
    }
  }

  // To be called before the first work-group reads view().
  void prepare() {
    for (uint64_t row = 0; row < views_.size(); ++row) {
      if constexpr (sizeof(T) == 2) widen(row);
      if (sums_) add_up(row);
    }
  }

  const row_input<T>& view(uint64_t row = 0) const { return views_[row]; }
  uint32_t units() const { return units_; }

 private:
  using lanes = simd<T, 16>;
  struct alignas(64) line {
    sycl::lane_of<T> lane[16];
  };
  static constexpr unsigned lines = unit_elements / 16;  // of a unit

  void widen(uint64_t row) {
    tiny_lanes<T> tiny;
    const uint64_t first = row * units_ * lines;
    for (uint64_t i = first; i < first + uint64_t{lines} * units_; ++i) {
      const lanes x = lanes::load(input_ + 16 * i);
      x.store_lanes(widened_[i].lane);
      tiny.look_at(x);
    }
    views_[row].pairable = !tiny.any();
  }

  void add_up(uint64_t row) {
    for (uint32_t u = 0; u < units_; ++u) {
      const sycl::lane_of<T>* x = views_[row].lanes + uint64_t{unit_elements} * u;
      const lanes low = lanes::load_lanes(x) + lanes::load_lanes(x + 16);
      const lanes high = lanes::load_lanes(x + 32) + lanes::load_lanes(x + 48);
      (low + high).store_lanes(sums_[row * units_ + u].lane);
    }
  }

  const T* input_;
  uint32_t units_;
  std::unique_ptr<line[]> widened_, sums_;
  std::vector<row_input<T>> views_;
};

}  // namespace corvane
