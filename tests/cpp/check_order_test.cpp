// The order check: it changes nothing for a kernel that keeps the rules of group.hpp, and each way to break them shows.
#include "platform/sycl/check_order.hpp"

#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "platform/sycl/queue.hpp"

namespace {

constexpr sycl::detail::code_location here{"a_source", "a_kernel"};
constexpr size_t items = 32;

std::vector<int> natural(size_t n) {
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  return order;
}

// The order in which the phases of one group run its items.
std::vector<int> items_of_a_launch() {
  std::vector<int> order;
  sycl::run_groups(sycl::nd_range<1>{{items}, {items}}, [&](const sycl::group<1>& group) {
    group.for_each_item([&](uint32_t t) { order.push_back(static_cast<int>(t)); });
  });
  return order;
}

// The order in which a launch runs n groups.
std::vector<int> groups_of_a_launch(size_t n) {
  std::vector<int> order;
  std::mutex mutex;
  sycl::run_groups(sycl::nd_range<1>{{n}, {1}}, [&](const sycl::group<1>& group) {
    const std::lock_guard<std::mutex> lock(mutex);
    order.push_back(static_cast<int>(group.id()));
  });
  return order;
}

// Each item adds its left neighbour's value to its own, in one phase or, as it has to be, with a barrier between the
// reads and the writes.
std::vector<int> add_left_neighbour(bool barrier) {
  std::vector<int> sums(items);
  sycl::run_groups(sycl::nd_range<1>{{items}, {items}}, [&](const sycl::group<1>& group) {
    sycl::local_array<int, items> values(group);
    sycl::per_item<int, items> left(group);
    group.for_each_item([&](uint32_t t) { values[t] = static_cast<int>(t); });
    if (barrier) {
      group.for_each_item([&](uint32_t t) { left[t] = t == 0 ? 0 : values[t - 1]; });
      group.for_each_item([&](uint32_t t) { values[t] += left[t]; });
    } else {
      group.for_each_item([&](uint32_t t) { values[t] += t == 0 ? 0 : values[t - 1]; });
    }
    group.for_each_item([&](uint32_t t) { sums[t] = values[t]; });
  });
  return sums;
}

// y[i] = y[i - 1] + 1, each by a group of its own: right only where groups run as they are numbered.
std::vector<int> count_up(size_t n) {
  std::vector<std::atomic<int>> y(n);
  sycl::run_groups(sycl::nd_range<1>{{n}, {1}}, [&](const sycl::group<1>& group) {
    const size_t i = group.id();
    y[i] = (i == 0 ? 0 : y[i - 1].load()) + 1;
  });
  return {y.begin(), y.end()};
}

// A value that the group reads from local memory which it has not written.
template <class T>
T read_unwritten() {
  T value{};
  sycl::run_groups(sycl::nd_range<1>{{items}, {items}}, [&](const sycl::group<1>& group) {
    sycl::local_array<T, items> scratch(group);
    group.for_each_item([&](uint32_t t) {
      if (t != 7) scratch[t] = T(1);
    });
    group.single([&] { value = scratch[7]; });
  });
  return value;
}

class order_check : public testing::TestWithParam<uint64_t> {
 protected:
  void SetUp() override { host::set_order_check(GetParam()); }
  void TearDown() override { host::set_order_check(std::nullopt); }
};

TEST_P(order_check, every_group_and_item_runs_once_and_out_of_order) {
  for (auto order : {groups_of_a_launch(1000), items_of_a_launch()}) {
    EXPECT_FALSE(std::is_sorted(order.begin(), order.end()));
    std::sort(order.begin(), order.end());
    EXPECT_EQ(order, natural(order.size()));
  }
  EXPECT_EQ(groups_of_a_launch(1), natural(1));
  EXPECT_EQ(groups_of_a_launch(0), natural(0));
}

TEST_P(order_check, a_missing_barrier_shows) {
  std::vector<int> right(items);
  for (size_t t = 1; t < items; ++t) right[t] = static_cast<int>(2 * t - 1);
  EXPECT_EQ(add_left_neighbour(true), right);

  // Without the barrier some item would have to run before each of its right neighbours: one order in 32 factorial.
  EXPECT_NE(add_left_neighbour(false), right);
  const auto random = add_left_neighbour(false);
  host::set_order_check(std::nullopt);
  EXPECT_NE(add_left_neighbour(false), random) << "the sums from left to right, wrong but always the same";
}

TEST_P(order_check, groups_that_wait_for_each_other_show) {
  constexpr size_t n = 100;
  std::vector<int> up = natural(n);
  for (int& y : up) ++y;
  EXPECT_NE(count_up(n), up);
}

TEST_P(order_check, unwritten_local_memory_is_not_a_number) {
  EXPECT_TRUE(std::isnan(read_unwritten<float>()));
  EXPECT_TRUE(std::isnan(read_unwritten<double>()));
  EXPECT_TRUE(std::isnan(static_cast<float>(read_unwritten<c10::Half>())));
  EXPECT_TRUE(std::isnan(static_cast<float>(read_unwritten<c10::BFloat16>())));
  EXPECT_EQ(read_unwritten<int>(), -1);
}

TEST_P(order_check, a_preparation_that_cannot_be_repeated_shows) {
  int total = 0, seen = 0;
  const auto prepare = [&] { total += 5; };
  const auto kernel = [&](const sycl::group<1>&) { seen = total; };
  sycl::run_groups(sycl::nd_range<1>{{1}, {1}}, sycl::prepared_kernel{prepare, kernel});
  EXPECT_NE(seen, 5);
}

TEST_P(order_check, a_seed_repeats_its_orders_and_each_launch_has_its_own) {
  const auto first = items_of_a_launch(), second = items_of_a_launch();
  EXPECT_NE(first, second);
  host::set_order_check(GetParam());
  EXPECT_EQ(items_of_a_launch(), first);
  EXPECT_EQ(items_of_a_launch(), second);
  host::set_order_check(GetParam() + 1);
  EXPECT_NE(items_of_a_launch(), first);
}

INSTANTIATE_TEST_SUITE_P(seeds, order_check, testing::Values(0, 1, 20));

// A test program that is started anew with the variable set, and ends with 0 if items run out of order there.
[[noreturn]] void exit_with_the_order_found() { std::exit(items_of_a_launch() == natural(items) ? 1 : 0); }

TEST(order_check_variable, is_read_at_load) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char* before = std::getenv("HOST_XPU_CHECK_ORDER");
  const std::string kept = before == nullptr ? "" : before;
  setenv("HOST_XPU_CHECK_ORDER", "a seed", 1);
  EXPECT_EXIT(exit_with_the_order_found(), testing::ExitedWithCode(0), "");
  setenv("HOST_XPU_CHECK_ORDER", "", 1);
  EXPECT_EXIT(exit_with_the_order_found(), testing::ExitedWithCode(1), "") << "empty is off";
  before == nullptr ? unsetenv("HOST_XPU_CHECK_ORDER") : setenv("HOST_XPU_CHECK_ORDER", kept.c_str(), 1);
}

}  // namespace
