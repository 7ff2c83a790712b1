#include "ops/dequantize.hpp"

#include <ATen/Functions.h>

#include <algorithm>
#include <limits>
#include <string>

#include "formats/registry.hpp"
#include "frame/argument.hpp"
#include "frame/device_class.hpp"
#include "frame/dispatch.hpp"
#include "ops/expand_general.hpp"
#include "ops/row_lookup.hpp"

namespace corvane {
namespace {

// The formats that dequant has a kernel for.
constexpr bool dequant_expands(int32_t qtype) {
  return qtype == qtype_q4_0 || qtype == qtype_q4_1 || qtype == qtype_q8_0 || qtype == qtype_nf4 ||
         qtype == qtype_fp4 || qtype == qtype_fp8_e5m2 || qtype == qtype_iq2_xxs;
}

template <class T>
void expand(int32_t qtype, const uint8_t* weight, T* output, uint64_t k, uint64_t n, c10::Device device) {
  const bool class0 = device_class.linear_forward == 0;
  const auto choose = [&](auto* on_class0, auto* elsewhere) {
    (class0 ? on_class0 : elsewhere)(weight, output, k, n, device);
  };
  if (qtype == qtype_q4_0) {
    choose(qlinear_xpu_dequantize_kernel_q4_0_1x4<T, 32>, qlinear_xpu_dequantize_kernel_q4_0_1x2<T, 16>);
  } else if (qtype == qtype_q4_1) {
    choose(qlinear_xpu_dequantize_kernel_q4_1_1x4<T, 32>, qlinear_xpu_dequantize_kernel_q4_1_1x2<T, 16>);
  } else if (qtype == qtype_q8_0) {
    choose(qlinear_xpu_dequantize_kernel_q8_0_1x2<T, 32>, qlinear_xpu_dequantize_kernel_q8_0_1x1<T, 16>);
  } else if (qtype == qtype_nf4) {
    choose(qlinear_xpu_dequantize_kernel_nf4_1x4<T, 32>, qlinear_xpu_dequantize_kernel_nf4_1x2<T, 16>);
  } else if (qtype == qtype_fp4) {
    choose(qlinear_xpu_dequantize_kernel_fp4_1x4<T, 32>, qlinear_xpu_dequantize_kernel_fp4_1x2<T, 16>);
  } else if (qtype == qtype_fp8_e5m2) {
    choose(qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2<T, 32>, qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1<T, 16>);
  } else if (qtype == qtype_iq2_xxs) {
    qlinear_xpu_dequantize_kernel_iq2_xxs<T>(weight, output, k, n, device);
  }
}

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
  // Planes of q4_k lie where the rows of the whole weight put them. Blocks of q2_k lie behind each other, so that a
  // weight of fewer rows than output_size serves those that it has.
  const int64_t rows = qtype == qtype_q4_k ? output_size : *std::max_element(numbers, end) + 1;
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
  if (!dequant_expands(qtype)) return output;
  dispatch_floating(input.scalar_type(), linear_dispatch_label, here, [&](auto tag) {
    using T = typename decltype(tag)::type;
    expand<T>(qtype, weight.data_ptr<uint8_t>(), output.data_ptr<T>(), state_size, output_size, weight.device());
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
  if (qtype != qtype_q2_k && qtype != qtype_q4_k) return output;
  const bool is_q4_k = qtype == qtype_q4_k;
  const char* name = is_q4_k ? "xpu_dequantize_rows_kernel_q4_k" : "xpu_dequantize_rows_kernel_q2_k";
  check_multiple(state_size, 64,
                 {"linear_xpu_kernel", name});  // as the launcher does, but ahead of what needs whole rows
  if (input.numel() != 0) check_rows(input, weight, qtype, state_size, output_size);
  auto* kernel = is_q4_k ? xpu_dequantize_rows_kernel_q4_k : xpu_dequantize_rows_kernel_q2_k;
  kernel(weight.data_ptr<uint8_t>(), input.data_ptr<int64_t>(), output.data_ptr<float>(), batch, sequence, state_size,
         output_size, weight.device());
  return output;
}

}  // namespace corvane
