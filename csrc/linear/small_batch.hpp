// A few input rows against a packed weight: a weight byte is decoded once for two input rows, in float for four. A
// work-group takes two weight rows against two input rows.
#pragma once

#include "formats/reader.hpp"
#include "linear/row_frame.hpp"

namespace corvane {

// input (rows, state_size), weight packed (output_size, state_size), output (rows, output_size). For the formats whose
// support row has a small-batch kernel.
template <class T>
void launch_small_batch(int32_t qtype, const kernel_launch& how, const T* input, const uint8_t* weight, T* output,
                        uint64_t rows, uint64_t state_size, uint64_t output_size, c10::Device device);

}  // namespace corvane
