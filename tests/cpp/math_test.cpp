// The vector functions against the C library's, in double.
#include "platform/sycl/math.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float not_a_number = std::numeric_limits<float>::quiet_NaN();

float exp_of(float x) { return sycl::exp(sycl::splat(x))[3]; }

// Distance of a result from the exact value, in units of the last place of the float nearest to that value.
double units_off(float result, double exact) {
  const double unit = std::max(std::ldexp(1.0, std::ilogb(exact) - 23), 0x1p-149);
  return std::abs(static_cast<double>(result) - exact) / unit;
}

TEST(exp, error_over_a_dense_sample) {
  double worst = 0;
  for (float from = -104.0f; from < 88.72f; from += 16 * 0x1p-13f) {
    sycl::f32x16 x;
    for (int t = 0; t < 16; ++t) x[t] = from + static_cast<float>(t) * 0x1p-13f;
    const sycl::f32x16 y = sycl::exp(x);
    for (int t = 0; t < 16; ++t) worst = std::max(worst, units_off(y[t], std::exp(static_cast<double>(x[t]))));
  }
  EXPECT_LT(worst, 1.0);
}

TEST(exp, error_next_to_zero) {  // where e^x is 1 + x, and the spacing of arguments is finest
  for (float x = 0x1p-30f; x < 1.0f; x *= 1.01f) {
    EXPECT_LT(units_off(exp_of(x), std::exp(static_cast<double>(x))), 1.0) << x;
    EXPECT_LT(units_off(exp_of(-x), std::exp(-static_cast<double>(x))), 1.0) << -x;
  }
}

TEST(exp, special_values) {
  EXPECT_EQ(exp_of(0.0f), 1.0f);
  EXPECT_EQ(exp_of(-0.0f), 1.0f);
  EXPECT_EQ(exp_of(-infinity), 0.0f);
  EXPECT_EQ(exp_of(infinity), infinity);
  EXPECT_EQ(exp_of(std::numeric_limits<float>::lowest()), 0.0f);
  EXPECT_EQ(exp_of(std::numeric_limits<float>::max()), infinity);
  EXPECT_EQ(exp_of(std::numeric_limits<float>::denorm_min()), 1.0f);
  EXPECT_EQ(exp_of(-103.98f), 0.0f);       // below half of the smallest subnormal
  EXPECT_EQ(exp_of(-103.97f), 0x1p-149f);  // above it
  EXPECT_EQ(exp_of(88.73f), infinity);
  EXPECT_LT(exp_of(88.72f), infinity);
  EXPECT_TRUE(std::isnan(exp_of(not_a_number)));
}

TEST(fmax, ignores_a_not_a_number) {
  const auto fmax_of = [](float a, float b) { return sycl::fmax(sycl::splat(a), sycl::splat(b))[5]; };
  for (const float a : {-infinity, -1.5f, 0.0f, 2.0f, infinity}) {
    EXPECT_EQ(fmax_of(a, not_a_number), a);
    EXPECT_EQ(fmax_of(not_a_number, a), a);
    EXPECT_EQ(fmax_of(a, 1.0f), std::max(a, 1.0f));
    EXPECT_EQ(fmax_of(1.0f, a), std::max(a, 1.0f));
  }
  EXPECT_TRUE(std::isnan(fmax_of(not_a_number, not_a_number)));
}

}  // namespace
