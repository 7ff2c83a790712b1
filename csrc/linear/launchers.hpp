// The launcher tables of forward_new: one function per format and device-class group.
#pragma once

#include <ATen/core/Tensor.h>

#include <array>
#include <cstdint>

namespace corvane {

using linear_launcher = at::Tensor (*)(const at::Tensor& input, const at::Tensor& weight, int64_t rows,
                                       int64_t state_size, int64_t output_size, int64_t row_hint);

// Indexed by qtype; null: the id names no format.
using linear_table = std::array<linear_launcher, 32>;

const linear_table& launchers_for(uint8_t device_class);

}  // namespace corvane
