// The input rows of a launch as the lanes of its kernel hold them, made once for all work-groups.
//
// Half and BFloat16 lanes are held widened to float, so that no kernel widens them for each of its rows. Formats with
// an offset need the sums of the input over each unit.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "formats/reader.hpp"

namespace corvane {

// Products and sums of the 16-bit types can be rounded faster where an input's values allow it.
//
// BFloat16: in pairs, but what is below 2^-126 may then be lost. Nothing is where every input is 0 or reaches this
// magnitude: no weight but 0 is below 2^-24, a product keeps 8 bits, and a sum is a multiple of the last of them.
constexpr float smallest_pairable = 0x1p-90f;
// Half: multiples of 2^-24 (sycl::round_multiple_to_half), which products with whole codes are, and nothing may
// overflow.
constexpr float largest_sum = 64000.0f;  // before it is rounded a few times

// Whether the products of a reader's codes can be rounded so.
template <class Reader, class T>
constexpr bool rounds_quickly = [] {
  if constexpr (std::is_same_v<T, Half>) return whole_codes<Reader>;
  return std::is_same_v<T, BFloat16>;
}();

// Looks whether an input's values allow it, for a lane that adds up `Products` products with codes of the reader.
template <class Reader, class T, unsigned Products>
class quick_rounding {
 public:
  CORVANE_INLINE void look_at(const simd<T, 16>& x) {
    if constexpr (std::is_same_v<T, BFloat16>) {
      const sycl::f32x16 v = x.r[0];
      against_ |= (sycl::i32x16)((v < smallest_pairable) & (v > -smallest_pairable) & (v != 0.0f));
    } else if constexpr (rounds_quickly<Reader, T>) {
      const sycl::f32x16 v = x.r[0];
      constexpr float most = largest_sum / (Products * float{Reader::largest_code});
      against_ |= ~(sycl::i32x16)((v <= most) & (v >= -most));
    }
  }
  bool allowed() const { return rounds_quickly<Reader, T> && !sycl::any_lane(against_); }

 private:
  sycl::i32x16 against_{};
};

// Units that a kernel walks as one. Of two units of a format with 4-bit codes the 64 code bytes are sixteen words, and
// each of the eight nibbles of a word is taken from all of them at once: lane l of run r of nibbles i has element
// 32 r + 4 (l % 8) + i of unit l / 8. Not in BFloat16, where rounding in pairs moves lanes between the units, nor in
// double, which takes eight lanes and another look-up. A format may also weave some units' lanes itself.
template <class Reader, class T>
constexpr uint32_t group_units = [] {
  if constexpr (woven_reader<Reader>) {
    constexpr unsigned units = Reader::woven_units;
    if (units == 1 || (units == 4 && !std::is_same_v<T, BFloat16>)) return units;
  }
  return nibble_reader<Reader> && (std::is_same_v<T, float> || std::is_same_v<T, Half>) ? 2u : 1u;
}();
template <class Reader, class T>
constexpr bool is_woven = [] {
  if constexpr (woven_reader<Reader>) return group_units<Reader, T> == Reader::woven_units;
  return false;
}();

template <class T>
struct row_input {
  const sycl::lane_of<T>* lanes;  // (state_size), in the order of a group's lanes; two to a group: to whole groups
  const sycl::lane_of<T>* sums;   // (groups, 16): each lane adds up the elements of a group as its dot product does;
                                  // formats with an offset
  bool quick;                     // quick_rounding
};

// The input rows of one launch, of `units` units each, for the kernels of a format, and what row_input points to beside
// them. Rows lie behind each other, `stride` lanes apart, so that the view of one reaches those that follow.
template <class Reader, class T>
class prepared_row {
 public:
  prepared_row(const T* input, uint32_t units, uint64_t rows = 1)
      : input_(input),
        units_(units),
        groups_((units + group_units<Reader, T> - 1) / group_units<Reader, T>),
        views_(rows) {
    const sycl::lane_of<T>* lanes;
    if constexpr (copied) {
      lines_ = std::make_unique_for_overwrite<line[]>(rows * groups_ * lines);
      lanes = lines_.get()->lane;
    } else {
      lanes = input;
    }
    if constexpr (Reader::has_offset) sums_ = std::make_unique_for_overwrite<line[]>(rows * groups_);
    for (uint64_t row = 0; row < rows; ++row) {
      views_[row].lanes = lanes + row * stride();
      if constexpr (Reader::has_offset) views_[row].sums = sums_[row * groups_].lane;
    }
  }

  // To be called before the first work-group reads view().
  void prepare() {
    for (uint64_t row = 0; row < views_.size(); ++row) {
      if constexpr (copied) copy(row);
      if constexpr (Reader::has_offset) add_up(row);
    }
  }

  const row_input<T>& view(uint64_t row = 0) const { return views_[row]; }
  uint32_t units() const { return units_; }
  uint64_t stride() const { return groups_ * uint64_t{16 * lines}; }

 private:
  using lanes = simd<T, 16>;
  struct alignas(64) line {
    sycl::lane_of<T> lane[16];
  };
  static constexpr bool woven = is_woven<Reader, T>;
  static constexpr bool grouped = group_units<Reader, T> > 1;
  static constexpr bool copied = woven || grouped || sizeof(T) == 2;
  static constexpr unsigned lines = unit_elements / 16 * group_units<Reader, T>;  // of a group

  void copy(uint64_t row) {
    quick_rounding<Reader, T, lines> rounding;
    const T* from = input_ + row * units_ * unit_elements;
    line* to = &lines_[row * groups_ * lines];
    for (uint32_t g = 0; g < groups_; ++g, to += lines) {
      lanes x[lines];
      const T* group = from + uint64_t{16 * lines} * g;
      unsigned there = lines;  // a unit that is not there counts as zeros
      if constexpr (grouped) there = std::min<uint32_t>(lines, units_ * (unit_elements / 16) - g * lines);
      T woven_group[woven ? 16 * lines : 1];
      if constexpr (woven) {
        weave(group, 16 * there, woven_group);
        group = woven_group, there = lines;
      }
      for (unsigned i = 0; i < lines; ++i) {
        x[i] = i < there ? lanes::load(group + 16 * i) : lanes::zero();
        rounding.look_at(x[i]);
      }
      if constexpr (grouped && !woven) arrange(x);
      for (unsigned i = 0; i < lines; ++i) x[i].store_lanes(to[i].lane);
    }
    views_[row].quick = rounding.allowed();
  }

  // The first `there` elements of a group in the format's order, zeros for the others.
  static void weave(const T* group, unsigned there, T* to) {
    static constexpr auto element = [] {
      std::array<uint8_t, 16 * lines> e{};
      static_assert(16 * lines <= 256);
      for (unsigned n = 0; n < 16 * lines; ++n) e[n] = static_cast<uint8_t>(Reader::woven_element(n / 16, n % 16));
      return e;
    }();
    if (there == 16 * lines) {
      for (unsigned n = 0; n < 16 * lines; ++n) to[n] = group[element[n]];
    } else {
      for (unsigned n = 0; n < 16 * lines; ++n) to[n] = element[n] < there ? group[element[n]] : T(0.0f);
    }
  }

  // Lines of two units become those of their words' nibbles: line 2 i + r from element 32 r + i on, every fourth one.
  static CORVANE_INLINE void arrange(lanes (&x)[lines]) {
    sycl::f32x16 every_fourth[lines];
    const auto even = [](sycl::f32x16 p, sycl::f32x16 q) {
      return sycl::as_float(sycl::even_lanes(sycl::as_int(p), sycl::as_int(q)));
    };
    const auto odd = [](sycl::f32x16 p, sycl::f32x16 q) {
      return sycl::as_float(sycl::odd_lanes(sycl::as_int(p), sycl::as_int(q)));
    };
    for (unsigned r = 0; r < 2; ++r) {
      const sycl::f32x16 a = x[2 * r].r[0], b = x[2 * r + 1].r[0], c = x[4 + 2 * r].r[0], d = x[5 + 2 * r].r[0];
      const sycl::f32x16 even_low = even(a, b), odd_low = odd(a, b), even_high = even(c, d), odd_high = odd(c, d);
      every_fourth[r] = even(even_low, even_high), every_fourth[2 + r] = even(odd_low, odd_high);
      every_fourth[4 + r] = odd(even_low, even_high), every_fourth[6 + r] = odd(odd_low, odd_high);
    }
    for (unsigned i = 0; i < lines; ++i) x[i].r[0] = every_fourth[i];
  }

  void add_up(uint64_t row) {
    for (uint32_t g = 0; g < groups_; ++g) {
      const sycl::lane_of<T>* x = views_[row].lanes + uint64_t{16 * lines} * g;
      lanes sum = lanes::zero();
      for (unsigned i = 0; i < lines; i += 4) {
        const lanes low = lanes::load_lanes(x + 16 * i) + lanes::load_lanes(x + 16 * i + 16);
        const lanes high = lanes::load_lanes(x + 16 * i + 32) + lanes::load_lanes(x + 16 * i + 48);
        sum = i == 0 ? low + high : sum + (low + high);
      }
      sum.store_lanes(sums_[row * groups_ + g].lane);
    }
  }

  const T* input_;
  uint32_t units_;
  uint64_t groups_;
  std::unique_ptr<line[]> lines_, sums_;
  std::vector<row_input<T>> views_;
};

}  // namespace corvane
