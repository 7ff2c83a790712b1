// simd<T, N> against the framework's scalar Half and BFloat16: every bit pattern, and the ties between neighbours.
#include "platform/sycl/simd.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace {

using sycl::simd;

template <class T>
T from_bits(uint16_t bits) {
  return T(bits, T::from_bits());
}

template <class T>
class simd_16_bit : public testing::Test {};
using types = testing::Types<c10::Half, c10::BFloat16>;
TYPED_TEST_SUITE(simd_16_bit, types);

template <class T>
bool same(T a, T b) {
  return a.x == b.x || (std::isnan(static_cast<float>(a)) && std::isnan(static_cast<float>(b)));
}

TYPED_TEST(simd_16_bit, load_and_store_keep_every_pattern) {
  using T = TypeParam;
  for (unsigned first = 0; first < 0x10000; first += 16) {
    T in[16], out[16];
    for (unsigned i = 0; i < 16; ++i) in[i] = from_bits<T>(first + i);
    simd<T, 16>::load(in).store(out);
    for (unsigned i = 0; i < 16; ++i) {
      ASSERT_TRUE(same(in[i], out[i])) << std::hex << first + i;
      if (std::is_same_v<T, c10::BFloat16> && std::isnan(static_cast<float>(in[i]))) {
        ASSERT_EQ(out[i].x, 0x7FC0);
      }
    }
  }
}

TYPED_TEST(simd_16_bit, rounds_between_neighbours_as_the_scalar_type_does) {
  using T = TypeParam;
  for (unsigned bits = 0; bits < 0xFFFF; ++bits) {
    const auto low = static_cast<float>(from_bits<T>(bits)), high = static_cast<float>(from_bits<T>(bits + 1));
    const float middle = low + (high - low) / 2;
    float in[16] = {low,           middle,        std::nextafter(middle, low), std::nextafter(middle, high),
                    low * 1.0001f, high * 0.9999f};
    const auto rounded = simd<T, 16>::from_float(sycl::load_bytes<sycl::f32x16>(in));
    for (unsigned i = 0; i < 6; ++i) ASSERT_TRUE(same(rounded.lane(i), static_cast<T>(in[i]))) << in[i];
  }
}

TYPED_TEST(simd_16_bit, from_float_makes_any_nan_a_nan) {
  using T = TypeParam;
  for (const uint32_t bits : {0x7FFFFFFFu, 0xFFFFFFFFu, 0x7F800001u, 0xFF800001u}) {
    float x;
    std::memcpy(&x, &bits, 4);
    EXPECT_TRUE(std::isnan(static_cast<float>(simd<T, 16>::broadcast(x).lane(3)))) << std::hex << bits;
  }
}

// Every pattern against partners that reach overflow, subnormals, infinities and not-a-number.
TYPED_TEST(simd_16_bit, arithmetic_rounds_after_each_operation) {
  using T = TypeParam;
  std::vector<T> partners;
  for (const float x :
       {0.0f, -0.0f, 1.0f, -3.0f, 0.333f, 1000.0f, -60000.0f, 1e-7f, 6e-5f, 3e38f, 1e-40f, INFINITY, NAN}) {
    partners.push_back(static_cast<T>(x));
  }
  const T c_scalar = static_cast<T>(0.7f);
  const auto c = simd<T, 16>::broadcast(0.7f);
  for (unsigned first = 0; first < 0x10000; first += 16) {
    T a_scalar[16];
    for (unsigned i = 0; i < 16; ++i) a_scalar[i] = from_bits<T>(first + i);
    const auto a = simd<T, 16>::load(a_scalar);
    for (const T b_scalar : partners) {
      const auto b = simd<T, 16>::broadcast_exact(static_cast<float>(b_scalar));
      T sum[16], difference[16], product[16], fused[16];
      (a + b).store(sum);
      (a - b).store(difference);
      (a * b).store(product);
      multiply_add(a, b, c).store(fused);
      for (unsigned i = 0; i < 16; ++i) {
        ASSERT_TRUE(same<T>(sum[i], a_scalar[i] + b_scalar)) << first + i;
        ASSERT_TRUE(same<T>(difference[i], a_scalar[i] - b_scalar)) << first + i;
        ASSERT_TRUE(same<T>(product[i], a_scalar[i] * b_scalar)) << first + i;
        // Contracted in Half, two operations in BFloat16.
        const T expected = std::is_same_v<T, c10::Half>
                               ? static_cast<T>(std::fma(float(a_scalar[i]), float(b_scalar), float(c_scalar)))
                               : static_cast<T>(a_scalar[i] * b_scalar) + c_scalar;
        ASSERT_TRUE(same<T>(fused[i], expected)) << first + i;
      }
    }
  }
}

TEST(simd, multiples_of_the_smallest_half_are_rounded_by_their_exponent) {
  std::mt19937 random(7);
  for (int n = 0; n < 200000; ++n) {
    float x[16];
    for (float& one : x) {  // up to 24 bits, the last of them from 2^-24 on
      const float whole = static_cast<float>(random() >> (8 + random() % 24));
      one = std::min(std::ldexp(whole, static_cast<int>(random() % 17) - 24), 65519.0f) * (random() % 2 ? 1.0f : -1.0f);
    }
    const auto lanes = sycl::load_bytes<sycl::f32x16>(x);
    const auto quick = sycl::round_multiple_to_half(lanes), whole = sycl::round_to_half(lanes);
    for (unsigned i = 0; i < 16; ++i) ASSERT_EQ(quick[i], whole[i]) << x[i];
  }
}

template <class T>
class simd_tree : public testing::Test {};
using all_types = testing::Types<float, double, c10::Half, c10::BFloat16>;
TYPED_TEST_SUITE(simd_tree, all_types);

TYPED_TEST(simd_tree, adds_all_lanes) {
  using T = TypeParam;
  T in[16];
  for (int i = 0; i < 16; ++i) in[i] = static_cast<T>(static_cast<float>(1 << (i % 8)) * (i < 8 ? 1.0f : -0.5f));
  EXPECT_EQ(static_cast<float>(sum_tree(simd<T, 16>::load(in))), 255.0f * 0.5f);
}

TYPED_TEST(simd_tree, sixteen_together_add_as_one_does) {
  using T = TypeParam;
  std::mt19937 random(1);
  simd<T, 16> rows[16];
  for (auto& row : rows) {
    T lanes[16];
    for (T& x : lanes) x = static_cast<T>(static_cast<float>(random() % 4001) / 64 - 30);  // sums of 16 bits round
    row = simd<T, 16>::load(lanes);
  }
  const simd<T, 16> together = sum_trees(rows);
  for (unsigned r = 0; r < 16; ++r) EXPECT_EQ(together.lane(r), sum_tree(rows[r])) << "row " << r;
}

TEST(simd, tree_rounds_in_half) {
  // 2048 + 1 is 2048 in Half: lanes that meet at stride 8 lose the one, the same sum in float would not.
  c10::Half in[16] = {};
  in[0] = 2048.0f;
  in[8] = in[4] = 1.0f;
  EXPECT_EQ(static_cast<float>(sum_tree(simd<c10::Half, 16>::load(in))), 2048.0f);
}

TEST(simd, lookup_reads_the_low_four_bits) {
  sycl::f32x16 table;
  sycl::i32x16 index;
  for (int i = 0; i < 16; ++i) {
    table[i] = 100.0f + i;
    index[i] = (15 - i) | 0x7F0;
  }
  const sycl::f32x16 found = sycl::lookup16(table, index);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(found[i], 115.0f - i);
}

TEST(simd, what_is_read_once_and_spread) {
  int32_t words[8];
  float floats[4];
  for (int i = 0; i < 8; ++i) words[i] = 7 * i;
  for (int i = 0; i < 4; ++i) floats[i] = 1.5f * i;
  const sycl::i32x16 twice = sycl::load_twice(words), four_times = sycl::load_four_times(words + 1);
  const sycl::f32x16 quarters = sycl::splat_quarters(floats);
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(twice[i], 7 * (i % 8));
    EXPECT_EQ(four_times[i], 7 * (i % 4 + 1));
    EXPECT_EQ(quarters[i], floats[i / 4]);
  }
}

TEST(simd, bits_are_chosen_one_by_one) {
  const sycl::i32x16 chosen = sycl::select_bits(0x0F0F00FF, sycl::splat(0x12345678), sycl::splat(-1));
  for (int i = 0; i < 16; ++i) EXPECT_EQ(static_cast<uint32_t>(chosen[i]), 0xF2F4FF78u);
}

}  // namespace
