#include "ops/row_lookup.hpp"

#include "formats/k_block.hpp"
#include "frame/launch.hpp"

namespace corvane {

void look_up_rows(int32_t qtype, const packed_weight& weight, const int64_t* row_numbers, uint64_t count,
                  float* output) {
  using detail::super_block_elements, detail::super_block_units;
  constexpr auto has_look_up = [](const format_support& s) { return s.row_lookup.kernel != nullptr; };
  with_format<has_look_up>(qtype, [&](auto id) {
    const row_lookup_support& offers = support[id].row_lookup;
    const origin where{linear_source, offers.kernel};
    check_multiple(weight.state_size, unit_elements, where);
    const unit_expander<float> expand = general_expander<id, float>();
    const auto blocks_per_row = static_cast<uint32_t>(weight.state_size / super_block_elements);
    const uint64_t groups = count * blocks_per_row, local = offers.items;
    // A work-group for each super-block of the result.
    launch<1>(weight.device, where, {{groups * local}, {local}}, sycl::sub_group_size{}, [=](sycl::group<1> group) {
      const auto row = static_cast<uint32_t>(row_numbers[group.id() / blocks_per_row]);
      const auto block = row * blocks_per_row + static_cast<uint32_t>(group.id() % blocks_per_row);
      expand(weight, block * super_block_units, super_block_units, output + group.id() * super_block_elements, false);
    });
  });
}

}  // namespace corvane
