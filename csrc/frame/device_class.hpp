// The device class: six kinds of GPU, told apart by the device's name, once, at load.
#pragma once

#include <cstdint>
#include <string_view>

namespace corvane {

// The class that a device name falls into; a plain, case-sensitive search for the keys of device_class.cpp.
uint8_t class_of_name(std::string_view name);

// Classifies the current XPU device. For the module-level copies alone; everyone else reads a copy.
uint8_t classify_device();

// The copies that the three subsystems keep, filled at load in this order.
struct device_classes {
  uint8_t fused_projections;
  uint8_t linear_forward;
  uint8_t fused_mlp;
};
extern const device_classes device_class;

}  // namespace corvane
