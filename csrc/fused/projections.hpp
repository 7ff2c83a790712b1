// The bodies of forward_qkv, forward_qkv_bias and forward_qk: the start of attention for one new token.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <vector>

namespace corvane {

// input (1, K); weights: packed bytes of (N, K), query and key in the format src_0_qtype; weight_v by its size in the
// format src_0_vtype, read in the value format of the support row of src_0_qtype; biases: none, or (N) for each weight;
// position_ids: 64-bit integers, the first is the token's position; cache_k, cache_v (1, heads, positions, head_size),
// with room for position kv_seq_len, which is written, and for one position more than they have. Returns the query (1,
// heads, 1, head_size) and views of the caches that are one position longer.
std::vector<at::Tensor> forward_qkv_body(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k,
                                         at::Tensor weight_v, std::vector<at::Tensor> biases, at::Tensor position_ids,
                                         at::Tensor cache_k, at::Tensor cache_v, int32_t src_0_qtype,
                                         int32_t src_0_vtype, int64_t kv_seq_len, int64_t head_size, float rope_base);

// The same for query and key alone.
std::vector<at::Tensor> forward_qk_body(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k,
                                        at::Tensor position_ids, at::Tensor cache_k, int32_t src_0_qtype,
                                        int64_t kv_seq_len, int64_t head_size, float rope_base);

}  // namespace corvane
