#include "ops/row_lookup.hpp"

#include "formats/q2_k.hpp"
#include "formats/q4_k.hpp"
#include "frame/launch.hpp"
#include "ops/expand.hpp"

namespace corvane {
namespace {

// A work-group of `local` items for each super-block of the result.
template <class Reader>
void look_up_rows(const char* kernel, uint64_t local, const uint8_t* weight, const int64_t* row_numbers, float* output,
                  uint64_t batch, uint64_t sequence, uint64_t state_size, uint64_t output_size, c10::Device device) {
  using detail::block_elements, detail::block_units;
  const origin where{"linear_xpu_kernel", kernel};
  check_multiple(state_size, unit_elements, where);
  const auto planes = Reader::locate(weight, state_size, output_size);
  const auto blocks_per_row = static_cast<uint32_t>(state_size / block_elements);
  const uint64_t groups = batch * sequence * blocks_per_row;
  launch<1>(device, where, {{groups * local}, {local}}, sycl::sub_group_size{}, [=](sycl::group<1> group) {
    const auto row = static_cast<uint32_t>(row_numbers[group.id() / blocks_per_row]);
    const auto block = row * blocks_per_row + static_cast<uint32_t>(group.id() % blocks_per_row);
    expand_units<Reader, float>(planes, block * block_units, block_units, output + group.id() * block_elements);
  });
}

}  // namespace

void xpu_dequantize_rows_kernel_q2_k(const uint8_t* weight, const int64_t* row_numbers, float* output, uint64_t batch,
                                     uint64_t sequence, uint64_t state_size, uint64_t output_size, c10::Device device) {
  look_up_rows<q2_k_reader>("xpu_dequantize_rows_kernel_q2_k", 64, weight, row_numbers, output, batch, sequence,
                            state_size, output_size, device);
}

void xpu_dequantize_rows_kernel_q4_k(const uint8_t* weight, const int64_t* row_numbers, float* output, uint64_t batch,
                                     uint64_t sequence, uint64_t state_size, uint64_t output_size, c10::Device device) {
  look_up_rows<q4_k_reader>("xpu_dequantize_rows_kernel_q4_k", 32, weight, row_numbers, output, batch, sequence,
                            state_size, output_size, device);
}

}  // namespace corvane
