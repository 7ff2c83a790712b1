// What a linear call does once its path is chosen.
#pragma once

#include <ATen/core/Tensor.h>

#include "linear/path.hpp"

namespace corvane {

// input (rows, state_size) of call.dtype, weight packed (output_size, state_size), both contiguous. Returns (rows,
// output_size) in the input's dtype on the weight's device.
at::Tensor run_path(const path_choice& choice, const linear_call& call, const at::Tensor& input,
                    const at::Tensor& weight);

}  // namespace corvane
