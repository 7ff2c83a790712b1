// The host side of the systolic path: result, scale plane, and the one kernel instance that fits a call.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace corvane {

// input (rows, state_size) contiguous, float, Half or BFloat16; weight packed (output_size, state_size) in q4_0, q8_0,
// fp8_e4m3 or fp8_e5m2. Returns (rows, output_size) with the input's dtype on the weight's device. `wide` takes the
// instances of 16 columns, for devices with a systolic step of that width.
//
// Any other dtype ends the process with status 2.
at::Tensor sysdot_forward(at::Tensor input, at::Tensor weight, int64_t rows, int64_t state_size, int64_t output_size,
                          int32_t qtype, bool wide);

}  // namespace corvane
