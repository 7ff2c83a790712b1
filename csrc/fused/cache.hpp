// A key or value cache as the fused projections use it: the longer view that they return, and whether the memory behind
// it has room for what they write.
#pragma once

#include <ATen/core/Tensor.h>

#include "fused/arguments.hpp"

namespace corvane {

// The cache with one position more, on the same storage.
at::Tensor longer_view(const argument& cache, const origin& where);

// Refuses a cache (1, heads, positions, head_size) in which `heads` vectors of head_size elements at position
// kv_seq_len would not lie dense, apart from each other and from the positions before, and inside the storage.
void check_room(const argument& cache, int64_t heads, int64_t head_size, int64_t kv_seq_len, const origin& where);

}  // namespace corvane
