// Batch product of float matrices: launcher on pointers and sizes.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>

namespace corvane {

// c[i] = a[i] * b[i] for all i of the batch. The launch goes to the current stream of `device`, with no profiler
// record.
void bmm_xpu_kernel(const float* a,  // (batch, m, k)
                    const float* b,  // (batch, k, n)
                    float* c,        // (batch, m, n)
                    uint64_t batch, uint64_t m, uint64_t n, uint64_t k, c10::Device device);

}  // namespace corvane
