#include "platform/sycl/queue.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>

namespace sycl {
namespace {

std::atomic<int> sinks_open{0};  // so that a launch nobody records takes no lock

struct sink_list {
  std::mutex mutex;
  std::vector<std::shared_ptr<launch_log::list>> sinks;
};

sink_list& sinks() {
  static auto* all = new sink_list;  // leaked: launches may come as late as interpreter exit
  return *all;
}

std::uint64_t now_ns() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

}  // namespace

void launch_log::begin(std::shared_ptr<list> sink) {
  const std::lock_guard<std::mutex> lock(sinks().mutex);
  sinks().sinks.push_back(std::move(sink));
  ++sinks_open;
}

void launch_log::end(const std::shared_ptr<list>& sink) {
  const std::lock_guard<std::mutex> lock(sinks().mutex);
  auto& all = sinks().sinks;
  const auto found = std::find(all.begin(), all.end(), sink);
  if (found == all.end()) return;
  all.erase(found);
  --sinks_open;
}

launch_log::list launch_log::snapshot(const std::shared_ptr<list>& sink) {
  const std::lock_guard<std::mutex> lock(sinks().mutex);
  return *sink;
}

void queue::begin(launch_record& record, const detail::code_location& where) const {
  record.kernel = where.function;
  record.source = where.source;
  record.queue = id_;
  record.duration_ns = now_ns();  // the start, until finish() turns it into the length
}

void queue::finish(event& done) {
  launch_record& record = done.record();
  record.duration_ns = now_ns() - record.duration_ns;
  if (sinks_open == 0) return;
  const std::lock_guard<std::mutex> lock(sinks().mutex);
  for (const auto& sink : sinks().sinks) sink->push_back(done.shared_record());
}

}  // namespace sycl
