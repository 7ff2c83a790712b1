// Rows as 8-bit blocks: the quantiser's roundings by hand.
#include "formats/q8_1.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "linear/kernels.hpp"

namespace {

using namespace corvane;

const c10::Device device(c10::DeviceType::XPU, 0);

template <class T>
std::vector<block_q8_1> quantised(const std::vector<T>& row) {
  std::vector<block_q8_1> blocks(row.size() / 32);
  quantize_xpu_kernel_q8_1(row.data(), reinterpret_cast<uint8_t*>(blocks.data()), 1, row.size(), device);
  return blocks;
}

// With 127 in a block its d is 1 (127 times the float nearest 1/127 rounds to it), and codes are the rounded inputs.
template <class T>
std::vector<T> row_of(std::initializer_list<double> first) {
  std::vector<T> row(256, T(0.0f));
  size_t i = 0;
  for (const double x : first) row[i++] = static_cast<T>(x);
  return row;
}

template <class T>
struct quantiser : testing::Test {};
using element_types = testing::Types<float, double, Half, BFloat16>;
TYPED_TEST_SUITE(quantiser, element_types);

TYPED_TEST(quantiser, rounds_halves_away_from_zero) {
  const auto b = quantised(row_of<TypeParam>({127, 0.5, -0.5, 1.5, -2.5, 0.4375, -0.4375, 3.5, -127}));
  const int8_t expected[9] = {127, 1, -1, 2, -3, 0, 0, 4, -127};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(b[0].qs[i], expected[i]) << i;
  EXPECT_EQ(static_cast<float>(b[0].d), 1.0f);
  EXPECT_EQ(static_cast<float>(b[0].s), 0.5f - 0.5f + 1.5f - 2.5f + 3.5f);  // of the inputs, not of the codes
}
TYPED_TEST(quantiser, a_zero_block_is_all_zero) {
  const auto b = quantised(row_of<TypeParam>({5.0}));
  EXPECT_EQ(static_cast<float>(b[1].d), 0.0f);
  EXPECT_EQ(static_cast<float>(b[1].s), 0.0f);
  for (const int8_t q : b[1].qs) EXPECT_EQ(q, 0);
  EXPECT_EQ(b[0].qs[0], 127);
}
TYPED_TEST(quantiser, a_not_a_number_shows_in_the_scale) {
  const auto b = quantised(row_of<TypeParam>({1.0, std::nan(""), 2.0}));
  EXPECT_TRUE(std::isnan(static_cast<float>(b[0].d)));
  EXPECT_TRUE(std::isnan(static_cast<float>(b[0].s)));
  EXPECT_EQ(b[0].qs[1], 0);
}
TEST(quantiser, a_row_of_double_is_divided_in_double) {
  // The quotient is just above 58.5; with x narrowed to float first it falls just below.
  const double a = 0x1.ef1d7ap+0, x = 0x1.c82132265a647p-1;
  EXPECT_EQ(quantised(row_of<double>({a, x}))[0].qs[1], 59);
  EXPECT_EQ(quantised(row_of<float>({a, x}))[0].qs[1], 58);
}
TEST(quantiser, the_sum_is_narrowed_once) {
  // 2049 + 2 halves up to a Half; in Half 2049 alone would lose its last bit.
  const auto b = quantised(row_of<float>({2049, 2}));
  EXPECT_EQ(static_cast<float>(b[0].s), 2052.0f);
}
TEST(quantiser, scales_too_small_for_a_float_give_zero_codes) {
  const auto b = quantised(row_of<float>({1e-45}));
  EXPECT_EQ(b[0].qs[0], 0);
}

}  // namespace
