#include "platform/sycl/parallel.hpp"

#include <pthread.h>
#include <tbb/blocked_range.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#include <tbb/version.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "platform/sycl/other_pools.hpp"
#include "platform/sycl/workers.hpp"

#ifdef __x86_64__
#include <emmintrin.h>
#endif
#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

namespace host {
namespace {

// The order that a fork and its join make, told to the thread sanitizer: oneTBB is not built with it. Fork and join are
// two places, so that nothing orders the pieces among each other.
struct fork_join {
  char fork = 0, join = 0;
#ifdef __SANITIZE_THREAD__
  void before_all() { __tsan_release(&fork); }
  void piece_begins() { __tsan_acquire(&fork); }
  void piece_ends() { __tsan_release(&join); }
  void after_all() { __tsan_acquire(&join); }
#else
  void before_all() {}
  void piece_begins() {}
  void piece_ends() {}
  void after_all() {}
#endif
};

int count_cores() {
  int cores = std::max(1, tbb::info::default_concurrency());  // respects the affinity mask
  if (const char* text = std::getenv("OMP_NUM_THREADS")) {
    const int wanted = std::atoi(text);
    if (wanted > 0) cores = std::min(cores, wanted);
  }
  return cores;
}

struct thread_pool {
  tbb::task_arena arena{concurrency()};
  workers helpers{arena};
};

// A process forked after the pool began has none of its workers, and threads that it does not have may hold places of
// the arena, so that a caller would wait for ever: it works alone.
std::atomic<bool> pool_has_begun{false}, left_the_pool{false};
[[maybe_unused]] const int after_a_fork =
    pthread_atfork(nullptr, nullptr, [] { left_the_pool = pool_has_begun.load(); });

bool alone() { return concurrency() == 1 || left_the_pool.load(std::memory_order_relaxed); }

// Leaked on purpose: worker threads may outlive static destruction at interpreter exit.
thread_pool& pool() {
  static auto* const instance = new thread_pool;
  return *instance;
}

// Gets a worker started: until one has taken a piece, the caller, at up to four of its own, moves workers off its core.
class help_wanted {
 public:
  void piece_begins() {
    if (std::this_thread::get_id() != caller_) {
      helped_.store(true, std::memory_order_relaxed);
    } else if (looks_ < 4 && !helped_.load(std::memory_order_relaxed)) {
      // Before the first piece, one that is present may just not have taken its own yet.
      if (looks_++ > 0 || !pool().helpers.any_present()) pool().helpers.move_elsewhere();
    }
  }

 private:
  const std::thread::id caller_ = std::this_thread::get_id();
  std::atomic<bool> helped_ = false;
  int looks_ = 0;
};

// Stores past the caches (vector_types.hpp) are not ordered with what tells other threads that a piece is done.
void finish_stores() {
#ifdef __x86_64__
  _mm_sfence();
#endif
}

using clock = std::chrono::steady_clock;

double nanoseconds_since(clock::time_point start) {
  return std::chrono::duration<double, std::nano>(clock::now() - start).count();
}

}  // namespace

int concurrency() {
  static const int cores = count_cores();
  return cores;
}

std::string pool_library() { return std::string("oneTBB ") + TBB_runtime_version(); }

std::string instruction_set() {
#ifdef __AVX512F__
  return "AVX-512";
#elif defined(__AVX2__)
  return "AVX2";
#else
  return "baseline";
#endif
}

void parallel_for(size_t n, size_t grain, range_function f) {
  if (n == 0) return;
  grain = std::max<size_t>(grain, 1);
  if (alone() || n <= grain) {
    f(0, n);
    finish_stores();
    return;
  }
  fork_join order;
  help_wanted help;
  const auto piece = [&](const tbb::blocked_range<size_t>& r) {
    order.piece_begins();
    help.piece_begins();
    f(r.begin(), r.end());
    finish_stores();
    order.piece_ends();
  };
  pool_has_begun.store(true, std::memory_order_relaxed);
  let_openmp_sleep();
  order.before_all();
  // On another thread, when as many as there are cores are in the arena already: what this captures is read before that
  // thread can be told of the fork.
  pool().arena.execute([&]() __attribute__((no_sanitize("thread"))) {
    order.piece_begins();
    tbb::parallel_for(tbb::blocked_range<size_t>(0, n, grain), piece, tbb::simple_partitioner());
    order.piece_ends();
  });
  order.after_all();
}

void run_adaptively(size_t n, range_function f) {
  constexpr double probe_ns = 2'000;         // long enough to trust the estimate of the rest
  constexpr double worth_a_fork_ns = 8'000;  // below this, waking another core costs more than it saves
  constexpr double piece_ns = 20'000;        // a piece short enough to balance, long enough to stream
  if (alone()) {
    if (n != 0) f(0, n);
    finish_stores();
    return;
  }
  const auto start = clock::now();
  size_t done = 0;
  for (size_t batch = 1; done < n; batch *= 2) {
    const size_t end = std::min(n, done + batch);
    f(done, end);
    finish_stores();
    done = end;
    const double spent = nanoseconds_since(start);
    const double per_item = spent / static_cast<double>(done);
    const double rest = per_item * static_cast<double>(n - done);
    if (spent < probe_ns || rest < worth_a_fork_ns) continue;
    const auto grain = static_cast<size_t>(piece_ns / per_item);
    parallel_for(n - done, grain, [&, done](size_t begin, size_t finish) { f(done + begin, done + finish); });
    return;
  }
}

}  // namespace host
