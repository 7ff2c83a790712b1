#include "ops/dequantize.hpp"

#include <ATen/Functions.h>

#include <algorithm>
#include <limits>
#include <string>

#include "formats/support.hpp"
#include "frame/argument.hpp"
#include "frame/device_class.hpp"
#include "frame/dispatch.hpp"
#include "frame/launch.hpp"
#include "ops/expansion.hpp"
#include "ops/row_lookup.hpp"

namespace corvane {
namespace {

constexpr origin rows_here{"linear_xpu", "dequantize_rows"};

// All that would let a kernel read outside the weight: a device could not tell.
void check_rows(const at::Tensor& row_numbers, const at::Tensor& weight, int32_t qtype, int64_t state_size,
                int64_t output_size) {
  check_elements(output_size, state_size, rows_here);
  const at::Tensor on_host = row_numbers.to(c10::DeviceType::CPU).contiguous();
  const int64_t* numbers = on_host.data_ptr<int64_t>();
  const int64_t* end = numbers + on_host.numel();
  const int64_t* outside =
      std::find_if(numbers, end, [&](int64_t number) { return number < 0 || number >= output_size; });
  if (outside != end) {
    fail(rows_here, "row numbers must lie in 0 to output_size - 1 = " + std::to_string(output_size - 1) + ", found " +
                        std::to_string(*outside));
  }
  // Planes lie where the rows of the whole weight put them. Interleaved blocks lie behind each other, so that a weight
  // of fewer rows than output_size serves those that it has.
  const bool all_rows = support[qtype].row_lookup.needs_all_rows;
  const int64_t rows = all_rows ? output_size : *std::max_element(numbers, end) + 1;
  const int64_t needed = rows * state_size / registry[qtype].block_elements * registry[qtype].block_bytes;
  if (needed > weight.size(0)) {
    fail(rows_here, "weight must hold " + std::to_string(needed) + " bytes for " + std::to_string(rows) + " rows of " +
                        std::to_string(state_size) + " elements, found " + std::to_string(weight.size(0)));
  }
}

}  // namespace

at::Tensor dequant_body(const at::Tensor& input, const at::Tensor& weight, int32_t qtype) {
  constexpr origin here{"linear_xpu", "dequant"};
  check_format(qtype, here);
  if (input.dim() < 2) fail(here, "input must have two dimensions, found " + std::to_string(input.dim()));
  check_packed({"weight", weight}, here);
  const int64_t state_size = input.size(1);
  const int64_t output_size = derive_output_size(weight.size(0), state_size, qtype, here);

  at::Tensor output = at::empty({output_size, state_size}, weight.options().dtype(input.scalar_type()));
  if (!support[qtype].dequant) return output;
  dispatch_floating(input.scalar_type(), linear_dispatch_label, here, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const packed_weight packed{weight.data_ptr<uint8_t>(), static_cast<uint64_t>(state_size),
                               static_cast<uint64_t>(output_size), weight.device()};
    expand_general<T>(qtype, class_at_load.linear, packed, {output.data_ptr<T>()});
  });
  return output;
}

at::Tensor dequantize_rows_body(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, int64_t state_size,
                                int64_t output_size) {
  check_format(qtype, rows_here);
  if (input.dim() != 2) fail(rows_here, "input must have two dimensions, found " + std::to_string(input.dim()));
  check_packed({"weight", weight}, rows_here);
  constexpr int64_t most = std::numeric_limits<int32_t>::max();
  if (state_size < 0 || output_size < 0 || state_size > most || output_size > most) {
    fail(rows_here, "state_size and output_size must lie in 0 to 2147483647, found " + std::to_string(state_size) +
                        " and " + std::to_string(output_size));
  }

  const int64_t batch = input.size(0), sequence = input.size(1);
  at::Tensor output = at::empty({batch, sequence, state_size}, weight.options().dtype(c10::ScalarType::Float));
  const row_lookup_support& offers = support[qtype].row_lookup;
  if (offers.kernel == nullptr) return output;
  // As the launcher does, but ahead of what needs whole rows.
  check_multiple(state_size, unit_elements, {linear_source, offers.kernel});
  if (input.numel() != 0) check_rows(input, weight, qtype, state_size, output_size);
  const packed_weight packed{weight.data_ptr<uint8_t>(), static_cast<uint64_t>(state_size),
                             static_cast<uint64_t>(output_size), weight.device()};
  look_up_rows(qtype, packed, input.data_ptr<int64_t>(), static_cast<uint64_t>(batch * sequence),
               output.data_ptr<float>());
  return output;
}

}  // namespace corvane
