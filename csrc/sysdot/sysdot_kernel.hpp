// Many input rows against a packed weight on the systolic unit, for the formats whose support row says so.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/BFloat16.h>
#include <c10/util/Half.h>

#include <cstdint>
#include <type_traits>

namespace corvane {

using c10::BFloat16;
using c10::Half;

// output[r][n] = sum over k of input[r][k] * W[n][k]. For a format that the kernel does not read, the result is zeros.
struct sysdot_call {
  const void* input;      // (rows, state_size) of IT
  const uint8_t* weight;  // the first code block
  const uint8_t* scale;   // the first scale
  void* output;           // (rows, output_size) of IT
  uint64_t rows, state_size, output_size;
  int32_t qtype;
};

// The one body for an input type. last_rows: rows of the last row tile, 1 to 8; columns: of a work-group, 16 or 8.
template <class IT, class WT>
void launch_sysdot(const sysdot_call& call, unsigned last_rows, unsigned columns, c10::Device device);

// The kernel by its name, with its sizes as template values.
template <class IT,    // element type of input and output: float, Half, BFloat16
          class WT,    // operands of the systolic step: BFloat16 for BFloat16 input, else Half
          class AT,    // accumulator: float
          class RT,    // type in which the partial sums of the eight threads are added: WT
          unsigned M,  // rows of the last row tile, 1 to 8
          unsigned N,  // output columns of a work-group: 16 on wide devices, else 8
          unsigned K>  // depth of the systolic step: 8
void sysdot_forward_kernel(const sysdot_call& call, c10::Device device) {
  static_assert(std::is_same_v<AT, float> && std::is_same_v<RT, WT> && K == 8, "the only step there is");
  launch_sysdot<IT, WT>(call, M, N, device);
}

}  // namespace corvane
