#include "platform/sycl/parallel.hpp"

#include <tbb/blocked_range.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#include <tbb/task_scheduler_observer.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#ifdef __linux__
#include <sched.h>
#endif
#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <unistd.h>

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

// Gives every worker a core of its own, and lets it trade places when the caller turns up on that core. Without this a
// virtual machine's kernel, which takes a halted core for one that is busy elsewhere, often wakes the worker of a pause
// on the caller's core, where it waits for the next tick: a product of 4096 x 4096 with 128 rows after 40 ms of sleep
// took 13 to 20 ms, with this 13.
#ifdef __linux__
class worker_cores : public tbb::task_scheduler_observer {
 public:
  explicit worker_cores(tbb::task_arena& arena) : task_scheduler_observer(arena) {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
      if (CPU_ISSET(core, &allowed)) cores_.push_back({core, nobody});
    }
    // With fewer workers than cores their places are the kernel's business: it knows what else runs.
    if (cores_.size() == static_cast<size_t>(concurrency())) observe(true);
  }

  void on_scheduler_entry(bool is_worker) override {
    thread_local bool seated = false;
    if (!is_worker || seated) return;
    seated = true;
    const std::lock_guard hold(mutex_);
    const auto free = std::find_if(cores_.begin(), cores_.end(),
                                   [this](const core& c) { return c.worker == nobody && c.number != callers_core_; });
    if (free != cores_.end()) seat(*free, gettid());
  }

  // Called before the workers are.
  void make_room() {
    const int here = sched_getcpu();
    if (here == callers_core_.load(std::memory_order_relaxed)) return;
    const std::lock_guard hold(mutex_);
    callers_core_ = here;
    const auto mine = std::find_if(cores_.begin(), cores_.end(), [here](const core& c) { return c.number == here; });
    if (mine == cores_.end() || mine->worker == nobody || getpid() != process_) return;  // a fork has no workers
    const auto free = std::find_if(cores_.begin(), cores_.end(), [](const core& c) { return c.worker == nobody; });
    if (free == cores_.end()) return;
    seat(*free, mine->worker);
    mine->worker = nobody;
  }

 private:
  static constexpr pid_t nobody = 0;
  struct core {
    int number;
    pid_t worker;
  };

  // A refusal leaves the worker where the kernel puts it: a matter of speed alone.
  static void seat(core& c, pid_t worker) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(c.number, &one);
    sched_setaffinity(worker, sizeof(one), &one);
    c.worker = worker;
  }

  const pid_t process_ = getpid();
  std::mutex mutex_;
  std::vector<core> cores_;
  std::atomic<int> callers_core_{-1};
};
#else
struct worker_cores {
  explicit worker_cores(tbb::task_arena&) {}
  void make_room() {}
};
#endif

struct thread_pool {
  tbb::task_arena arena{concurrency()};
  worker_cores cores{arena};
};

// Leaked on purpose: worker threads may outlive static destruction at interpreter exit.
thread_pool& pool() {
  static auto* made = new thread_pool;
  return *made;
}

// Stores past the caches (simd.hpp) are not ordered with what tells other threads that a piece is done.
void finish_stores() {
#ifdef __SSE2__
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

void parallel_for(size_t n, size_t grain, range_function f) {
  if (n == 0) return;
  grain = std::max<size_t>(grain, 1);
  if (concurrency() == 1 || n <= grain) {
    f(0, n);
    finish_stores();
    return;
  }
  fork_join order;
  const auto piece = [&](const tbb::blocked_range<size_t>& r) {
    order.piece_begins();
    f(r.begin(), r.end());
    finish_stores();
    order.piece_ends();
  };
  order.before_all();
  pool().cores.make_room();
  pool().arena.execute(
      [&] { tbb::parallel_for(tbb::blocked_range<size_t>(0, n, grain), piece, tbb::simple_partitioner()); });
  order.after_all();
}

void run_adaptively(size_t n, range_function f) {
  constexpr double probe_ns = 2'000;         // long enough to trust the estimate of the rest
  constexpr double worth_a_fork_ns = 8'000;  // below this, waking another core costs more than it saves
  constexpr double piece_ns = 20'000;        // a piece short enough to balance, long enough to stream
  if (concurrency() == 1) {
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
