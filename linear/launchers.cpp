#include "linear/launchers.hpp"

#include <ATen/Functions.h>

#include <string>

#include "formats/registry.hpp"
#include "linear/kernels.hpp"
#include "linear/path.hpp"
#include "module/frame/device_class.hpp"
#include "module/frame/dispatch.hpp"

namespace corvane {
namespace {

template <unsigned SG, unsigned WG, unsigned Q4Rows>
at::Tensor launch_q4_0(const at::Tensor& input, const at::Tensor& weight, int64_t rows, int64_t state_size,
                       int64_t output_size, int64_t) {
  if (rows != 1) fail({"linear_xpu", "forward_new"}, "only one input row, found " + std::to_string(rows));
  at::Tensor output = at::empty({1, output_size}, weight.options().dtype(input.scalar_type()));
  dispatch_floating(input.scalar_type(), linear_dispatch_label, {"linear_xpu_kernel", "forward_new"}, [&](auto tag) {
    using T = typename decltype(tag)::type;
    qlinear_xpu_kernel_q4_0_2x16<T, SG, WG, Q4Rows>(input.data_ptr<T>(), weight.data_ptr<uint8_t>(),
                                                    output.data_ptr<T>(), rows, state_size, output_size,
                                                    weight.device());
  });
  return output;
}

at::Tensor not_built(const at::Tensor&, const at::Tensor&, int64_t, int64_t, int64_t, int64_t) {
  fail({"linear_xpu", "forward_new"}, "this format has no kernel yet");
}

template <unsigned SG, unsigned WG, unsigned Q4Rows>
constexpr linear_table make_table() {
  linear_table t{};
  for (int id = 0; id < 32; ++id) {
    if (is_format(id)) t[id] = not_built;
  }
  t[qtype_q4_0] = launch_q4_0<SG, WG, Q4Rows>;
  return t;
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
