#include "platform/sycl/workers.hpp"

#include <mutex>

#ifdef __linux__
#include <sched.h>
#include <unistd.h>
#endif

namespace host {
namespace {

// A thread's place in the list, left when the thread ends.
struct place {
  std::atomic<int>* taken = nullptr;
  ~place() {
    if (taken != nullptr) taken->store(0, std::memory_order_relaxed);
  }
};

}  // namespace

void workers::on_scheduler_entry(bool is_worker) {
  if (!is_worker) return;
#ifdef __linux__
  present_.fetch_add(1, std::memory_order_relaxed);
  thread_local place mine;
  if (mine.taken != nullptr) return;
  for (std::atomic<int>& thread : threads_) {
    int free = 0;
    if (!thread.compare_exchange_strong(free, gettid())) continue;
    mine.taken = &thread;
    return;
  }
#endif
}

void workers::on_scheduler_exit(bool is_worker) {
  if (is_worker) present_.fetch_sub(1, std::memory_order_relaxed);
}

void workers::move_elsewhere() const {
#ifdef __linux__
  // Two at once would take each other's momentary masks for the ones to restore.
  static std::mutex moving;
  const std::unique_lock<std::mutex> alone(moving, std::try_to_lock);
  if (!alone.owns_lock()) return;
  const int here = sched_getcpu();
  if (here < 0 || here >= CPU_SETSIZE) return;
  for (const std::atomic<int>& thread : threads_) {
    const int id = thread.load(std::memory_order_relaxed);
    cpu_set_t allowed;
    if (id == 0 || sched_getaffinity(id, sizeof allowed, &allowed) != 0) continue;
    cpu_set_t elsewhere = allowed;
    CPU_CLR(here, &elsewhere);
    if (CPU_COUNT(&elsewhere) == 0 || sched_setaffinity(id, sizeof elsewhere, &elsewhere) != 0) continue;
    sched_setaffinity(id, sizeof allowed, &allowed);
  }
#endif
}

}  // namespace host
