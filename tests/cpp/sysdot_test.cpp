// The systolic kernel on pointers: all formats and types against sums in double from the bytes, and the places where
// its rounding, order and decoding differ from a plain product.
#include <ATen/Functions.h>
#include <c10/util/Exception.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/sycl/queue.hpp"
#include "sysdot/sysdot_forward.hpp"
#include "sysdot/sysdot_kernel.hpp"

namespace {

using corvane::BFloat16;
using corvane::Half;

constexpr int32_t q4_0 = 2, q8_0 = 8, fp8_e4m3 = 15, fp8_e5m2 = 19;
const c10::Device device(c10::DeviceType::XPU, 0);

// A packed weight (n, 64 * blocks), by code and scale of each block.
struct weight {
  int32_t qtype;
  uint64_t n, blocks;
  std::vector<uint8_t> codes, scales;

  weight(int32_t format, uint64_t output_size, uint64_t row_blocks, uint8_t code, float scale)
      : qtype(format), n(output_size), blocks(row_blocks) {
    codes.assign(n * blocks * code_bytes(), code);
    scales.resize(n * blocks * scale_bytes());
    for (uint64_t i = 0; i < n * blocks; ++i) set_scale(i, scale);
  }
  uint64_t code_bytes() const { return qtype == q4_0 ? 32 : 64; }
  uint64_t scale_bytes() const { return qtype == q4_0 ? 2 : 4; }

  void set_scale(uint64_t block, float d) {
    const Half half(d);
    std::memcpy(&scales[block * scale_bytes()], qtype == q4_0 ? static_cast<const void*>(&half) : &d, scale_bytes());
  }
  double scale(uint64_t block) const {
    Half half;
    float d;
    std::memcpy(qtype == q4_0 ? static_cast<void*>(&half) : &d, &scales[block * scale_bytes()], scale_bytes());
    return qtype == q4_0 ? static_cast<float>(half) : d;
  }
  // Element k of a column, unscaled.
  double value(uint64_t column, uint64_t k) const {
    const uint8_t* code = &codes[(column * blocks + k / 64) * code_bytes()];
    const uint64_t e = k % 64;
    if (qtype == q4_0) return (e < 32 ? code[e] & 15 : code[e - 32] >> 4) - 8;
    const uint8_t c = code[e];
    if (qtype == q8_0) return static_cast<int8_t>(c);
    const bool e4m3 = qtype == fp8_e4m3;
    const int exponent = e4m3 ? c >> 3 & 15 : c >> 2 & 31;
    const double mantissa = e4m3 ? (c & 7) / 8.0 : (c & 3) / 4.0 + 0.125;
    const double magnitude = exponent == 0 ? std::ldexp(mantissa, -14) : std::ldexp(1 + mantissa, exponent - 15);
    return c & 0x80 ? -magnitude : magnitude;
  }
};

weight random_weight(int32_t qtype, uint64_t n, uint64_t blocks, std::mt19937& random) {
  weight w(qtype, n, blocks, 0, 0);
  for (uint8_t& c : w.codes) {
    c = static_cast<uint8_t>(random());
    if (qtype == fp8_e5m2 && (c & 0x7C) > 0x40) c &= 0xBF;  // magnitudes up to 3.5; no not-a-numbers
  }
  std::uniform_real_distribution<float> scale(0.001f, 0.02f);
  for (uint64_t i = 0; i < n * blocks; ++i) w.set_scale(i, scale(random));
  return w;
}

template <class IT>
struct operand {
  using type = Half;
};
template <>
struct operand<BFloat16> {
  using type = BFloat16;
};

template <class IT, unsigned N, std::size_t... M>
auto launcher_for(uint64_t rows, std::index_sequence<M...>) {
  using WT = typename operand<IT>::type;
  return std::array{corvane::sysdot_forward_kernel<IT, WT, float, WT, M + 1, N, 8>...}[(rows + 7) % 8];
}

// The result, of rows * n values, between guards that nothing may touch.
template <class IT, unsigned N>
std::vector<IT> run(const std::vector<IT>& x, const weight& w, uint64_t rows) {
  constexpr uint64_t guard = 64;
  const IT untouched(-123.0f);
  std::vector<IT> y(rows * w.n + 2 * guard, untouched);
  std::fill(y.begin() + guard, y.end() - guard, IT(std::numeric_limits<float>::quiet_NaN()));
  launcher_for<IT, N>(rows, std::make_index_sequence<8>{})(x.data(), w.codes.data(), w.scales.data(), y.data() + guard,
                                                           rows, 64 * w.blocks, w.n, w.qtype, device);
  for (uint64_t i = 0; i < guard; ++i) {
    EXPECT_EQ(y[i], untouched) << "written before the result";
    EXPECT_EQ(y[y.size() - 1 - i], untouched) << "written behind the result";
  }
  return {y.begin() + guard, y.end() - guard};
}

// --- against sums in double -----------------------------------------------------------------------------------------

template <class IT, unsigned N>
void compare(int32_t qtype, uint64_t n, uint64_t blocks, uint64_t rows) {
  using RT = typename operand<IT>::type;
  std::mt19937 random(qtype * 1000 + static_cast<unsigned>(rows * 10 + blocks));
  const weight w = random_weight(qtype, n, blocks, random);
  std::normal_distribution<float> normal;
  std::vector<IT> x(rows * blocks * 64);
  for (IT& v : x) v = IT(normal(random));
  const std::vector<IT> y = run<IT, N>(x, w, rows);

  const uint64_t share = (blocks + 7) / 8;  // blocks of a thread
  const double unit = std::is_same_v<RT, Half> ? 0x1p-11 : 0x1p-8;
  for (uint64_t r = 0; r < rows; ++r) {
    for (uint64_t c = 0; c < n; ++c) {
      RT total(0.0f);
      double bound = 0;
      for (uint64_t t = 0; t < 8; ++t) {
        double sum = 0, magnitude = 0;
        for (uint64_t k = 64 * std::min(t * share, blocks); k < 64 * std::min((t + 1) * share, blocks); ++k) {
          const double term = static_cast<float>(RT(static_cast<float>(x[r * blocks * 64 + k]))) * w.value(c, k) *
                              w.scale(c * blocks + k / 64);
          sum += term;
          magnitude += std::fabs(term);
        }
        const RT partial(static_cast<float>(sum));
        total = RT(static_cast<float>(total) + static_cast<float>(partial));
        // Float sums in any order, whose difference may move the partial sum and the total to the next value of RT.
        bound += (64.0 * static_cast<double>(share) + 2) * 0x1p-24 * magnitude +
                 2 * unit * (std::fabs(sum) + std::fabs(static_cast<float>(total))) + 0x1p-23;
      }
      ASSERT_NEAR(static_cast<float>(y[r * n + c]), static_cast<float>(total), bound) << "row " << r << " column " << c;
    }
  }
}

class systolic_product : public testing::TestWithParam<std::tuple<int32_t, uint64_t>> {};

TEST_P(systolic_product, agrees_with_sums_in_double) {
  const auto [qtype, rows] = GetParam();
  // 3 blocks: some threads have none. 9: unequal shares. 56 and 48 columns: not a multiple of what the host takes.
  for (const uint64_t blocks : {3u, 9u}) {
    SCOPED_TRACE(std::to_string(blocks) + " blocks");
    compare<float, 8>(qtype, 56, blocks, rows);
    compare<float, 16>(qtype, 48, blocks, rows);
    compare<Half, 8>(qtype, 56, blocks, rows);
    compare<Half, 16>(qtype, 48, blocks, rows);
    compare<BFloat16, 8>(qtype, 56, blocks, rows);
    compare<BFloat16, 16>(qtype, 48, blocks, rows);
  }
}

INSTANTIATE_TEST_SUITE_P(all, systolic_product,
                         testing::Combine(testing::Values(q4_0, q8_0, fp8_e4m3, fp8_e5m2),
                                          testing::Values(1, 2, 3, 4, 5, 6, 7, 8, 9, 17, 67)),
                         [](const auto& info) {
                           return "qtype" + std::to_string(std::get<0>(info.param)) + "_rows" +
                                  std::to_string(std::get<1>(info.param));
                         });

// --- one row of one block or a few, by hand -------------------------------------------------------------------------

// x (64 * blocks) against 16 equal columns; the first result, after all were seen to be equal.
template <class IT>
float dot(const std::vector<IT>& x, const weight& w) {
  const std::vector<IT> y = run<IT, 16>(x, w, 1);
  for (const IT& v : y) EXPECT_EQ(std::memcmp(&v, &y[0], sizeof(IT)), 0);
  return static_cast<float>(y[0]);
}

template <class IT>
std::vector<IT> one_at(std::initializer_list<std::pair<uint64_t, float>> where, uint64_t blocks = 1) {
  std::vector<IT> x(64 * blocks, IT(0.0f));
  for (const auto& [k, value] : where) x[k] = IT(value);
  return x;
}

TEST(systolic_decoding, zeros_and_midpoints) {
  const std::vector<Half> ones(64, Half(1.0f));
  EXPECT_EQ(dot(ones, weight(q4_0, 16, 1, 0x88, 3.0f)), 0.0f);
  EXPECT_EQ(dot(ones, weight(fp8_e4m3, 16, 1, 0x00, 3.0f)), 0.0f);
  EXPECT_EQ(dot(ones, weight(fp8_e5m2, 16, 1, 0x00, 1024.0f)), 64 * 0x1p-17f * 1024);
  const auto first = one_at<Half>({{0, 1.0f}});
  EXPECT_EQ(dot(first, weight(fp8_e4m3, 16, 1, 0x38, 1.0f)), 0x1p-8f) << "1.0 without the midpoint's bit";
  EXPECT_EQ(dot(first, weight(fp8_e5m2, 16, 1, 0xBC, 1.0f)), -1.125f);
  EXPECT_TRUE(std::isnan(dot(first, weight(fp8_e5m2, 16, 1, 0x7C, 1.0f))));
  EXPECT_EQ(dot(first, weight(q8_0, 16, 1, 0x80, 1.0f)), -128.0f);
}

TEST(systolic_decoding, nibbles_of_q4_0) {
  const weight w(q4_0, 16, 1, 0x1F, 0.5f);
  EXPECT_EQ(dot(one_at<float>({{0, 1.0f}}), w), 3.5f);
  EXPECT_EQ(dot(one_at<BFloat16>({{32, 1.0f}}), w), -3.5f);
}

TEST(systolic_rounding, partial_sums_are_added_in_half_from_thread_0_on) {
  // A block to each thread. 2048 + 1 is 2048 in Half, seven times over; from the other end the ones would add up.
  std::vector<float> x(64 * 8, 0.0f);
  for (int t = 0; t < 8; ++t) x[64 * t] = t == 0 ? 2048.0f : 1.0f;
  EXPECT_EQ(dot(x, weight(q8_0, 16, 8, 1, 1.0f)), 2048.0f);
  x[64] = -2048.0f;
  EXPECT_EQ(dot(x, weight(q8_0, 16, 8, 1, 1.0f)), 6.0f);
}

TEST(systolic_rounding, a_partial_sum_beyond_half_is_infinite_for_float_input) {
  const weight two(q8_0, 16, 8, 2, 1.0f);
  EXPECT_EQ(dot(one_at<float>({{0, 60000.0f}}, 8), two), std::numeric_limits<float>::infinity());
  EXPECT_EQ(dot(one_at<float>({{0, 60000.0f}, {1, -58976.0f}}, 8), two), 2048.0f) << "float within a thread";
  EXPECT_EQ(dot(one_at<BFloat16>({{0, 65536.0f}}, 8), two), 131072.0f);
}

TEST(systolic_rounding, float_input_is_rounded_to_half) {
  EXPECT_EQ(dot(one_at<float>({{0, 2049.0f}}), weight(q8_0, 16, 1, 1, 1.0f)), 2048.0f);
  EXPECT_EQ(dot(one_at<float>({{0, 70000.0f}}), weight(q8_0, 16, 1, 1, 0x1p-10f)),
            std::numeric_limits<float>::infinity());
}

TEST(systolic_rounding, scales_apply_in_float) {
  EXPECT_EQ(dot(one_at<Half>({{0, 0.25f}}), weight(q8_0, 16, 1, 1, 131072.0f)), 32768.0f) << "a scale beyond Half";
  // Once, to the whole block's sum: an infinite scale meets 64, not a zero among the terms.
  EXPECT_EQ(dot(one_at<Half>({{5, 1.0f}}), weight(q8_0, 16, 1, 64, std::numeric_limits<float>::infinity())),
            std::numeric_limits<float>::infinity());
}

TEST(systolic_rounding, tiny_bfloat16_values_keep_their_bits) {
  EXPECT_EQ(dot(one_at<BFloat16>({{3, 0x1.8p-130f}}), weight(q8_0, 16, 1, 64, 0x1p30f)), 0x1.8p-94f);
  // 2^-118 * 2^-17 is a subnormal sum, which the scale brings back.
  EXPECT_EQ(dot(one_at<BFloat16>({{62, 0x1.02p-118f}}), weight(fp8_e5m2, 16, 1, 0x00, 0x1p60f)), 0x1.02p-75f);
  EXPECT_EQ(dot(one_at<BFloat16>({{0, 1.0f}, {1, 0x1p-133f}, {2, -1.0f}}), weight(q8_0, 16, 1, 1, 0x1p40f)), 0.0f)
      << "absorbed by 1 in float";
}

TEST(systolic_rounding, not_a_number_has_one_pattern_in_bfloat16) {
  float odd;
  const uint32_t bits = 0xFFC12345;
  std::memcpy(&odd, &bits, sizeof(odd));
  const std::vector<BFloat16> x(64, BFloat16(1.0f));
  for (const BFloat16& v : run<BFloat16, 8>(x, weight(q8_0, 8, 1, 1, odd), 1)) EXPECT_EQ(v.x, 0x7FC0);
}

// --- the launcher ---------------------------------------------------------------------------------------------------

TEST(systolic_launch, has_the_stated_geometry) {
  const weight w(q8_0, 48, 2, 1, 1.0f);
  const auto log = std::make_shared<sycl::launch_log::list>();
  sycl::launch_log::begin(log);
  run<Half, 16>(std::vector<Half>(17 * 128, Half(1.0f)), w, 17);
  run<Half, 8>(std::vector<Half>(16 * 128, Half(1.0f)), w, 16);
  sycl::launch_log::end(log);
  ASSERT_EQ(log->size(), 2u);
  EXPECT_EQ((*log)[0]->global_size, (std::vector<std::size_t>{24, 3}));
  EXPECT_EQ((*log)[1]->global_size, (std::vector<std::size_t>{48, 2}));
  for (const auto& record : *log) {
    EXPECT_EQ(record->local_size, (std::vector<std::size_t>{8, 1}));
    EXPECT_EQ(record->sub_group_size, 1);
    EXPECT_EQ(record->source, "sysdot_xpu_kernel");
    EXPECT_EQ(record->kernel, "sysdot_forward_kernel");
    EXPECT_EQ(record->label, "lumen_kernel");
    EXPECT_FALSE(record->waited);
  }
}

TEST(systolic_launch, formats_it_does_not_read_give_zeros) {
  weight w(q8_0, 16, 1, 1, 1.0f);
  w.qtype = 29;
  for (const float v : run<float, 16>(std::vector<float>(64, 1.0f), w, 1)) EXPECT_EQ(v, 0.0f);
}

template <class F>
std::string message_of(const F& f) {
  try {
    f();
  } catch (const c10::Error& e) {
    return e.msg();
  }
  return "no failure";
}

TEST(systolic_launch, sizes_are_checked) {
  const std::vector<Half> x(128, Half(1.0f));
  const weight w(q8_0, 24, 1, 1, 1.0f);
  EXPECT_EQ(message_of([&] { run<Half, 16>(x, w, 1); }), "output_size % N == 0");
  EXPECT_EQ((run<Half, 8>(x, w, 1)[23]), 64.0f);
  EXPECT_TRUE((run<Half, 8>({}, w, 0).empty()));
  std::vector<Half> y(24);
  EXPECT_EQ(message_of([&] {
              corvane::sysdot_forward_kernel<Half, Half, float, Half, 1, 8, 8>(
                  x.data(), w.codes.data(), w.scales.data(), y.data(), 1, 65, 24, q8_0, device);
            }),
            "state_size % QK == 0");
}

TEST(systolic_launch_DeathTest, another_dtype_ends_the_process) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const at::Tensor input = at::ones({2, 64}, at::kDouble), packed = at::zeros({16 * 34}, at::kByte);
  EXPECT_EXIT(corvane::sysdot_forward(input, packed, 2, 64, 16, q4_0, false), testing::ExitedWithCode(2),
              "^unsupported dtype\n$");
}

}  // namespace
