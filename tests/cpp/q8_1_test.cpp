// Rows as 8-bit blocks: the quantiser's roundings by hand, and the dot products of whole weight blocks against sums
// term by term from the bytes.
#include <c10/util/Exception.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "linear/q8_1_dots.hpp"
#include "scalar_expansion.hpp"

namespace {

using namespace corvane;

const c10::Device device(c10::DeviceType::XPU, 0);
constexpr float infinity = std::numeric_limits<float>::infinity();

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

TEST(quantiser, refuses_rows_that_do_not_fill_a_work_group) {
  const std::vector<float> row(128);
  std::vector<uint8_t> blocks(q8_1_bytes(128));
  try {
    quantize_xpu_kernel_q8_1(row.data(), blocks.data(), 1, 128, device);
    FAIL();
  } catch (const c10::Error& error) {
    EXPECT_EQ(error.what_without_backtrace(), std::string("128 must be a multiple of 256"));
    EXPECT_NE(error.backtrace().find("quantize_xpu_kernel_q8_1 at linear_xpu_kernel.cpp"), std::string::npos);
  }
}

// Dot products of all groups of a block with random activations, term by term in double from the bytes. The magnitude
// is the sum of all terms without their signs, to which rounding errors relate.
struct products {
  std::vector<double> group, magnitude;
};
products plain_products(const scalar::weight& w, uint64_t block, const block_q8_1* y, int groups) {
  products p{std::vector<double>(groups), std::vector<double>(groups)};
  for (unsigned e = 0; e < 256; ++e) {
    // q2_k: four bytes of codes are four elements of each run of 32 in a half block.
    const unsigned g = groups == 8 ? e / 32 : 8 * (e / 128) + e % 32 / 4;
    const double d = static_cast<float>(y[e / 32].d);
    p.group[g] += scalar::element_in_float(w, block, e) * d * y[e / 32].qs[e % 32];
    double size = std::abs(scalar::element_in_float(w, block, e)) * std::abs(d * y[e / 32].qs[e % 32]);
    if (w.qtype == qtype_q2_k) {  // the product and the minimum enter apart
      size += 2 * 15 * std::abs(scalar::half_at(w.entry(0, 84, block) + 82)) * std::abs(d * y[e / 32].qs[e % 32]);
    }
    p.magnitude[g] += size;
  }
  if (w.qtype == qtype_iq1_s) {  // delta takes the sum of the inputs, which is not d times the sum of the codes
    for (int g = 0; g < 8; ++g) {
      const unsigned h = scalar::read<uint16_t>(w.entry(0, 50, block) + 34 + 2 * g);
      int sum = 0;
      for (const int8_t q : y[g].qs) sum += q;
      const double dl = scalar::half_at(w.entry(0, 50, block)) * (2 * (h >> 12 & 7) + 1);
      const double delta = (h & 0x8000) != 0 ? -1.125 : -0.875;
      p.group[g] += dl * delta * (static_cast<float>(y[g].s) - static_cast<float>(y[g].d) * static_cast<double>(sum));
      p.magnitude[g] +=
          std::abs(dl * delta * static_cast<float>(y[g].s)) + std::abs(dl * static_cast<float>(y[g].d)) * 127 * 32;
    }
  }
  return p;
}

std::vector<block_q8_1> random_activations(unsigned blocks) {
  std::mt19937 random(blocks);
  std::vector<block_q8_1> y(8 * blocks);
  for (block_q8_1& b : y) {
    b.d = Half(0.25f + 1e-3f * static_cast<float>(random() % 1000));
    b.s = Half(static_cast<float>(random() % 2000) / 16 - 60);
    for (int8_t& q : b.qs) q = static_cast<int8_t>(random() % 255 - 127);
  }
  return y;
}

template <class Dots>
void expect_products(int32_t qtype, int groups, float (*vec_dot)(const uint8_t*, const block_q8_1*, const int&)) {
  constexpr unsigned blocks = 3;  // odd: the last is a tail where two go together
  auto w = scalar::random_weight(qtype, blocks, 5);
  for (unsigned b = 0; b < blocks; ++b) {  // block scales that are numbers
    const Half d[2] = {Half(b == 1 ? -0.375f : 1.25f), Half(0.625f)};
    std::memcpy(w.bytes.data() + b * registry[qtype].block_bytes + (qtype == qtype_q2_k ? 80 : 0), d,
                qtype == qtype_q2_k ? 4 : 2);
  }
  const auto y = random_activations(blocks);
  constexpr double unit = 0x1p-24, roundings = 16;
  staged_row<Dots> staged(blocks);
  staged.fill(reinterpret_cast<const uint8_t*>(y.data()));
  std::vector<sycl::f32x16> lanes;
  for_each_dot<Dots>(w.bytes.data(), staged.data(), blocks, [&](sycl::f32x16 dots) { lanes.push_back(dots); });
  ASSERT_EQ(lanes.size(), (blocks + Dots::step - 1) / Dots::step);

  for (unsigned b = 0; b < blocks; ++b) {
    const uint8_t* at = w.entry(0, registry[qtype].block_bytes, b);
    const products expected = plain_products(w, b, &y[8 * b], groups);
    double sum = 0, magnitude = 0;
    for (int g = 0; g < groups; ++g) {
      EXPECT_NEAR(vec_dot(at, &y[8 * b], g), expected.group[g], roundings * unit * expected.magnitude[g])
          << "group " << g << " of block " << b;
      if (Dots::step == 2) {
        EXPECT_NEAR(lanes[b / 2][8 * (b % 2) + g], expected.group[g], roundings * unit * expected.magnitude[g]);
      }
      sum += expected.group[g];
      magnitude += expected.magnitude[g];
    }
    if (Dots::step == 1) {
      double total = 0;
      for (int t = 0; t < 16; ++t) total += lanes[b][t];
      EXPECT_NEAR(total, sum, roundings * unit * magnitude);
    }
  }
  for (int t = 8; Dots::step == 2 && t < 16; ++t) EXPECT_EQ(lanes.back()[t], 0.0f);
}
TEST(dot_products, of_iq2_xxs) { expect_products<iq2_xxs_dots>(qtype_iq2_xxs, 8, vec_dot_iq2_xxs_q8_1); }
TEST(dot_products, of_iq1_s) { expect_products<iq1_s_dots>(qtype_iq1_s, 8, vec_dot_iq1_s_q8_1); }
TEST(dot_products, of_q2_k) { expect_products<q2_k_dots>(qtype_q2_k, 16, vec_dot_q2_k_q8_1); }

TEST(dot_products, a_missing_second_block_takes_no_part) {
  // The scale of the block is infinite: products with activations that are not there would be not-a-numbers.
  scalar::weight w{qtype_iq2_xxs, 1, std::vector<uint8_t>(66)};
  w.bytes[1] = 0x7C;
  const std::vector<float> row(256, 1.0f);
  const auto y = quantised(row);
  float out = 0;
  qlinear_xpu_kernel_iq2_xxs_q8_1(w.bytes.data(), reinterpret_cast<const uint8_t*>(y.data()), &out, 1, 256, 1, device);
  EXPECT_EQ(out, infinity);
}

}  // namespace
