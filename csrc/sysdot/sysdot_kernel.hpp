// Many input rows against a packed weight on the systolic unit, for q4_0, q8_0, fp8_e4m3 and fp8_e5m2.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>

namespace corvane {

using c10::BFloat16;
using c10::Half;

// output[r][n] = sum over k of input[r][k] * W[n][k]. The format is a run-time argument; for one that the kernel does
// not read, the result is zeros.
template <class IT,                            // element type of input and output: float, Half, BFloat16
          class WT,                            // operands of the systolic step: BFloat16 for BFloat16 input, else Half
          class AT,                            // accumulator: float
          class RT,                            // type in which the partial sums of the eight threads are added: WT
          unsigned M,                          // rows of the last row tile, 1 to 8
          unsigned N,                          // output columns of a work-group: 16 on wide devices, else 8
          unsigned K>                          // depth of the systolic step: 8
void sysdot_forward_kernel(const void* input,  // (rows, state_size) of IT
                           const uint8_t* weight,  // the first code block
                           const uint8_t* scale,   // the first scale
                           void* output,           // (rows, output_size) of IT
                           uint64_t rows, uint64_t state_size, uint64_t output_size, int32_t qtype, c10::Device device);

}  // namespace corvane
