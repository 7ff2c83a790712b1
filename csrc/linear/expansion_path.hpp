// Linear layers of many rows: the weight is expanded, whole or tile by tile, and the framework's product does the rest.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/path.hpp"

namespace corvane {

// input (rows, state_size) of call.dtype, weight packed; returns (rows, output_size). `path` is one of the expansions.
at::Tensor expand_and_multiply(linear_path path, const linear_call& call, const at::Tensor& input,
                               const at::Tensor& weight);

// The same with at most policy.tile_rows weight rows expanded at a time, for q4_0, q8_0 and fp8_e5m2.
at::Tensor multiply_by_tiles(const linear_call& call, const tile_policy& policy, const at::Tensor& input,
                             const at::Tensor& weight);

}  // namespace corvane
