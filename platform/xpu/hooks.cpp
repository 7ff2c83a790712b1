// What newer releases of the framework ask of the XPU device through their hooks: how many there are, which is current,
// its generators. Older releases ask the device guard for all of it.
#ifdef CORVANE_TORCH_HAS_ACCELERATORS
#include <ATen/CPUGeneratorImpl.h>
#include <ATen/detail/CUDAHooksInterface.h>
#include <ATen/detail/XPUHooksInterface.h>

#include <string>

#include "platform/sycl/queue.hpp"
#include "platform/xpu/allocator.hpp"
#include "platform/xpu/stream.hpp"

namespace xpu {
namespace {

template <class Hooks>
bool built(const Hooks& hooks) {
  if constexpr (requires { hooks.isBuilt(); }) return hooks.isBuilt();
  return false;  // a release that never asks
}

// Releases differ in which of these they have, and in what they construct them from: none says override.
struct XPUHooks final : at::XPUHooksInterface {
  explicit XPUHooks(const auto&...) {}

  void init() const {}
  bool hasXPU() const { return true; }
  bool isAvailable() const { return true; }
  // A framework that was built for one accelerator refuses all work beside a second that was "built" too.
  bool isBuilt() const { return !built(at::detail::getCUDAHooks()); }
  bool hasPrimaryContext(c10::DeviceIndex) const { return true; }
  std::string showConfig() const { return "XPU: " + host::device_name(); }

  c10::DeviceIndex deviceCount() const { return device_count; }
  c10::DeviceIndex getNumGPUs() const { return device_count; }
  int32_t getGlobalIdxFromDevice(const c10::Device&) const { return 0; }
  c10::DeviceIndex current_device() const { return 0; }
  c10::DeviceIndex getCurrentDevice() const { return 0; }
  void setCurrentDevice(c10::DeviceIndex wanted) const { check_index(wanted); }
  c10::DeviceIndex exchangeDevice(c10::DeviceIndex wanted) const { return check_index(wanted); }
  c10::DeviceIndex maybeExchangeDevice(c10::DeviceIndex) const { return 0; }
  void deviceSynchronize(c10::DeviceIndex) const { synchronize(); }

  // Random numbers come from the CPU's kernels, which take the CPU's generators.
  const at::Generator& getDefaultGenerator(c10::DeviceIndex) const { return at::detail::getDefaultCPUGenerator(); }
  at::Generator getNewGenerator(c10::DeviceIndex) const { return at::detail::createCPUGenerator(); }

  c10::Device getDeviceFromPtr(void*) const { return device(); }
  c10::Allocator* getPinnedMemoryAllocator() const { return relabelled_allocator(); }

 private:
  static c10::DeviceIndex check_index(c10::DeviceIndex wanted) {
    TORCH_CHECK(wanted < device_count, "XPU device ", static_cast<int>(wanted), " does not exist: there is ",
                device_count);
    return 0;
  }
};

// The framework's own macro names these without their namespace.
using at::RegistererXPUHooksRegistry;
using at::XPUHooksRegistry;
C10_REGISTER_CLASS(XPUHooksRegistry, XPUHooks, XPUHooks)

}  // namespace
}  // namespace xpu
#endif
