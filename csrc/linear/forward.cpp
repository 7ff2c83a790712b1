#include "linear/forward.hpp"

#include <string>

#include "formats/registry.hpp"
#include "frame/argument.hpp"
#include "frame/device_class.hpp"
#include "linear/launchers.hpp"

namespace corvane {
namespace {

constexpr origin here{"linear_xpu", "forward_new"};

// What the shape derivation takes for granted, asked before any division.
void check_arguments(const at::Tensor& input, const at::Tensor& weight, int32_t qtype) {
  check_format(qtype, here);
  if (input.dim() < 2) fail(here, "input must have two dimensions, found " + std::to_string(input.dim()));
  check_packed({"weights", weight}, here);
  // Dimensions after the second are not looked at; one of size 0 would leave the first two without data.
  if (input.numel() < input.size(0) * input.size(1)) {
    fail(here, "input must not have an empty dimension behind the second");
  }
}

}  // namespace

at::Tensor linear_forward(at::Tensor input, at::Tensor weight, int32_t qtype, int64_t row_hint) {
  check_arguments(input, weight, qtype);
  const int64_t rows = input.size(0), state_size = input.size(1);
  const int64_t output_size = derive_output_size(weight.size(0), state_size, qtype, here);
  // Dimensions after the second are not looked at: what follows sees two.
  if (input.dim() > 2) input = input.as_strided({rows, state_size}, {state_size, 1});
  const linear_call call{class_at_load.linear, qtype, input.scalar_type(), rows, state_size, output_size, row_hint};
  return run_path(select_path(call), call, input, weight);
}

}  // namespace corvane
