#include "ops/expansion.hpp"

#include <algorithm>
#include <string>

#include "formats/k_block.hpp"
#include "frame/launch.hpp"
#include "platform/sycl/tuning.hpp"

namespace corvane {
namespace {

// One launch: work-group g expands units_of_group units of the weight from first_unit + g * units_of_group on, as far
// as there are `units` of them.
struct expansion_launch {
  origin where;
  uint64_t local;           // work-items of a group
  uint64_t units_of_group;  // beyond 32 bits where it is a row's and the weight has none
  uint32_t first_unit, units;
  int sub_group = 0;
  host_wait wait = host_wait::no;
  const char* label = default_label;
};

template <class T>
bool outgrows_caches(const T* output, uint64_t elements) {
  return elements * sizeof(T) >= sycl::tuning::uncached_output_bytes && reinterpret_cast<uintptr_t>(output) % 64 == 0;
}

template <class T>
void launch_expansion(const expansion_launch& how, unit_expander<T> expand, const packed_weight& weight,
                      const expansion_target<T>& to) {
  const uint64_t groups = (how.units + how.units_of_group - 1) / how.units_of_group;
  const auto launch_as = [&](const auto& kernel) {
    launch<1>(weight.device, how.where, {{groups * how.local}, {how.local}}, sycl::sub_group_size{how.sub_group},
              kernel, how.wait, how.label);
  };
  if (to.consume) {
    const auto row_units = static_cast<uint32_t>(weight.state_size / unit_elements);
    const row_expander<T> rows = [&](std::size_t first_row, std::size_t rows, T* at) {
      expand(weight, static_cast<uint32_t>(first_row) * row_units, static_cast<uint32_t>(rows) * row_units, at, false);
    };
    const auto run = [&] { to.consume(rows); };
    return launch_as(sycl::whole_launch<decltype(run)>{run});
  }
  T* const output = to.output;
  const bool past_caches = outgrows_caches(output, uint64_t{how.units} * unit_elements);
  const auto kernel = [&](const sycl::group_cluster<1>& c) {
    const uint64_t unit = c.first(0) * how.units_of_group;
    const uint64_t units = std::min(c.count(0) * how.units_of_group, how.units - unit);
    expand(weight, how.first_unit + static_cast<uint32_t>(unit), static_cast<uint32_t>(units),
           output + unit * unit_elements, past_caches);
  };
  const std::size_t cluster =
      std::max<std::size_t>(1, sycl::tuning::expanded_together / (how.units_of_group * unit_elements));
  launch_as(sycl::cluster_kernel<1, decltype(kernel)>{{cluster}, kernel});
}

host_wait wait_of(bool waits) { return waits ? host_wait::yes : host_wait::no; }

// Work-items for a row: the largest power of two, 256 at most, that takes it in whole passes of `per_item` elements an
// item. state_size is a multiple of 64.
constexpr uint64_t row_group_size(uint64_t state_size, unsigned per_item) {
  uint64_t size = 256;
  while (state_size % (size * per_item) != 0) size /= 2;
  return size;
}

// `rows` rows from first_row on, a work-group each.
template <class T>
void expand_rows(const expansion_kernel& kernel, uint8_t device_class, unit_expander<T> expand,
                 const packed_weight& weight, uint64_t first_row, uint64_t rows, const expansion_target<T>& to) {
  const origin where{linear_source, kernel.name};
  check_multiple(weight.state_size, unit_elements, where);
  const uint64_t units = weight.state_size / unit_elements;
  launch_expansion({.where = where,
                    .local = row_group_size(weight.state_size, kernel.items),
                    .units_of_group = units,
                    .first_unit = static_cast<uint32_t>(first_row * units),
                    .units = static_cast<uint32_t>(rows * units),
                    .sub_group = device_class == 0 ? 32 : 16,
                    .wait = wait_of(kernel.waits)},
                   expand, weight, to);
}

// A whole weight over row ends, by 256 elements or by super-blocks. On a device an item of the first kind expands 2 or
// 4 elements and groups overlap, writing the same values twice; here a group expands the 256 that it begins with.
template <class T>
void expand_over_rows(const general_support& offers, unit_expander<T> expand, const packed_weight& weight,
                      const expansion_target<T>& to) {
  const expansion_kernel& kernel = offers.elsewhere;
  const origin where{linear_source, kernel.name};
  check_multiple(weight.state_size, unit_elements, where);
  constexpr uint32_t group_units = detail::super_block_units;
  auto units = static_cast<uint32_t>(weight.state_size * weight.output_size / unit_elements);
  if (offers.cut == expansion_cut::super_block) units -= units % group_units;
  launch_expansion({.where = where,
                    .local = kernel.items,
                    .units_of_group = group_units,
                    .first_unit = 0,
                    .units = units,
                    .wait = wait_of(kernel.waits)},
                   expand, weight, to);
}

constexpr auto has_general = [](const format_support& s) { return s.general.cut != expansion_cut::none; };
constexpr auto has_explicit_simd_kernel = [](const format_support& s) { return s.explicit_simd.kernel != nullptr; };

}  // namespace

template <class T>
void expand_general(int32_t qtype, uint8_t device_class, const packed_weight& weight, const expansion_target<T>& to) {
  with_format<has_general>(qtype, [&](auto id) {
    const general_support& offers = support[id].general;
    const unit_expander<T> expand = general_expander<id, T>();
    if (offers.cut == expansion_cut::row) {
      expand_rows(device_class == 0 ? offers.on_class_0 : offers.elsewhere, device_class, expand, weight, 0,
                  weight.output_size, to);
    } else {
      expand_over_rows(offers, expand, weight, to);
    }
  });
}

template <class T>
void expand_tile(int32_t qtype, uint8_t device_class, const packed_weight& weight, uint64_t first_row, uint64_t rows,
                 T* output) {
  constexpr auto has_tiles = [](const format_support& s) { return s.tile.rule != tile_rule::none; };
  with_format<has_tiles>(qtype, [&](auto id) {
    const tile_support& offers = support[id].tile;
    expand_rows(device_class == 0 ? offers.on_class_0 : offers.elsewhere, device_class, general_expander<id, T>(),
                weight, first_row, rows, {output});
  });
}

template <class T>
void expand_explicit_simd(int32_t qtype, const packed_weight& weight, const expansion_target<T>& to) {
  with_format<has_explicit_simd_kernel>(qtype, [&](auto id) {
    constexpr explicit_simd_support offers = support[id].explicit_simd;
    constexpr uint32_t block_units = registry[id].block_elements / unit_elements;
    const auto units = static_cast<uint32_t>(weight.state_size * weight.output_size / unit_elements);
    const origin where{"dequantize", offers.kernel};
    if (!offers.rules.any_blocks && units / block_units % offers.blocks != 0) {
      fail(where, "nb % SBS == 0 is needed, found nb = " + std::to_string(units / block_units) +
                      " and SBS = " + std::to_string(offers.blocks));
    }
    launch_expansion({.where = where,
                      .local = 1,
                      .units_of_group = offers.blocks * block_units,
                      .first_unit = 0,
                      .units = units,
                      .wait = wait_of(offers.rules.waits),
                      .label = offers.label},
                     explicit_simd_expander<id, T>(), weight, to);
  });
}

#define INSTANCE(T)                                                                                 \
  template void expand_general(int32_t, uint8_t, const packed_weight&, const expansion_target<T>&); \
  template void expand_tile(int32_t, uint8_t, const packed_weight&, uint64_t, uint64_t, T*);
CORVANE_FOR_ELEMENT_TYPES(INSTANCE)
template void expand_explicit_simd(int32_t, const packed_weight&, const expansion_target<Half>&);
template void expand_explicit_simd(int32_t, const packed_weight&, const expansion_target<float>&);

}  // namespace corvane
