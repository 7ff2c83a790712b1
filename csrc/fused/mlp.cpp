#include "fused/mlp.hpp"

#include <ATen/ops/empty.h>
#include <ATen/record_function.h>

#include <string>
#include <vector>

#include "frame/device_class.hpp"
#include "frame/dispatch.hpp"
#include "fused/arguments.hpp"
#include "fused/mlp_kernels.hpp"
#include "linear/quantised_row.hpp"

namespace corvane {
namespace {

constexpr origin here{mlp_source, "mlp_forward_xpu"};

struct mlp_call {
  const at::Tensor &input, &first, &second;
  int64_t state_size, output_size;
  mlp_activation activation;
};

// Before the result is allocated.
void check_sizes(int64_t state_size, int64_t output_size) {
  if (state_size < 1) fail(here, "state_size must be at least 1, found " + std::to_string(state_size));
  if (output_size < 0) fail(here, "output_size must not be negative, found " + std::to_string(output_size));
  check_elements(output_size, state_size, here);
}

// What the kernel takes for granted. No wrapper has looked at the tensors before.
void check_tensors(const mlp_call& call, int32_t id, const origin& where) {
  check_whole_blocks(call.state_size, registry[id].block_elements, where);
  check_on_xpu({"first weight", call.first}, where);
  for (const argument& a : {argument{"first weight", call.first}, argument{"second weight", call.second}}) {
    check_packed(a, where);
    check_device(a, call.first.device(), where);
    check_holds(a, call.output_size, call.state_size, id, where);
    check_contiguous(a, where);
  }
  const at::Tensor& input = call.input;
  check_device({"input", input}, call.first.device(), where);
  check_contiguous({"input", input}, where);
  if (input.numel() != call.state_size || input.dim() < 1 || input.size(-1) != call.state_size) {
    fail(where, "input must be one row of " + std::to_string(call.state_size) + " elements, found " +
                    std::to_string(input.numel()) + " elements" +
                    (input.dim() < 1 ? "" : " in rows of " + std::to_string(input.size(-1))));
  }
  check_no_gradients({{"input", input}}, where);
}

at::Tensor run_mlp(const mlp_call& call, int32_t qtype) {
  const mlp_support& offers = support[qtype].mlp;
  const kernel_launch how{offers.kernel.name, offers.kernel.sizes(class_at_load.mlp)};
  const origin where{mlp_source, how.name};
  at::Tensor output =
      at::empty({1, call.output_size}, at::TensorOptions().device(call.first.device()).dtype(call.input.scalar_type()));
  dispatch_floating(call.input.scalar_type(), offers.dispatch_label, where, [&](auto tag) {
    using T = typename decltype(tag)::type;
    check_multiple(call.state_size, offers.multiple, where);
    check_tensors(call, qtype, where);
    const mlp_arguments<T> arguments{
        call.first.data_ptr<uint8_t>(),         call.second.data_ptr<uint8_t>(),         output.data_ptr<T>(),
        static_cast<uint64_t>(call.state_size), static_cast<uint64_t>(call.output_size), call.activation};
    const at::Tensor row =
        takes_eight_bit_input(support[qtype]) ? quantised_row<T>(call.input, arguments.state_size) : call.input;
    gated_mlp(qtype, how, row.data_ptr(), arguments, call.input.device());
  });
  return output;
}

}  // namespace

at::Tensor mlp_forward_xpu(at::Tensor input, at::Tensor first, at::Tensor second, int64_t batch_size,
                           int64_t state_size, int64_t output_size, int64_t activation, int32_t qtype) {
  RECORD_FUNCTION("mlp_forward", std::vector<c10::IValue>({input}));
  check_format(qtype, here);
  if (!support[qtype].mlp.kernel.on(class_at_load.mlp)) {
    fail(here, "no kernel for qtype " + std::to_string(qtype) + " (" + registry[qtype].name + ") on device class " +
                   std::to_string(class_at_load.mlp));
  }
  check(batch_size == 1, here, "batch_size == 1");
  check_sizes(state_size, output_size);
  const mlp_call call{input,      first,       second,
                      state_size, output_size, activation == 0 ? mlp_activation::silu : mlp_activation::tanh};
  return run_mlp(call, qtype);
}

}  // namespace corvane
