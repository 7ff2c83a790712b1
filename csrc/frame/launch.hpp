// The one way every kernel leaves the host: current stream of a device, its queue, one submission, one profiler record.
#pragma once

#include <c10/core/Device.h>

#include "frame/check.hpp"
#include "platform/sycl/queue.hpp"

namespace corvane {

enum class host_wait { no, yes };

constexpr const char* default_label = "lumen_kernel";

// Source stem of the linear and expansion kernels.
constexpr const char* linear_source = "linear_xpu_kernel";

// Queue behind the framework's current stream of the device; fails as the framework does when the device has no guard.
sycl::queue& current_queue(c10::Device device);

// Hands the event to the framework's profiler.
void record_event(const char* label, sycl::event& done);

// Submits `kernel`, a function of its work-group, over `range`. Queue and stream are looked up anew at every launch.
template <int D, class Kernel>
void launch(c10::Device device, const origin& where, const sycl::nd_range<D>& range, sycl::sub_group_size sub_group,
            const Kernel& kernel, host_wait wait = host_wait::no, const char* label = default_label) {
  sycl::event done = current_queue(device).submit([&](sycl::handler& h) { h.parallel_for(range, sub_group, kernel); },
                                                  sycl::detail::code_location{where.source, where.function});
  if (wait == host_wait::yes) done.wait();
  record_event(label, done);
}

}  // namespace corvane
