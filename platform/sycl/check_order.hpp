// The order check, a mode for tests: work-groups and the work-items of a phase run in a random order, and memory starts
// as bytes of 0xFF, which are not-a-numbers in every floating-point type. A kernel that relies on what no device
// promises (an order, a phase that sees its own writes, memory nobody wrote) then computes something else.
//
// HOST_XPU_CHECK_ORDER=<seed>, any text, read when the platform library is loaded, switches it on. The orders follow
// from the seed, the number of the launch and the group, so a run that launches from one thread can be repeated.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace host {

namespace detail {
extern std::atomic<bool> order_check_is_on;
}  // namespace detail

inline bool order_check() { return detail::order_check_is_on.load(std::memory_order_relaxed); }

// On with a seed, off with none; counts launches from the beginning again. Not while a launch runs.
void set_order_check(std::optional<std::uint64_t> seed);

// In which order a launch runs its work-groups: as they are numbered, unless the check is on.
class launch_order {
 public:
  explicit launch_order(std::size_t groups) {
    if (order_check()) draw(groups);
  }

  // Number of the group that runs as the i-th. From here on item_order() of this thread belongs to that group.
  std::size_t start_group(std::size_t i) const { return order_.empty() ? i : start_drawn_group(i); }

 private:
  void draw(std::size_t groups);
  std::size_t start_drawn_group(std::size_t i) const;

  std::vector<std::size_t> order_;
  std::uint64_t seed_ = 0;
};

// The numbers of the work-items of the next phase in the order in which they run. Valid until this thread asks again.
const std::uint32_t* item_order(std::size_t items);

}  // namespace host
