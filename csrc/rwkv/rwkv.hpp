// The RWKV operators on tensors: they check, allocate the result, and launch. State tensors are written in place, after
// every check has passed.
#pragma once

#include <ATen/core/Tensor.h>

namespace corvane {

// time_decay, time_first (H), key, value (B, S, H), all float or all Half; states (B, H) float. Returns (B, S, H).
at::Tensor rwkv_linear_attention_v4(at::Tensor time_decay, at::Tensor time_first, at::Tensor key, at::Tensor value,
                                    at::Tensor num_state, at::Tensor den_state, at::Tensor max_state);

// All float. time_decay, time_first (N, 64), receptance, key, value (B, N, S, 64) of the same strides, state
// (B, N, 64, 64). Returns (B, S, N, 64).
at::Tensor rwkv_linear_attention_v5(at::Tensor time_decay, at::Tensor time_first, at::Tensor receptance, at::Tensor key,
                                    at::Tensor value, at::Tensor state);

// hidden, shifted (B, S, H), mix (M, 1, H), all float or all Half. Returns (M, B, S, H).
at::Tensor rwkv_time_shift(at::Tensor hidden, at::Tensor shifted, at::Tensor mix);

}  // namespace corvane
