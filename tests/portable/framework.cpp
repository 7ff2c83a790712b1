// The few functions of PyTorch's libraries that the C++ tests need, for a processor without these: all streams are one
// queue, an error has its message, and number types print.
#include <c10/util/BFloat16.h>
#include <c10/util/Exception.h>
#include <c10/util/Half.h>

#include <ostream>
#include <string>
#include <utility>

#include "frame/launch.hpp"

namespace c10 {

std::ostream& operator<<(std::ostream& out, const Half& x) { return out << static_cast<float>(x); }
std::ostream& operator<<(std::ostream& out, const BFloat16& x) { return out << static_cast<float>(x); }

Error::Error(SourceLocation, std::string message)
    : msg_(std::move(message)), what_(msg_), what_without_backtrace_(msg_), caller_(nullptr) {}

}  // namespace c10

namespace corvane {

sycl::queue& current_queue(c10::Device) {
  static sycl::queue queue(0);
  return queue;
}

void record_event(const char* label, sycl::event& done) { done.record().label = label; }

}  // namespace corvane
