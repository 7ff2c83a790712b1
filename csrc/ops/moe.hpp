// Grouping of expert choices, on the host.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <vector>

namespace corvane {

// The routing table of a mixture-of-experts layer turned around: selected_experts (tokens, selected) int32, in host
// memory, says which experts a token chose. Of the two lists returned, the first has, for each expert, the positions at
// which it was selected, the second the tokens; entries of the same index belong together, in the order of the input.
std::vector<std::vector<std::vector<int32_t>>> get_moe_indexes(at::Tensor selected_experts, int32_t n_experts);

}  // namespace corvane
