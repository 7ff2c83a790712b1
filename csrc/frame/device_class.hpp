// The device class: six kinds of GPU, told apart by the device's name, once, at load.
#pragma once

#include <cstdint>

namespace corvane {

// The class of the current XPU device, as each of the three subsystems keeps it; asked for at load in this order.
struct device_classes {
  uint8_t projections;  // QKV and QK
  uint8_t linear;       // forward_new and dequant
  uint8_t mlp;
};
extern const device_classes class_at_load;

}  // namespace corvane
