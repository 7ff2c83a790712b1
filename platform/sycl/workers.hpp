// The pool's worker threads, as the scheduler of the operating system moves them about.
#pragma once

#include <tbb/task_arena.h>
#include <tbb/task_scheduler_observer.h>

#include <array>
#include <atomic>

namespace host {

// Moves workers off the core that woke them.
//
// The kernel of a virtual machine often takes an idle core for one that the machine below has suspended, and puts a
// woken worker on the core of the thread that woke it. There it waits behind that thread until the next tick, some
// milliseconds in which a call has one core. A worker that is forbidden this core for a moment is moved at once;
// afterwards it may go wherever the kernel puts it, as before. Measured and dropped: a core of its own for every
// worker, which does as much on an idle machine, and much less beside a busy process.
class workers final : public tbb::task_scheduler_observer {
 public:
  explicit workers(tbb::task_arena& arena) : tbb::task_scheduler_observer(arena) { observe(true); }

  // Whether one is in the arena, at work or looking for some.
  bool any_present() const { return present_.load(std::memory_order_relaxed) > 0; }
  // Forbids all of them the calling thread's core for a moment, so that one that waits there is moved.
  void move_elsewhere() const;

  void on_scheduler_entry(bool is_worker) override;
  void on_scheduler_exit(bool is_worker) override;

 private:
  std::array<std::atomic<int>, 64> threads_{};  // ids of the workers that have been in the arena; 0: a free place
  std::atomic<int> present_{0};
};

}  // namespace host
