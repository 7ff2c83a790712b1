// The framework's view of the device: current device, streams and events of the XPU type. There is one device, and
// queues are synchronous, so an event is complete as soon as it is recorded.
#include <c10/core/impl/DeviceGuardImplInterface.h>
#include <c10/util/Exception.h>

#include <chrono>

#include "platform/xpu/stream.hpp"

namespace xpu {
namespace {

void check_device(c10::Device device) {
  TORCH_CHECK(device.type() == c10::DeviceType::XPU, "an XPU device is needed, not ", device);
  TORCH_CHECK(device.index() < device_count, "XPU device ", device, " does not exist: there is ", device_count);
}

using event_time = std::chrono::steady_clock::time_point;  // of its last record

struct guard_impl final : c10::impl::DeviceGuardImplInterface {
  c10::DeviceType type() const override { return c10::DeviceType::XPU; }
  c10::DeviceIndex deviceCount() const noexcept override { return device_count; }

  c10::Device getDevice() const override { return device(); }
  void setDevice(c10::Device wanted) const override { check_device(wanted); }
  void uncheckedSetDevice(c10::Device) const noexcept override {}
  c10::Device exchangeDevice(c10::Device wanted) const override {
    check_device(wanted);
    return device();
  }

  c10::Stream getStream(c10::Device) const noexcept override { return current_stream(); }
  c10::Stream getDefaultStream(c10::Device wanted) const override {
    check_device(wanted);
    return default_stream();
  }
  c10::Stream getStreamFromGlobalPool(c10::Device wanted, bool) const override {
    check_device(wanted);
    return get_new_stream();
  }
  c10::Stream getNewStream(c10::Device wanted,
                           int /*priority*/) const {  // this and what has no override: newer releases
    check_device(wanted);
    return get_new_stream();
  }
  c10::Stream exchangeStream(c10::Stream stream) const noexcept override { return exchange_current_stream(stream); }
  bool queryStream(const c10::Stream&) const override { return true; }
  void synchronizeStream(const c10::Stream& stream) const override { get_queue_from_stream(stream).wait(); }
  void synchronizeDevice(c10::DeviceIndex) const { synchronize(); }

  void record(void** event, const c10::Stream&, c10::DeviceIndex, c10::EventFlag) const override {
    if (*event == nullptr) *event = new event_time;
    *static_cast<event_time*>(*event) = std::chrono::steady_clock::now();
  }
  void block(void*, const c10::Stream&) const override {}
  bool queryEvent(void*) const override { return true; }
  void destroyEvent(void* event, c10::DeviceIndex) const noexcept override { delete static_cast<event_time*>(event); }
  void synchronizeEvent(void*) const {}
  double elapsedTime(void* start, void* end, c10::DeviceIndex) const {  // milliseconds
    return std::chrono::duration<double, std::milli>(*static_cast<event_time*>(end) - *static_cast<event_time*>(start))
        .count();
  }
};

}  // namespace

C10_REGISTER_GUARD_IMPL(XPU, guard_impl);

}  // namespace xpu
