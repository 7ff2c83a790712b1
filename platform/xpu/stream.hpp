// Streams of the XPU device and the queues behind them, and the profiler's record of an event. For launchers and for
// the device guard; includes no tensor header.
#pragma once

#include <c10/core/Stream.h>

#include <string>

#include "platform/sycl/queue.hpp"

namespace xpu {

constexpr int device_count = 1;

// The queue on which work of the stream is ordered: one queue for each stream id, made at first use, never destroyed.
sycl::queue& get_queue_from_stream(c10::Stream stream);

// Gives the event's record its profiler label. Never blocks.
void profiler_record(const std::string& label, sycl::event& event);

c10::Device device();  // xpu:0

// Streams are numbered 0 (default) to stream_count - 1. get_new_stream goes round the others, so that the 32nd stream
// asked for shares the queue of the first.
constexpr int stream_count = 32;
c10::Stream default_stream();
c10::Stream get_new_stream();

// The current stream of the calling thread; the default stream until the thread sets another.
c10::Stream current_stream() noexcept;
c10::Stream exchange_current_stream(c10::Stream stream) noexcept;

// Waits until all queues have run what was submitted to them.
void synchronize();

}  // namespace xpu
