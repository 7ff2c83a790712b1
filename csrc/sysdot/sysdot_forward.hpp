// The host side of the systolic path: result, scale plane, and the kernel of the input's type.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace corvane {

// input (rows, state_size) contiguous, float, Half or BFloat16; weight packed (output_size, state_size) in a format
// whose support row has the systolic path. Returns (rows, output_size) with the input's dtype on the weight's device.
// `wide` gives a work-group 16 columns, for devices with a systolic step of that width, else 8.
//
// Any other dtype ends the process with status 2.
at::Tensor sysdot_forward(at::Tensor input, at::Tensor weight, int64_t rows, int64_t state_size, int64_t output_size,
                          int32_t qtype, bool wide);

}  // namespace corvane
