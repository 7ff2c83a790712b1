// Rows as 8-bit blocks: the quantiser's roundings by hand, and the dot products of whole weight blocks against those of
// their groups one by one.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "formats/q8_1_dots.hpp"
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

// Random codes under block scales of 1 with activations of whole numbers: every sum is exact, in any order.
template <class Dots>
void expect_products(int32_t qtype, int groups, float (*vec_dot)(const uint8_t*, const block_q8_1*, const int&)) {
  constexpr unsigned blocks = 3;  // odd: the last is a tail where two go together
  std::mt19937 random(5);
  std::vector<uint8_t> weight(blocks * Dots::block_bytes);
  for (uint8_t& byte : weight) byte = static_cast<uint8_t>(random());
  const Half ones[2] = {Half(1.0f), Half(1.0f)};
  const bool is_q2_k = qtype == qtype_q2_k;
  for (unsigned b = 0; b < blocks; ++b) {
    std::memcpy(&weight[b * Dots::block_bytes + (is_q2_k ? 80 : 0)], ones, is_q2_k ? 4 : 2);
  }
  std::vector<block_q8_1> y(8 * blocks);
  for (block_q8_1& b : y) {
    b.d = Half(static_cast<float>(random() % 4));
    b.s = Half(static_cast<float>(random() % 2000) - 1000);
    for (int8_t& q : b.qs) q = static_cast<int8_t>(random() % 255 - 127);
  }
  staged_row<Dots> staged(blocks);
  staged.fill(reinterpret_cast<const uint8_t*>(y.data()));
  std::vector<sycl::f32x16> lanes;
  for_each_dot<Dots>(weight.data(), staged.data(), blocks, [&](sycl::f32x16 dots) { lanes.push_back(dots); });
  ASSERT_EQ(lanes.size(), (blocks + Dots::step - 1) / Dots::step);

  for (unsigned b = 0; b < blocks; ++b) {
    float sum = 0, total = 0;
    for (int g = 0; g < groups; ++g) {
      const float dot = vec_dot(&weight[b * Dots::block_bytes], &y[8 * b], g);
      sum += dot;
      if (Dots::step == 2) {
        EXPECT_EQ(lanes[b / 2][8 * (b % 2) + g], dot) << "group " << g << " of block " << b;
      }
    }
    for (int t = 0; t < 16 && Dots::step == 1; ++t) total += lanes[b][t];
    if (Dots::step == 1) {
      EXPECT_EQ(total, sum) << "block " << b;
    }
  }
  for (int t = 8; Dots::step == 2 && t < 16; ++t) EXPECT_EQ(lanes.back()[t], 0.0f);
}
TEST(dot_products, of_iq2_xxs_groups) { expect_products<iq2_xxs_dots>(qtype_iq2_xxs, 8, vec_dot_iq2_xxs_q8_1); }
TEST(dot_products, of_iq1_s_groups) { expect_products<iq1_s_dots>(qtype_iq1_s, 8, vec_dot_iq1_s_q8_1); }
TEST(dot_products, of_q2_k_groups) { expect_products<q2_k_dots>(qtype_q2_k, 16, vec_dot_q2_k_q8_1); }

}  // namespace
