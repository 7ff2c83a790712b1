// The one-row kernels of the formats with super-blocks: every element counted once, on data for which all of their
// arithmetic is exact; the roundings that they owe; launches.
#include "linear/kernels_k.hpp"

#include <c10/util/Exception.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "formats/q4_k.hpp"
#include "linear/q8_1.hpp"
#include "platform/sycl/queue.hpp"
#include "scalar_expansion.hpp"

namespace {

using namespace corvane;

const c10::Device device(c10::DeviceType::XPU, 0);
constexpr float infinity = std::numeric_limits<float>::infinity();

// One launch of a format's one-row kernel, in the sizes of classes 1 to 4.
template <class T>
void run(int32_t qtype, const std::vector<T>& x, const scalar::weight& w, T* y, uint64_t n) {
  const uint64_t k = x.size();
  std::vector<uint8_t> blocks(q8_1_bytes(static_cast<int64_t>(k)));
  const uint8_t* bytes = w.bytes.data();
  switch (qtype) {
    case qtype_q4_k:
      return qlinear_xpu_kernel_q4_k_2x16<T, 16, 32>(x.data(), bytes, y, 1, k, n, device);
    case qtype_q6_k:
      return qlinear_xpu_kernel_q6_k_2x16<T, 16, 32>(x.data(), bytes, y, 1, k, n, device);
    case qtype_fp6_k:
      return qlinear_xpu_kernel_fp6_k_2x16<T, 16, 32, 2>(x.data(), bytes, y, 1, k, n, device);
    case qtype_q5_k:
      return qlinear_xpu_kernel_q5_k<T>(x.data(), bytes, y, 1, k, n, device);
    default:
      quantize_xpu_kernel_q8_1(x.data(), blocks.data(), 1, k, device);
  }
  if (qtype == qtype_q2_k) qlinear_xpu_kernel_q2_k_q8_1(bytes, blocks.data(), y, 1, k, n, device);
  if (qtype == qtype_iq2_xxs) qlinear_xpu_kernel_iq2_xxs_q8_1(bytes, blocks.data(), y, 1, k, n, device);
  if (qtype == qtype_iq1_s) qlinear_xpu_kernel_iq1_s_q8_1(bytes, blocks.data(), y, 1, k, n, device);
}

// Random codes with d = dmin = 1 and sub-block scales below 8, so that a weight has at most 8 bits.
scalar::weight short_weight(int32_t qtype, uint64_t nb) {
  auto w = scalar::random_weight(qtype, nb, 3);
  const auto at = [&](unsigned before, unsigned width, uint64_t b) {
    return const_cast<uint8_t*>(w.entry(before, width, b));
  };
  constexpr uint8_t one[4] = {0x00, 0x3C, 0x00, 0x3C};
  const auto small = [](uint8_t* scales, unsigned count) {
    for (unsigned i = 0; i < count; ++i) scales[i] &= 7;
  };
  for (uint64_t b = 0; b < nb; ++b) {
    switch (qtype) {
      case qtype_q4_k:
        small(at(128, 16, b), 16), std::memcpy(at(144, 4, b), one, 4);
        break;
      case qtype_q6_k:
      case qtype_fp6_k:
        small(at(192, 16, b), 16), std::memcpy(at(208, 2, b), one, 2);
        break;
      case qtype_q5_k:
        std::memcpy(at(0, 176, b), one, 4), small(at(0, 176, b) + 4, 12);
        break;
      case qtype_q2_k:
        std::memcpy(at(0, 84, b) + 80, one, 4);
        break;
      default:
        std::memcpy(at(0, registry[qtype].block_bytes, b), one, 2);
    }
  }
  return w;
}

constexpr bool is_quantised(int32_t qtype) {
  return qtype == qtype_q2_k || qtype == qtype_iq2_xxs || qtype == qtype_iq1_s;
}

// Every sum that a kernel forms is exact, in whatever order: few inputs that are not zero, all of them whole. For 8-bit
// activations each block has a 127, so that d = 1 and the codes are the inputs.
template <class T>
void expect_exact_rows(int32_t qtype, uint64_t n, uint64_t k, unsigned inputs) {
  const scalar::weight w = short_weight(qtype, n * k / 256);
  std::mt19937 random(static_cast<unsigned>(n + k));
  std::vector<T> x(k, T(0.0f));
  for (unsigned i = 0; i < inputs; ++i) x[random() % k] = T(random() % 2 == 0 ? 1.0f : -1.0f);
  for (uint64_t i = 0; is_quantised(qtype) && i < k; i += 32) x[i + random() % 32] = T(127.0f);

  const auto y = std::make_unique<T[]>(n + 2);
  for (uint64_t i = 0; i < n + 2; ++i) y[i] = T(77.0f);
  run(qtype, x, w, y.get() + 1, n);
  EXPECT_EQ(static_cast<double>(y[0]), 77.0);
  EXPECT_EQ(static_cast<double>(y[n + 1]), 77.0) << "the row past the end was written";
  for (uint64_t r = 0; r < n; ++r) {
    double sum = 0;
    for (uint64_t i = 0; i < k; ++i) {
      const uint64_t flat = r * k + i;
      sum += static_cast<double>(x[i]) * scalar::element<float, double>(w, flat);
    }
    ASSERT_EQ(static_cast<double>(y[1 + r]), sum) << "row " << r << " of " << n << " x " << k;
  }
}

struct kernel : testing::TestWithParam<int32_t> {};
TEST_P(kernel, makes_every_row_from_its_own_elements) {
  const uint64_t shapes[][2] = {{1, 256}, {2, 512}, {5, 768}, {33, 2304}};  // odd rows, odd blocks, more than a tree
  for (const auto& [n, k] : shapes) {
    expect_exact_rows<float>(GetParam(), n, k, 32);
    expect_exact_rows<double>(GetParam(), n, k, 32);
    if (is_quantised(GetParam())) continue;
    expect_exact_rows<Half>(GetParam(), n, k, GetParam() == qtype_fp6_k ? 1 : 8);
    expect_exact_rows<BFloat16>(GetParam(), n, k, 1);
  }
}
TEST_P(kernel, without_rows_or_elements_is_safe) {
  const scalar::weight w = short_weight(GetParam(), 1);
  float y[3] = {5, 5, 5};
  run<float>(GetParam(), std::vector<float>(256, 1.0f), w, y, 0);
  EXPECT_EQ(y[0], 5.0f);
  run<float>(GetParam(), {}, w, y, 3);
  EXPECT_EQ(y[2], 0.0f);
}
TEST_P(kernel, refuses_rows_that_do_not_begin_on_a_block) {
  const scalar::weight w = short_weight(GetParam(), 5);
  std::vector<float> y(4);
  EXPECT_THROW(run(GetParam(), std::vector<float>(320), w, y.data(), 4), c10::Error);
}
INSTANTIATE_TEST_SUITE_P(k, kernel,
                         testing::Values(qtype_q2_k, qtype_q4_k, qtype_q5_k, qtype_q6_k, qtype_fp6_k, qtype_iq2_xxs,
                                         qtype_iq1_s),
                         [](const auto& param) { return registry[param.param].name; });

template <class T>
T one_output(int32_t qtype, const std::vector<T>& x, const scalar::weight& w) {
  T y;
  run(qtype, x, w, &y, 1);
  return y;
}

// A block of codes with all bits set and scales of 1, no minimums, d = 1.
scalar::weight all_ones(int32_t qtype) {
  scalar::weight w{qtype, 1, std::vector<uint8_t>(registry[qtype].block_bytes, 0xFF)};
  const auto set = [&](unsigned at, std::initializer_list<uint8_t> bytes) {
    std::copy(bytes.begin(), bytes.end(), w.bytes.begin() + at);
  };
  switch (qtype) {
    case qtype_q4_k:
      for (unsigned i = 0; i < 8; ++i) set(128 + 2 * i, {1, 0});
      set(144, {0x00, 0x3C, 0x00, 0x3C});
      break;
    case qtype_q5_k:
      set(0, {0x00, 0x3C, 0x00, 0x3C, 1, 1, 1, 1, 0, 0, 0, 0, 1, 1, 1, 1});
      break;
    default:
      for (unsigned u = 0; u < 16; ++u) set(192 + u, {1});
      set(208, {0x00, 0x3C});
  }
  return w;
}

TEST(kernel_arithmetic, q4_k_sums_in_half_before_it_scales) {
  // One chunk of 16 products of 15 * 300 = 4500: 72000 is no Half, though the scale would bring it down to 562.5.
  scalar::weight w = all_ones(qtype_q4_k);
  w.bytes[145] = 0x20;  // d = 2^-7
  std::vector<Half> x(256, Half(0.0f));
  for (unsigned j = 0; j < 16; ++j) x[q4_k_reader::chunk_element(0, j)] = Half(300.0f);
  EXPECT_EQ(static_cast<float>(one_output(qtype_q4_k, x, w)), infinity);
  const std::vector<float> wide(x.begin(), x.end());
  EXPECT_EQ(one_output(qtype_q4_k, wide, w), 562.5f);
}
TEST(kernel_arithmetic, q5_k_sums_in_float_and_multiplies_in_t) {
  // A pair is 31 * 500 * 2 = 31000, as a Half 31008; 128 of them go far beyond a Half until d = 2^-7 brings them back.
  scalar::weight w = all_ones(qtype_q5_k);
  w.bytes[1] = 0x20;
  std::vector<Half> x(256, Half(500.0f));
  EXPECT_EQ(static_cast<float>(one_output(qtype_q5_k, x, w)), 31008.0f);
  // 31 * 1100 * 2 is no Half.
  std::fill(x.begin(), x.end(), Half(1100.0f));
  EXPECT_EQ(static_cast<float>(one_output(qtype_q5_k, x, w)), infinity);
}
TEST(kernel_arithmetic, double_stays_double_but_in_q5_k) {
  std::vector<double> x(256);
  x[5] = 1.0 + 0x1p-40;
  EXPECT_EQ(one_output(qtype_q4_k, x, all_ones(qtype_q4_k)), 15 * x[5]);
  EXPECT_EQ(one_output(qtype_q6_k, x, all_ones(qtype_q6_k)), 31 * x[5]);
  EXPECT_EQ(one_output(qtype_fp6_k, x, all_ones(qtype_fp6_k)), -0.00732421875 * x[5]);
  EXPECT_EQ(one_output(qtype_q5_k, x, all_ones(qtype_q5_k)), 31);
}
TEST(kernel_arithmetic, a_lane_of_8_bit_products_becomes_a_half) {
  // 256 inputs of 127 on q2_k codes of 3 with scale 15: each lane has 4 * 4 * 127 * 45, which is no Half.
  scalar::weight w = short_weight(qtype_q2_k, 1);
  std::fill_n(w.bytes.begin(), 16, uint8_t{0x0F});
  std::fill_n(w.bytes.begin() + 16, 64, uint8_t{0xFF});
  const std::vector<Half> x(256, Half(127.0f));
  EXPECT_EQ(static_cast<float>(one_output(qtype_q2_k, x, w)), infinity);
  w.bytes[81] = 0x20;  // d = 2^-7: 256 * 127 * 45 / 128, and sixteen lanes of 714.375, which a Half holds as 714.5
  EXPECT_EQ(static_cast<float>(one_output(qtype_q2_k, x, w)), 16 * 714.5f);
}

template <class T>
void expect_trees() {
  std::mt19937 random(1);
  simd<T, 16> rows[16];
  for (auto& row : rows) {
    T lanes[16];
    for (T& x : lanes)
      x = static_cast<T>(static_cast<float>(random() % 4001) / 64 - 30);  // sums of Half and BFloat16 round
    row = simd<T, 16>::load(lanes);
  }
  const simd<T, 16> together = sum_trees(rows);
  for (unsigned r = 0; r < 16; ++r) EXPECT_EQ(together.lane(r), sum_tree(rows[r])) << "row " << r;
}
TEST(kernel_arithmetic, sixteen_trees_add_as_one_does) {
  expect_trees<float>();
  expect_trees<double>();
  expect_trees<Half>();
  expect_trees<BFloat16>();
}

TEST(kernel_launch, geometry_and_waits) {
  struct expected {
    int32_t qtype;
    const char* name;
    std::vector<size_t> global, local;
    int sub_group;
    bool waited;
  };
  const expected table[] = {
      {qtype_q4_k, "qlinear_xpu_kernel_q4_k_2x16", {96}, {32}, 16, false},
      {qtype_q6_k, "qlinear_xpu_kernel_q6_k_2x16", {96}, {32}, 16, false},
      {qtype_fp6_k, "qlinear_xpu_kernel_fp6_k_2x16", {96}, {32}, 16, false},
      {qtype_q5_k, "qlinear_xpu_kernel_q5_k", {96}, {32}, 8, false},
      {qtype_iq2_xxs, "qlinear_xpu_kernel_iq2_xxs_q8_1", {96, 2}, {32, 2}, 32, true},
      {qtype_iq1_s, "qlinear_xpu_kernel_iq1_s_q8_1", {160, 1}, {32, 1}, 32, true},
      {qtype_q2_k, "qlinear_xpu_kernel_q2_k_q8_1", {160, 1}, {32, 1}, 0, true},
  };
  for (const expected& e : table) {
    const scalar::weight w = short_weight(e.qtype, 10);
    const auto log = std::make_shared<sycl::launch_log::list>();
    sycl::launch_log::begin(log);
    float y[5];
    run(e.qtype, std::vector<float>(512), w, y, 5);
    sycl::launch_log::end(log);
    ASSERT_EQ(log->size(), is_quantised(e.qtype) ? 2u : 1u) << e.name;
    if (is_quantised(e.qtype)) {
      const sycl::launch_record& quantiser = *log->front();
      EXPECT_EQ(quantiser.kernel, "quantize_xpu_kernel_q8_1");
      EXPECT_EQ(quantiser.global_size, std::vector<size_t>{512});
      EXPECT_EQ(quantiser.local_size, std::vector<size_t>{256});
      EXPECT_EQ(quantiser.sub_group_size, 32);
      EXPECT_FALSE(quantiser.waited);
    }
    const sycl::launch_record& record = *log->back();
    EXPECT_EQ(record.kernel, e.name);
    EXPECT_EQ(record.source, "linear_xpu_kernel");
    EXPECT_EQ(record.global_size, e.global) << e.name;
    EXPECT_EQ(record.local_size, e.local) << e.name;
    EXPECT_EQ(record.sub_group_size, e.sub_group) << e.name;
    EXPECT_EQ(record.waited, e.waited) << e.name;
  }
}

}  // namespace