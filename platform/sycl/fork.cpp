#include "platform/sycl/fork.hpp"

#include <pthread.h>

#include <mutex>
#include <vector>

namespace host::fork_detail {
namespace {

struct list {
  std::mutex adding;
  std::vector<held> all;
};

list& locks() {
  static auto* made = new list;
  return *made;
}

[[maybe_unused]] const int handlers = pthread_atfork(
    [] {
      locks().adding.lock();
      for (const held& one : locks().all) one.lock(one.mutex);
    },
    [] {
      for (const held& one : locks().all) one.unlock(one.mutex);
      locks().adding.unlock();
    },
    [] {
      for (const held& one : locks().all) one.renew(one.mutex);
      locks().adding.unlock();
    });

}  // namespace

void hold(const held& one) {
  const std::lock_guard<std::mutex> alone(locks().adding);
  locks().all.push_back(one);
}

}  // namespace host::fork_detail
