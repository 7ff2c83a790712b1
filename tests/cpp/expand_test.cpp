// The expansion kernels on pointers: every format, output type and shape against plain scalar steps, bit for bit; what
// they leave unwritten; the geometry of their launches; their refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

#include "ops/expand_general.hpp"
#include "ops/expand_simd.hpp"
#include "ops/row_lookup.hpp"
#include "platform/sycl/queue.hpp"
#include "platform/xpu/stream.hpp"
#include "scalar_expansion.hpp"

namespace {

using namespace corvane;
using sizes = std::vector<size_t>;

template <class T>
using whole_weight_kernel = void (*)(const uint8_t*, T*, uint64_t, uint64_t, c10::Device);

// Work-items of a group: for rows the elements that one expands in a pass, for the others the size itself.
struct geometry {
  unsigned per_item = 0, local = 0;
  bool by_super_block = false;
  int sub_group = 0;
  bool waited = false;
};

template <class T>
struct general_case {
  std::string name;
  int32_t qtype;
  whole_weight_kernel<T> kernel;
  geometry launch;
};

constexpr bool waits = true;

template <class T>
std::vector<general_case<T>> general_cases() {
  const auto row = [](unsigned per_item, int sub_group, bool waited = false) {
    return geometry{per_item, 0, false, sub_group, waited};
  };
  const auto elements = [](bool waited = false) { return geometry{0, 256, false, 0, waited}; };
  const auto blocks = [](unsigned local, bool waited = false) { return geometry{0, local, true, 0, waited}; };
  return {
      {"q4_0_1x4", qtype_q4_0, qlinear_xpu_dequantize_kernel_q4_0_1x4<T, 32>, row(4, 32)},
      {"q4_0_1x2", qtype_q4_0, qlinear_xpu_dequantize_kernel_q4_0_1x2<T, 16>, row(2, 16)},
      {"q4_1_1x4", qtype_q4_1, qlinear_xpu_dequantize_kernel_q4_1_1x4<T, 32>, row(4, 32)},
      {"q4_1_1x2", qtype_q4_1, qlinear_xpu_dequantize_kernel_q4_1_1x2<T, 16>, row(2, 16)},
      {"nf4_1x4", qtype_nf4, qlinear_xpu_dequantize_kernel_nf4_1x4<T, 32>, row(4, 32, waits)},
      {"nf4_1x2", qtype_nf4, qlinear_xpu_dequantize_kernel_nf4_1x2<T, 16>, row(2, 16, waits)},
      {"fp4_1x4", qtype_fp4, qlinear_xpu_dequantize_kernel_fp4_1x4<T, 32>, row(4, 32)},
      {"fp4_1x2", qtype_fp4, qlinear_xpu_dequantize_kernel_fp4_1x2<T, 16>, row(2, 16)},
      {"q8_0_1x2", qtype_q8_0, qlinear_xpu_dequantize_kernel_q8_0_1x2<T, 32>, row(2, 32)},
      {"q8_0_1x1", qtype_q8_0, qlinear_xpu_dequantize_kernel_q8_0_1x1<T, 16>, row(1, 16)},
      {"fp8_e5m2_1x2", qtype_fp8_e5m2, qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2<T, 32>, row(2, 32)},
      {"fp8_e5m2_1x1", qtype_fp8_e5m2, qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1<T, 16>, row(1, 16)},
      {"q5_0", qtype_q5_0, qlinear_xpu_dequantize_kernel_q5_0<T>, elements(waits)},
      {"q5_1", qtype_q5_1, qlinear_xpu_dequantize_kernel_q5_1<T>, elements()},
      {"nf3_new", qtype_nf3, qlinear_xpu_dequantize_kernel_nf3_new<T>, elements(waits)},
      {"q2_k", qtype_q2_k, qlinear_xpu_dequantize_kernel_q2_k<T>, blocks(64, waits)},
      {"q4_k", qtype_q4_k, qlinear_xpu_dequantize_kernel_q4_k<T>, blocks(32)},
      {"q5_k", qtype_q5_k, qlinear_xpu_dequantize_kernel_q5_k<T>, blocks(64)},
      {"q6_k", qtype_q6_k, qlinear_xpu_dequantize_kernel_q6_k<T>, blocks(64)},
      {"iq2_xxs", qtype_iq2_xxs, qlinear_xpu_dequantize_kernel_iq2_xxs<T>, blocks(32, waits)},
      {"iq1_s", qtype_iq1_s, qlinear_xpu_dequantize_kernel_iq1_s<T>, blocks(32, waits)},
  };
}

template <class T>
bool same_bits(T a, T b) {
  if (a != a && b != b) {
    if constexpr (std::is_same_v<T, BFloat16>) return a.x == 0x7FC0 && b.x == 0x7FC0;
    return true;
  }
  return std::memcmp(&a, &b, sizeof(T)) == 0;
}

// Memory for n values and a tail that must keep the mark it starts with.
template <class T>
struct marked_output {
  static constexpr size_t tail = 256;
  std::vector<T> values;
  explicit marked_output(size_t n) : values(n + tail, mark()) {}
  static T mark() { return static_cast<T>(-12345.0f); }

  // Elements 0 to n - 1 as `expected` says, all behind them unwritten.
  template <class Expected>
  void expect(size_t n, const Expected& expected) const {
    for (size_t i = 0; i < n; ++i) {
      const T wanted = expected(i);
      ASSERT_TRUE(same_bits(values[i], wanted))
          << "element " << i << ": " << static_cast<double>(values[i]) << " instead of " << static_cast<double>(wanted);
    }
    for (size_t i = n; i < values.size(); ++i)
      ASSERT_TRUE(same_bits(values[i], mark())) << "element " << i << " written";
  }
};

std::shared_ptr<sycl::launch_record> recorded(const std::function<void()>& call) {
  const auto sink = std::make_shared<sycl::launch_log::list>();
  sycl::launch_log::begin(sink);
  call();
  sycl::launch_log::end(sink);
  EXPECT_EQ(sink->size(), 1U);
  return sink->at(0);
}

void expect_launch(const sycl::launch_record& r, const std::string& kernel, const std::string& source,
                   const std::string& label, size_t global, size_t local, int sub_group, bool waited) {
  EXPECT_EQ(r.kernel, kernel);
  EXPECT_EQ(r.source, source);
  EXPECT_EQ(r.label, label);
  EXPECT_EQ(r.global_size, sizes{global});
  EXPECT_EQ(r.local_size, sizes{local});
  EXPECT_EQ(r.sub_group_size, sub_group);
  EXPECT_EQ(r.waited, waited);
}

struct shape {
  uint64_t n, k;
};
// The smallest; rows that end within a super-block; a row length that is no power of two; every work-group size.
constexpr shape shapes[] = {{1, 64}, {5, 64}, {3, 192}, {4, 320}, {3, 128}, {2, 256}, {7, 512}, {2, 1024}, {1, 2048}};

template <class T>
class general_expansion : public testing::Test {};
using all_types = testing::Types<Half, float, double, BFloat16>;
TYPED_TEST_SUITE(general_expansion, all_types);

TYPED_TEST(general_expansion, equals_scalar_steps) {
  using T = TypeParam;
  for (const auto& c : general_cases<T>()) {
    for (const auto& [n, k] : shapes) {
      SCOPED_TRACE(c.name + " n " + std::to_string(n) + " k " + std::to_string(k));
      const uint64_t nb = n * k / registry[c.qtype].block_elements;
      const scalar::weight w = scalar::random_weight(c.qtype, nb, static_cast<unsigned>(k + n));
      marked_output<T> output(n * k);
      c.kernel(w.bytes.data(), output.values.data(), k, n, xpu::device());
      output.expect(nb * registry[c.qtype].block_elements, [&](size_t i) { return scalar::element<T, T>(w, i); });
      if (this->HasFatalFailure()) return;
    }
  }
}

// Work-group sizes of the row kernels, each the largest that divides a row into whole passes.
size_t row_local(unsigned per_item, uint64_t k) {
  const std::vector<std::pair<uint64_t, size_t>> table =
      per_item == 4 ? std::vector<std::pair<uint64_t, size_t>>{{1024, 256}, {512, 128}, {256, 64}, {128, 32}, {64, 16}}
      : per_item == 2 ? std::vector<std::pair<uint64_t, size_t>>{{512, 256}, {256, 128}, {128, 64}, {64, 32}}
                      : std::vector<std::pair<uint64_t, size_t>>{{256, 256}, {128, 128}, {64, 64}};
  return std::find_if(table.begin(), table.end(), [&](const auto& row) { return k % row.first == 0; })->second;
}

TEST(general_expansion_launch, has_the_stated_geometry) {
  for (const auto& c : general_cases<Half>()) {
    for (const auto& [n, k] : shapes) {
      SCOPED_TRACE(c.name + " n " + std::to_string(n) + " k " + std::to_string(k));
      const scalar::weight w = scalar::random_weight(c.qtype, n * k / registry[c.qtype].block_elements, 1);
      std::vector<Half> output(n * k);
      const auto r = recorded([&] { c.kernel(w.bytes.data(), output.data(), k, n, xpu::device()); });
      const size_t local = c.launch.local != 0 ? c.launch.local : row_local(c.launch.per_item, k);
      const size_t groups = c.launch.per_item != 0 ? n : c.launch.by_super_block ? n * k / 256 : (n * k + 255) / 256;
      expect_launch(*r, "qlinear_xpu_dequantize_kernel_" + c.name, "linear_xpu_kernel", "lumen_kernel", groups * local,
                    local, c.launch.sub_group, c.launch.waited);
    }
  }
}

template <class Call>
std::string refusal(const Call& call) {
  try {
    call();
  } catch (const c10::Error& error) {
    return error.what_without_backtrace();
  }
  return "nothing refused";
}

TEST(general_expansion_launch, refuses_rows_that_do_not_divide_by_64) {
  std::vector<uint8_t> weight(4096);
  std::vector<float> output(4096);
  for (const auto& c : general_cases<float>()) {
    EXPECT_EQ(refusal([&] { c.kernel(weight.data(), output.data(), 96, 8, xpu::device()); }),
              "96 must be a multiple of 64")
        << c.name;
  }
}

TEST(general_expansion_launch, of_no_rows_writes_nothing) {
  for (const auto& c : general_cases<float>()) c.kernel(nullptr, nullptr, 256, 0, xpu::device());
}

// Tiles of 3 rows out of 8, the last one shorter, equal the rows of the whole expansion.
TYPED_TEST(general_expansion, of_tiles_equals_the_whole) {
  using T = TypeParam;
  using tile_kernel = void (*)(const uint8_t*, T*, uint64_t, uint64_t, uint64_t, uint64_t, c10::Device);
  struct tile_case {
    std::string name;
    int32_t qtype;
    tile_kernel kernel;
    unsigned per_item;
    int sub_group;
    bool waited;
  };
  const std::vector<tile_case> cases = {
      {"q4_0_1x4", qtype_q4_0, qlinear_xpu_tile_dequantize_kernel_q4_0_1x4<T, 32>, 4, 32, false},
      {"q4_0_1x2", qtype_q4_0, qlinear_xpu_tile_dequantize_kernel_q4_0_1x2<T, 16>, 2, 16, true},
      {"q8_0_1x1", qtype_q8_0, qlinear_xpu_tile_dequantize_kernel_q8_0_1x1<T, 16>, 1, 16, true},
      {"fp8_e5m2_1x1", qtype_fp8_e5m2, qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1<T, 16>, 1, 16, true},
  };
  for (const auto& c : cases) {
    for (const uint64_t k : {64, 320, 1024}) {
      const scalar::weight w = scalar::random_weight(c.qtype, 8 * k / 64, 9);
      for (uint64_t start = 0; start < 8; start += 3) {
        SCOPED_TRACE(c.name + " k " + std::to_string(k) + " start " + std::to_string(start));
        const uint64_t rows = std::min<uint64_t>(3, 8 - start);
        marked_output<T> tile(rows * k);
        const auto r =
            recorded([&] { c.kernel(w.bytes.data(), tile.values.data(), k, 8, rows, start, xpu::device()); });
        tile.expect(rows * k, [&](size_t i) { return scalar::element<T, T>(w, start * k + i); });
        const size_t local = row_local(c.per_item, k);
        expect_launch(*r, "qlinear_xpu_tile_dequantize_kernel_" + c.name, "linear_xpu_kernel", "lumen_kernel",
                      rows * local, local, c.sub_group, c.waited);
        if (this->HasFatalFailure()) return;
      }
    }
    EXPECT_EQ(refusal([&] { c.kernel(nullptr, nullptr, 32, 8, 1, 0, xpu::device()); }), "32 must be a multiple of 64");
  }
}

// The explicit-SIMD kernels, each called with its plane pointers.
template <class T>
struct simd_case {
  std::string name, label;
  int32_t qtype;
  unsigned blocks;  // of a thread
  std::function<void(const uint8_t*, T*, uint64_t)> call;
  bool waited = false;
};

template <class T>
std::vector<simd_case<T>> simd_cases() {
  const c10::Device d = xpu::device();
  // Two planes: codes, and scales behind `width` bytes a block.
  const auto two = [d](auto* kernel, uint64_t width) {
    return [=](const uint8_t* w, T* to, uint64_t nb) { kernel(w, w + width * nb, to, nb, d); };
  };
  using u = const uint8_t*;
  return {
      {"q4_0", "q4_0", qtype_q4_0, 8, two(dequantize_q4_0_kernel<T>, 32)},
      {"q4_1", "q4_1", qtype_q4_1, 8, two(dequantize_q4_1_kernel<T>, 32)},
      {"fp4", "fp4", qtype_fp4, 8, two(dequantize_fp4_kernel<T>, 32)},
      {"q8_0", "q8_0", qtype_q8_0, 4, two(dequantize_q8_0_kernel<T>, 64)},
      {"fp8_e4m3", "fp8 e4m3", qtype_fp8_e4m3, 4, two(dequantize_fp8_e4m3_kernel<T>, 64)},
      {"fp8_e5m2", "fp8 e5m2", qtype_fp8_e5m2, 4,
       [d](u w, T* to, uint64_t nb) { dequantize_fp8_e5m2_kernel(w, nullptr, to, nb, d); }},
      {"fp6", "fp6", qtype_fp6, 8,
       [d](u w, T* to, uint64_t nb) { dequantize_fp6_kernel(w + 32 * nb, w, w + 48 * nb, to, nb, d); }},
      {"fp6_k", "fp6_k", qtype_fp6_k, 2,
       [d](u w, T* to, uint64_t nb) {
         dequantize_fp6_k_kernel(w + 128 * nb, w, w + 192 * nb, w + 208 * nb, to, nb, d);
       },
       waits},
      {"q4_k", "q4_k", qtype_q4_k, 2,
       [d](u w, T* to, uint64_t nb) { dequantize_q4_k_kernel(w, w + 128 * nb, w + 144 * nb, to, nb, d); }},
      {"q6_k", "q6_k", qtype_q6_k, 2,
       [d](u w, T* to, uint64_t nb) { dequantize_q6_k_kernel(w, w + 64 * nb, w + 192 * nb, w + 208 * nb, to, nb, d); }},
  };
}

template <class T>
class simd_expansion : public testing::Test {};
using simd_types = testing::Types<Half, float>;
TYPED_TEST_SUITE(simd_expansion, simd_types);

TYPED_TEST(simd_expansion, equals_scalar_steps_in_half) {
  using T = TypeParam;
  for (const auto& c : simd_cases<T>()) {
    for (const unsigned threads : {1U, 3U, 64U}) {
      SCOPED_TRACE(c.name + " threads " + std::to_string(threads));
      const uint64_t nb = uint64_t{threads} * c.blocks, n = nb * registry[c.qtype].block_elements;
      const scalar::weight w = scalar::random_weight(c.qtype, nb, threads);
      marked_output<T> output(n);
      const auto r = recorded([&] { c.call(w.bytes.data(), output.values.data(), nb); });
      output.expect(n, [&](size_t i) { return scalar::element<Half, T>(w, i); });
      expect_launch(*r, "dequantize_" + c.name + "_kernel", "dequantize", "dequantize " + c.label, threads, 1, 0,
                    c.waited);
      if (this->HasFatalFailure()) return;
    }
  }
}

TYPED_TEST(simd_expansion, refuses_blocks_that_do_not_fill_its_threads) {
  for (const auto& c : simd_cases<TypeParam>()) {
    const std::string text = refusal([&] { c.call(nullptr, nullptr, c.blocks + 1); });
    EXPECT_NE(text.find("nb % SBS == 0"), std::string::npos) << c.name << ": " << text;
  }
}

TEST(expansion, of_q8_0_beyond_the_range_of_half_overflows_in_half_alone) {
  scalar::weight w{qtype_q8_0, 4, std::vector<uint8_t>(4 * 68, 2)};
  const float d = 1e6f;
  for (int b = 0; b < 4; ++b) std::memcpy(&w.bytes[4 * 64 + 4 * b], &d, 4);
  std::vector<float> output(256);
  dequantize_q8_0_kernel(w.bytes.data(), w.bytes.data() + 256, output.data(), 4, xpu::device());
  EXPECT_EQ(output[0], INFINITY);
  qlinear_xpu_dequantize_kernel_q8_0_1x1<float, 16>(w.bytes.data(), output.data(), 256, 1, xpu::device());
  EXPECT_EQ(output[0], 2e6f);
}

TEST(expansion, of_infinity_times_zero_in_bfloat16_has_the_one_pattern) {
  scalar::weight w{qtype_q8_0, 1, std::vector<uint8_t>(68, 0)};
  const float d = INFINITY;
  std::memcpy(&w.bytes[64], &d, 4);
  std::vector<BFloat16> output(64);
  qlinear_xpu_dequantize_kernel_q8_0_1x1<BFloat16, 16>(w.bytes.data(), output.data(), 64, 1, xpu::device());
  EXPECT_EQ(output[5].x, 0x7FC0);
}

// Row numbers in any order and more than once. state_size 320 has one whole super-block a row: the result holds those
// alone, without a gap.
TEST(row_lookup, equals_the_rows_of_the_whole_expansion) {
  struct lookup_case {
    std::string name;
    int32_t qtype;
    decltype(&xpu_dequantize_rows_kernel_q2_k) kernel;
    size_t local;
  };
  const std::vector<int64_t> rows = {2, 0, 2, 6, 1, 5};
  for (const lookup_case& c : {lookup_case{"q2_k", qtype_q2_k, xpu_dequantize_rows_kernel_q2_k, 64},
                               lookup_case{"q4_k", qtype_q4_k, xpu_dequantize_rows_kernel_q4_k, 32}}) {
    for (const uint64_t k : {64, 256, 320, 768}) {
      SCOPED_TRACE(c.name + " k " + std::to_string(k));
      const uint64_t blocks = k / 256;
      const scalar::weight w = scalar::random_weight(c.qtype, 7 * k / 256, 4);
      marked_output<float> output(rows.size() * k);
      const auto r =
          recorded([&] { c.kernel(w.bytes.data(), rows.data(), output.values.data(), 2, 3, k, 7, xpu::device()); });
      output.expect(rows.size() * blocks * 256, [&](size_t i) {
        const size_t row = i / 256 / blocks, block = rows[row] * blocks + i / 256 % blocks;
        return scalar::element<float, float>(w, 256 * block + i % 256);
      });
      expect_launch(*r, "xpu_dequantize_rows_kernel_" + c.name, "linear_xpu_kernel", "lumen_kernel",
                    rows.size() * blocks * c.local, c.local, 0, false);
    }
    EXPECT_EQ(refusal([&] { c.kernel(nullptr, rows.data(), nullptr, 1, 1, 100, 7, xpu::device()); }),
              "100 must be a multiple of 64");
  }
}

}  // namespace
