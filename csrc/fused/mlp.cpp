#include "fused/mlp.hpp"

#include <ATen/ops/empty.h>
#include <ATen/record_function.h>

#include <array>
#include <string>

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

// `Kernel` states the facts of its kernel, and launches it on an input row.
template <class Kernel>
at::Tensor launch_mlp(const mlp_call& call) {
  at::Tensor output =
      at::empty({1, call.output_size}, at::TensorOptions().device(call.first.device()).dtype(call.input.scalar_type()));
  const origin where{mlp_source, Kernel::facts.name};
  dispatch_floating(call.input.scalar_type(), Kernel::facts.label, where, [&](auto tag) {
    using T = typename decltype(tag)::type;
    check_multiple(call.state_size, Kernel::facts.sub_blk_h, where);
    check_tensors(call, Kernel::facts.id, where);
    const mlp_arguments<T> arguments{
        call.first.data_ptr<uint8_t>(),         call.second.data_ptr<uint8_t>(),         output.data_ptr<T>(),
        static_cast<uint64_t>(call.state_size), static_cast<uint64_t>(call.output_size), call.activation};
    Kernel::template launch<T>(call.input, arguments);
  });
  return output;
}

template <unsigned SG, unsigned WG, unsigned ROWS>
struct q4_0_kernel {
  static constexpr mlp_kernel facts = mlp_q4_0;
  template <class T>
  static void launch(const at::Tensor& input, const mlp_arguments<T>& a) {
    mlp_forward_q4_0_kernel<T, SG, WG, ROWS>(input.data_ptr<T>(), a, input.device());
  }
};

template <unsigned SG, unsigned WG>
struct fp4_kernel {
  static constexpr mlp_kernel facts = mlp_fp4;
  template <class T>
  static void launch(const at::Tensor& input, const mlp_arguments<T>& a) {
    mlp_forward_fp4_kernel<T, SG, WG>(input.data_ptr<T>(), a, input.device());
  }
};

template <unsigned SG, unsigned WG>
struct fp8_e5m2_kernel {
  static constexpr mlp_kernel facts = mlp_fp8_e5m2;
  template <class T>
  static void launch(const at::Tensor& input, const mlp_arguments<T>& a) {
    mlp_forward_fp8_e5m2_kernel<T, SG, WG>(input.data_ptr<T>(), a, input.device());
  }
};

template <unsigned SG, unsigned WG, unsigned ROWS>
struct fp6_kernel {
  static constexpr mlp_kernel facts = mlp_fp6;
  template <class T>
  static void launch(const at::Tensor& input, const mlp_arguments<T>& a) {
    mlp_forward_fp6_kernel<T, SG, WG, ROWS>(input.data_ptr<T>(), a, input.device());
  }
};

struct iq2_xxs_kernel {
  static constexpr mlp_kernel facts = mlp_iq2_xxs;
  template <class T>
  static void launch(const at::Tensor& input, const mlp_arguments<T>& a) {
    const at::Tensor blocks = quantised_row<T>(input, a.state_size);
    mlp_forward_iq2_xxs_kernel<T>(blocks.data_ptr<uint8_t>(), a, input.device());
  }
};

// Indexed by qtype; null: no kernel.
using mlp_table = std::array<at::Tensor (*)(const mlp_call&), 32>;

template <unsigned SG, unsigned WG, unsigned ROWS, bool IQ2_XXS>
constexpr mlp_table make_table() {
  mlp_table t{};
  t[qtype_q4_0] = launch_mlp<q4_0_kernel<SG, WG, ROWS>>;
  t[qtype_fp4] = launch_mlp<fp4_kernel<SG, WG>>;
  t[qtype_fp8_e5m2] = launch_mlp<fp8_e5m2_kernel<SG, WG>>;
  if (IQ2_XXS) t[qtype_iq2_xxs] = launch_mlp<iq2_xxs_kernel>;
  t[qtype_fp6] = launch_mlp<fp6_kernel<SG, WG, ROWS>>;
  return t;
}

constexpr mlp_table table_class0 = make_table<32, 64, 2, true>();
constexpr mlp_table table_class5 = make_table<16, 32, 8, true>();
constexpr mlp_table table_other = make_table<16, 32, 2, false>();

const mlp_table& table_for(uint8_t device) {
  if (device == 5) return table_class5;
  return device == 0 ? table_class0 : table_other;
}

}  // namespace

at::Tensor mlp_forward_xpu(at::Tensor input, at::Tensor first, at::Tensor second, int64_t batch_size,
                           int64_t state_size, int64_t output_size, int64_t activation, int32_t qtype) {
  RECORD_FUNCTION("mlp_forward", std::vector<c10::IValue>({input}));
  check_format(qtype, here);
  const auto handler = table_for(device_class.fused_mlp)[qtype];
  if (handler == nullptr) {
    fail(here, "no kernel for qtype " + std::to_string(qtype) + " (" + registry[qtype].name + ") on device class " +
                   std::to_string(device_class.fused_mlp));
  }
  check(batch_size == 1, here, "batch_size == 1");
  check_sizes(state_size, output_size);
  return handler(
      {input, first, second, state_size, output_size, activation == 0 ? mlp_activation::silu : mlp_activation::tanh});
}

}  // namespace corvane
