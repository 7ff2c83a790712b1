#include "linear/launchers.hpp"

#include <ATen/Functions.h>

#include <stdexcept>

#include "formats/registry.hpp"
#include "frame/device_class.hpp"
#include "frame/dispatch.hpp"
#include "linear/expansion_path.hpp"
#include "linear/one_row.hpp"
#include "linear/path.hpp"
#include "linear/quantised_row.hpp"
#include "linear/small_batch.hpp"

namespace corvane {
namespace {

constexpr origin here{"linear_xpu_kernel", "forward_new"};

at::Tensor empty_result(const at::Tensor& input, const at::Tensor& weight, int64_t rows, int64_t output_size) {
  return at::empty({rows, output_size}, weight.options().dtype(input.scalar_type()));
}

template <int32_t Id>
at::Tensor one_quantised_row(const at::Tensor& input, const at::Tensor& weight, int64_t state_size,
                             int64_t output_size) {
  return dispatch_floating(input.scalar_type(), linear_dispatch_label, here, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const at::Tensor activations = quantised_row<T>(input, static_cast<uint64_t>(state_size));
    const auto* blocks = activations.data_ptr<uint8_t>();
    at::Tensor output = empty_result(input, weight, 1, output_size);
    const auto* bytes = weight.data_ptr<uint8_t>();
    if constexpr (Id == qtype_iq2_xxs) {
      qlinear_xpu_kernel_iq2_xxs_q8_1(bytes, blocks, output.data_ptr<T>(), 1, state_size, output_size, weight.device());
    } else if constexpr (Id == qtype_q2_k) {
      qlinear_xpu_kernel_q2_k_q8_1(bytes, blocks, output.data_ptr<T>(), 1, state_size, output_size, weight.device());
    } else {
      qlinear_xpu_kernel_iq1_s_q8_1(bytes, blocks, output.data_ptr<T>(), 1, state_size, output_size, weight.device());
    }
    return output;
  });
}

template <int32_t Id, unsigned SG, unsigned WG, unsigned Q4Rows>
at::Tensor one_row(const at::Tensor& input, const at::Tensor& weight, int64_t state_size, int64_t output_size) {
  if constexpr (quantises_input(Id)) {
    return one_quantised_row<Id>(input, weight, state_size, output_size);
  } else {
    at::Tensor output = empty_result(input, weight, 1, output_size);
    dispatch_floating(input.scalar_type(), linear_dispatch_label, here, [&](auto tag) {
      using T = typename decltype(tag)::type;
      one_row_kernel<Id, T, SG, WG, Q4Rows>(input.data_ptr<T>(), weight.data_ptr<uint8_t>(), output.data_ptr<T>(),
                                            state_size, output_size, weight.device());
    });
    return output;
  }
}

template <int32_t Id, unsigned SG, unsigned WG>
at::Tensor small_batch(const at::Tensor& input, const at::Tensor& weight, int64_t rows, int64_t state_size,
                       int64_t output_size) {
  at::Tensor output = empty_result(input, weight, rows, output_size);
  dispatch_floating(input.scalar_type(), linear_dispatch_label, here, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const auto launch = [&](auto kernel) {
      kernel(input.data_ptr<T>(), weight.data_ptr<uint8_t>(), output.data_ptr<T>(), rows, state_size, output_size,
             weight.device());
    };
    if constexpr (Id == qtype_q4_0) {
      launch(qlinear_xpu_kernel_q4_0_2x16_by_batch<T, SG, WG>);
    } else {
      launch(qlinear_xpu_kernel_nf4_2x16_batch<T, SG, WG>);
    }
  });
  return output;
}

// The launcher of a format: read the policy, take the path, run it.
template <int32_t Id, unsigned SG, unsigned WG, unsigned Q4Rows>
at::Tensor launch_format(const at::Tensor& input, const at::Tensor& weight, int64_t rows, int64_t state_size,
                         int64_t output_size, int64_t row_hint) {
  const tile_policy policy = reads_tile_policy(Id) ? read_tile_policy(Id) : tile_policy{};
  const linear_call call{device_class.linear_forward, Id, input.scalar_type(), rows, state_size, output_size, row_hint};
  const linear_path path = select_path(call, policy);
  switch (path) {
    case linear_path::matrix_vector:
      return one_row<Id, SG, WG, Q4Rows>(input, weight, state_size, output_size);
    case linear_path::small_batch:
      if constexpr (Id == qtype_q4_0 || Id == qtype_nf4) {
        return small_batch<Id, SG, WG>(input, weight, rows, state_size, output_size);
      }
      break;
    case linear_path::tile:
      return multiply_by_tiles(call, policy, input, weight);
    case linear_path::fast_expansion:
    case linear_path::general_expansion:
    case linear_path::direct_expansion:
      return expand_and_multiply(path, call, input, weight);
    case linear_path::systolic:
      break;  // taken before any launcher
    case linear_path::refused:
      throw std::runtime_error("Unsupported input dtype, only fp32 and fp16 are supported");
  }
  fail(here, "this path is not a launcher's");
}

template <int32_t Id, unsigned SG, unsigned WG, unsigned Q4Rows>
constexpr linear_launcher entry() {
  if constexpr (same_on_all_classes(Id)) {
    return launch_format<Id, 32, 32, 2>;
  } else {
    return launch_format < Id, SG, WG, Id == qtype_q4_0 ? Q4Rows : 2 > ;
  }
}

using formats_with_launcher =
    std::integer_sequence<int32_t, qtype_q4_0, qtype_q4_1, qtype_q5_0, qtype_q5_1, qtype_q8_0, qtype_nf4, qtype_nf3,
                          qtype_fp8_e4m3, qtype_fp4, qtype_fp8_e5m2, qtype_iq2_xxs, qtype_q2_k, qtype_iq1_s, qtype_q6_k,
                          qtype_q4_k, qtype_q5_k, qtype_fp6, qtype_fp6_k>;

template <int32_t... Id>
constexpr bool are_all_formats(std::integer_sequence<int32_t, Id...>) {
  for (int32_t id = 0; id < 32; ++id) {
    if (((id == Id) || ...) != is_format(id)) return false;
  }
  return true;
}
static_assert(are_all_formats(formats_with_launcher{}), "exactly the formats have a launcher");

template <unsigned SG, unsigned WG, unsigned Q4Rows>
constexpr linear_table make_table() {
  linear_table table{};
  const auto set = [&]<int32_t... Id>(std::integer_sequence<int32_t, Id...>) {
    ((table[Id] = entry<Id, SG, WG, Q4Rows>()), ...);
  };
  set(formats_with_launcher{});
  return table;
}

constexpr linear_table launchers_class0 = make_table<32, 64, 2>();
constexpr linear_table launchers_class5 = make_table<16, 32, 8>();
constexpr linear_table launchers_other = make_table<16, 32, 2>();

}  // namespace

const linear_table& launchers_for(uint8_t device_class) {
  if (device_class == 5) return launchers_class5;
  return device_class == 0 ? launchers_class0 : launchers_other;
}

}  // namespace corvane
