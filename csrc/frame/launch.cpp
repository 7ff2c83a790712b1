#include "frame/launch.hpp"

#include <c10/core/impl/DeviceGuardImplInterface.h>

#include "platform/xpu/stream.hpp"

namespace corvane {

sycl::queue& current_queue(c10::Device device) {
  const c10::impl::DeviceGuardImplInterface* guard = c10::impl::getDeviceGuardImpl(device.type());
  return xpu::get_queue_from_stream(guard->getStream(device));
}

void record_event(const char* label, sycl::event& done) { xpu::profiler_record(label, done); }

}  // namespace corvane
