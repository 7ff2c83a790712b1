// The host device's own promises: pool, queue, events, launch log, phases of a group.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/sycl/group.hpp"
#include "platform/sycl/parallel.hpp"
#include "platform/sycl/queue.hpp"

#ifdef __linux__
#include <sched.h>
#include <unistd.h>
#endif

namespace {

constexpr sycl::detail::code_location here{"a_source", "a_kernel"};

TEST(pool, covers_every_index_once) {
  for (const size_t n : {0u, 1u, 7u, 1000u, 100000u}) {
    std::vector<std::atomic<int>> seen(n);
    const auto visit = [&](size_t begin, size_t end) {
      for (size_t i = begin; i < end; ++i) ++seen[i];
    };
    host::parallel_for(n, 13, visit);
    host::run_adaptively(n, visit);
    for (const auto& count : seen) ASSERT_EQ(count, 2);
  }
}

TEST(pool, adaptive_run_calls_in_other_cores_for_long_work_and_not_for_short) {
  const auto threads_of = [](size_t n, unsigned spin) {
    std::mutex mutex;
    std::set<std::thread::id> threads;
    host::run_adaptively(n, [&](size_t begin, size_t end) {
      volatile unsigned work = 0;
      for (size_t i = begin; i < end; ++i) {
        for (unsigned j = 0; j < spin; ++j) work = work + j;
      }
      const std::lock_guard<std::mutex> lock(mutex);
      threads.insert(std::this_thread::get_id());
    });
    return threads;
  };
  int alone = 0;  // not always: the thread may be interrupted for longer than short work takes
  for (int i = 0; i < 20; ++i) alone += threads_of(16, 1) == std::set<std::thread::id>{std::this_thread::get_id()};
  EXPECT_GT(alone, 10);
  if (host::concurrency() > 1) {
    EXPECT_GT(threads_of(2000, 100'000).size(), 1u);
  }
}

#ifdef __linux__
TEST(pool, workers_that_were_moved_may_go_anywhere_again) {
  std::mutex mutex;
  std::set<int> threads;
  const auto call_after_pauses = [&] {
    for (int call = 0; call < 40; ++call) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // the workers go to sleep
      host::parallel_for(40, 1, [&](size_t, size_t) {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
        const std::lock_guard<std::mutex> lock(mutex);
        threads.insert(gettid());
      });
    }
  };
  std::thread other(call_after_pauses);
  call_after_pauses();
  other.join();
  cpu_set_t all;
  ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
  for (const int thread : threads) {
    cpu_set_t allowed;
    if (sched_getaffinity(thread, sizeof allowed, &allowed) != 0) continue;  // the other caller has ended
    EXPECT_TRUE(CPU_EQUAL(&allowed, &all)) << CPU_COUNT(&allowed) << " cores of " << CPU_COUNT(&all);
  }
}
#endif

TEST(pool, exceptions_reach_the_caller) {
  const auto throws_late = [](size_t, size_t end) {
    if (end == 1000) throw std::runtime_error("late");
  };
  EXPECT_THROW(host::parallel_for(1000, 10, throws_late), std::runtime_error);
}

TEST(queue, runs_in_order_and_event_remembers_waits) {
  sycl::queue queue(3);
  int step = 0;
  sycl::event first = queue.submit(
      [&](sycl::handler& h) {
        h.parallel_for(sycl::nd_range<1>{{1}, {1}}, sycl::sub_group_size{16}, [&](sycl::group<1>) { step = 1; });
      },
      here);
  EXPECT_EQ(step, 1);  // synchronous
  EXPECT_FALSE(first.record().waited);
  first.wait();
  EXPECT_TRUE(first.record().waited);
  EXPECT_EQ(first.record().kernel, "a_kernel");
  EXPECT_EQ(first.record().source, "a_source");
  EXPECT_EQ(first.record().sub_group_size, 16);
  EXPECT_EQ(first.record().queue, 3);
  EXPECT_FALSE(first.record().label);
}

TEST(queue, log_fills_between_begin_and_end_alone) {
  sycl::queue queue(0);
  const auto submit = [&] {
    queue.submit(
        [](sycl::handler& h) {
          h.parallel_for(sycl::range3{2, 3, 4}, sycl::range3{1, 2, 3}, [](const sycl::item_box&) {});
        },
        here);
  };
  const auto outer = std::make_shared<sycl::launch_log::list>(), inner = std::make_shared<sycl::launch_log::list>();
  submit();
  sycl::launch_log::begin(outer);
  submit();
  sycl::launch_log::begin(inner);
  submit();
  sycl::launch_log::end(inner);
  submit();
  sycl::launch_log::end(outer);
  submit();
  EXPECT_EQ(outer->size(), 3u);
  EXPECT_EQ(inner->size(), 1u);
  EXPECT_EQ((*outer)[0]->global_size, (std::vector<size_t>{2, 3, 4}));
  EXPECT_TRUE((*outer)[0]->local_size.empty());
}

}  // namespace
