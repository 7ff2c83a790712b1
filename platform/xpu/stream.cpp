#include "platform/xpu/stream.hpp"

#include <c10/util/Exception.h>

#include <array>
#include <atomic>
#include <mutex>

#include "platform/sycl/fork.hpp"

namespace xpu {
namespace {

thread_local c10::StreamId current_id = 0;

struct queue_table {
  std::mutex& making = host::held_while_forking(new std::mutex);
  std::array<std::atomic<sycl::queue*>, stream_count> queues{};
};

queue_table& table = *new queue_table;  // leaked: launches may come as late as interpreter exit

c10::Stream stream_of(c10::StreamId id) { return c10::Stream(c10::Stream::UNSAFE, device(), id); }

}  // namespace

c10::Device device() { return c10::Device(c10::DeviceType::XPU, 0); }

sycl::queue& get_queue_from_stream(c10::Stream stream) {
  TORCH_CHECK(stream.device_type() == c10::DeviceType::XPU, "a stream of the XPU device is needed, not one of ",
              stream.device());
  const c10::StreamId id = stream.id();
  TORCH_CHECK(id >= 0 && id < stream_count, "XPU stream ", id, " does not exist: there are ", stream_count);
  auto& slot = table.queues[static_cast<std::size_t>(id)];
  if (sycl::queue* queue = slot.load(std::memory_order_acquire)) return *queue;
  const std::lock_guard<std::mutex> lock(table.making);
  if (sycl::queue* queue = slot.load(std::memory_order_relaxed)) return *queue;
  auto* queue = new sycl::queue(static_cast<int>(id));
  slot.store(queue, std::memory_order_release);
  return *queue;
}

void profiler_record(const std::string& label, sycl::event& event) { event.record().label = label; }

c10::Stream default_stream() { return stream_of(0); }

c10::Stream get_new_stream() {
  static std::atomic<unsigned> made{0};
  return stream_of(1 + static_cast<c10::StreamId>(made++ % (stream_count - 1)));
}

c10::Stream current_stream() noexcept { return stream_of(current_id); }

c10::Stream exchange_current_stream(c10::Stream stream) noexcept {
  const c10::Stream previous = current_stream();
  current_id = stream.id();
  return previous;
}

void synchronize() {
  for (auto& slot : table.queues) {
    if (sycl::queue* queue = slot.load(std::memory_order_acquire)) queue->wait();
  }
}

}  // namespace xpu
