// The kernels by their names: sizes given as template values reach the launch, and the names agree with the support
// rows, which the headers assert.
#include "fused/kernels.hpp"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

#include "linear/kernels.hpp"
#include "ops/kernels.hpp"
#include "sysdot/sysdot_kernel.hpp"

namespace {

using namespace corvane;

const c10::Device device(c10::DeviceType::XPU, 0);

// The one launch that f makes.
template <class F>
sycl::launch_record launched(const F& f) {
  const auto list = std::make_shared<sycl::launch_log::list>();
  sycl::launch_log::begin(list);
  f();
  const auto records = sycl::launch_log::snapshot(list);
  sycl::launch_log::end(list);
  EXPECT_EQ(records.size(), 1u);
  return *records.at(0);
}

using sizes = std::vector<std::size_t>;

TEST(named_kernels, sizes_are_those_of_the_template) {
  const std::vector<uint8_t> weight(24 * 34);  // 24 rows of 64 elements of q4_0, all -8 * 0
  const std::vector<float> x(2 * 64, 1.0f);
  std::vector<float> y(24 * 64, 1.0f);
  auto r = launched(
      [&] { qlinear_xpu_kernel_q4_0_2x16<float, 16, 32, 8>(x.data(), weight.data(), y.data(), 1, 64, 24, device); });
  EXPECT_EQ(r.kernel, "qlinear_xpu_kernel_q4_0_2x16");
  EXPECT_EQ(r.global_size, (sizes{3 * 32}));
  EXPECT_EQ(r.sub_group_size, 16);
  EXPECT_EQ(y[23], 0.0f);

  r = launched([&] {
    qlinear_xpu_kernel_q4_0_2x16_by_batch<float, 32, 64>(x.data(), weight.data(), y.data(), 2, 64, 24, device);
  });
  EXPECT_EQ(r.global_size, (sizes{12 * 64, 1}));

  r = launched([&] { qlinear_xpu_dequantize_kernel_q4_0_1x4<float, 32>(weight.data(), y.data(), 64, 24, device); });
  EXPECT_EQ(r.kernel, "qlinear_xpu_dequantize_kernel_q4_0_1x4");
  EXPECT_EQ(r.local_size, (sizes{16}));

  r = launched([&] { dequantize_q4_0_kernel(weight.data(), y.data(), 24, device); });
  EXPECT_EQ(r.global_size, (sizes{3}));

  const mlp_arguments<float> gated{weight.data(), weight.data(), y.data(), 64, 24, mlp_activation::silu};
  r = launched([&] { mlp_forward_q4_0_kernel<float, 32, 64, 2>(x.data(), gated, device); });
  EXPECT_EQ(r.global_size, (sizes{12 * 64}));

  const sysdot_call call{x.data(), weight.data(), weight.data() + 24 * 32, y.data(), 2, 64, 24, qtype_q4_0};
  r = launched([&] { sysdot_forward_kernel<float, Half, float, Half, 2, 8, 8>(call, device); });
  EXPECT_EQ(r.global_size, (sizes{3 * 8, 1}));
}

}  // namespace
