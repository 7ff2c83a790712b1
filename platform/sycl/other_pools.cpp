#include "platform/sycl/other_pools.hpp"

#include <omp.h>
#include <pthread.h>

namespace host {

void end_openmp_threads() {
  static const int here = omp_get_initial_device();
  omp_pause_resource(omp_pause_soft, here);
}

namespace {

// A forked process would wait for ever for threads that it does not have.
[[maybe_unused]] const int before_a_fork = pthread_atfork(&end_openmp_threads, nullptr, nullptr);

}  // namespace
}  // namespace host
