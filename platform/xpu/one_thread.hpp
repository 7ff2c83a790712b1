// The framework's CPU operators, and the libraries under them, on one thread.
#pragma once

#include <cstddef>

namespace xpu {

// As long as it lives, what this thread calls does not fork.
class one_thread {
 public:
  one_thread();
  ~one_thread();
  one_thread(const one_thread&) = delete;
  one_thread& operator=(const one_thread&) = delete;

 private:
  int before_, mkl_before_ = 0;
};

// Bytes that an operator reads and writes, from which a fork of the framework's pool pays: that pool's threads are
// asleep (other_pools.hpp) and have to be woken.
constexpr std::size_t worth_other_threads = std::size_t{1} << 20;

}  // namespace xpu
