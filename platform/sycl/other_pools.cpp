#include "platform/sycl/other_pools.hpp"

#include <dlfcn.h>
#include <omp.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <thread>

// What GCC makes of a parallel region. Called by name, since other compilers make calls to another library of it.
extern "C" void GOMP_parallel(void (*body)(void*), void* data, unsigned threads, unsigned flags);

namespace host {
namespace {

// A team of OpenMP that sleeps for ever, one thread more than there are cores. GCC's OpenMP lets waiting threads spin
// only while its threads are no more than the cores: 300 000 times by default, without end under
// OMP_WAIT_POLICY=active, but 100 or 1000 times when they are more, as they are from here on. The policy itself is read
// from the environment when the library is loaded, and cannot be set later.
void hold_a_team() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  GOMP_parallel([](void*) {}, nullptr, static_cast<unsigned>(omp_get_num_procs()) + 1, 0);
  for (;;) pause();
}

// A forked process would wait for ever for threads that it does not have.
void end_openmp_threads() {
  // Of OpenMP 5.0: the library that comes with PyTorch 2.6 is older, and linking to the function would refuse it.
  static const auto pause_resource =
      reinterpret_cast<decltype(&omp_pause_resource)>(dlsym(RTLD_DEFAULT, "omp_pause_resource"));
  if (pause_resource != nullptr) pause_resource(omp_pause_soft, omp_get_initial_device());
}

[[maybe_unused]] const int before_a_fork = pthread_atfork(&end_openmp_threads, nullptr, nullptr);

}  // namespace

// To end the threads before each launch instead (omp_pause_resource) was measured: with other programs on the cores it
// waits 9 to 27 ms for threads that get none.
void let_openmp_sleep() { [[maybe_unused]] static const bool held = (std::thread(&hold_a_team).detach(), true); }

}  // namespace host
