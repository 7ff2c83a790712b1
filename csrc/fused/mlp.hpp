// The body of mlp_forward_xpu: the gated first half of a feed-forward layer for one input row.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace corvane {

// input: one row of state_size elements; first, second: packed bytes of (output_size, state_size) in the format
// `qtype`; activation: 0 for the SiLU form, any other number for the tanh form. Returns activation(first x) * (second
// x), (1, output_size) in the input's dtype on the first weight's device. Opens a profiler record of its own.
at::Tensor mlp_forward_xpu(at::Tensor input, at::Tensor first, at::Tensor second, int64_t batch_size,
                           int64_t state_size, int64_t output_size, int64_t activation, int32_t qtype);

}  // namespace corvane
