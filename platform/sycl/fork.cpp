#include "platform/sycl/fork.hpp"

#include <pthread.h>

#include <atomic>

namespace host::fork_detail {
namespace {

std::atomic<const held*> last{nullptr};
const held* of_this_fork = nullptr;

[[maybe_unused]] const int handlers = pthread_atfork(
    [] {
      of_this_fork = last.load();
      for (const held* one = of_this_fork; one != nullptr; one = one->before) one->lock(one->mutex);
    },
    [] {
      for (const held* one = of_this_fork; one != nullptr; one = one->before) one->unlock(one->mutex);
    },
    [] {
      for (const held* one = of_this_fork; one != nullptr; one = one->before) one->renew(one->mutex);
    });

}  // namespace

void hold(held* one) {
  one->before = last.load();
  while (!last.compare_exchange_weak(one->before, one)) {
  }
}

}  // namespace host::fork_detail
