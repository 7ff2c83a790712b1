// The one thread pool of the host device: every loop that runs on several cores goes through here.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace host {

// Cores that the process may use; OMP_NUM_THREADS, read once, lowers it.
int concurrency();

// Version of the library behind the pool, and the instructions that vector code was built for.
std::string pool_library();
std::string instruction_set();

// A borrowed callable (begin, end): valid only while the caller's frame is.
class range_function {
 public:
  template <class F>
  range_function(const F& f)  // NOLINT(google-explicit-constructor): a parameter type, as function_ref is
      : object_(std::addressof(f)),
        call_([](const void* object, size_t begin, size_t end) { (*static_cast<const F*>(object))(begin, end); }) {}
  void operator()(size_t begin, size_t end) const { call_(object_, begin, end); }

 private:
  const void* object_;
  void (*call_)(const void*, size_t, size_t);
};

// Runs f over [0, n) in pieces of at most `grain`, on all cores. Returns when all pieces are done; the first exception
// that a piece throws is thrown again here.
void parallel_for(size_t n, size_t grain, range_function f);

// The same, for n pieces of unknown cost (the work-groups of a launch): begins on the calling thread and calls in the
// other cores only when the rest turns out to be worth it.
void run_adaptively(size_t n, range_function f);

}  // namespace host
