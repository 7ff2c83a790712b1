// The RWKV kernels: launchers on pointers and sizes. B batch size, S tokens, H hidden size, N heads, M mix vectors.
#pragma once

#include <c10/core/Device.h>
#include <c10/util/Half.h>

#include <cstdint>

#include "frame/check.hpp"

namespace corvane {

// What the launchers of version 4 and of the time shift need of H. It is asked before the launcher is called, so that
// it comes before what else a caller checks.
inline void check_hidden_size(uint64_t hidden_size, unsigned group_size, const char* launcher) {
  check(hidden_size % group_size == 0, {"rwkv", launcher}, "hidden_size % GS == 0");
}

// Attention of version 4: a recurrence of its own for each (batch row, channel).
template <class T,           // tokens: float, Half; the arithmetic and the state are float
          unsigned GS,       // work-items of a group, one channel each: 32
          unsigned SG_SIZE>  // required sub-group size: 16
void rwkv_linear_attention_kernel_v4(const T* time_decay,  // (H)
                                     const T* time_first,  // (H)
                                     const T* key,         // (B, S, H)
                                     const T* value,       // (B, S, H)
                                     T* result,            // (B, S, H)
                                     float* num_state,     // (B, H), read and written, as the next two
                                     float* den_state, float* max_state, uint64_t batch, uint64_t tokens,
                                     uint64_t hidden_size, c10::Device device);

// Strides in elements; the last axis is dense.
struct token_strides {
  uint64_t batch, head, token;
};

// Attention of version 5: each head keeps a matrix, of which a work-item owns one column.
template <unsigned HEAD,                                       // head size: 64
          unsigned GS,                                         // work-items of a group: 32
          unsigned SG_SIZE>                                    // required sub-group size: 16
void rwkv_linear_attention_kernel_v5(const float* time_decay,  // (N, HEAD)
                                     const float* time_first,  // (N, HEAD)
                                     const float* receptance,  // (B, N, S, HEAD) by `strides`, as the next two
                                     const float* key, const float* value, token_strides strides,
                                     float* result,  // (B, S, N, HEAD)
                                     float* state,   // (B, N, HEAD, HEAD): key index, value index; read and written
                                     uint64_t batch, uint64_t heads, uint64_t tokens, c10::Device device);

// M blends of the hidden states with the shifted ones: shifted + mix * (hidden - shifted), all in T.
template <class T,                             // float, Half
          unsigned GS,                         // work-items of a group, one channel each: 64
          unsigned SG_SIZE>                    // required sub-group size: 32
void rwkv_time_shift_kernel(const T* hidden,   // (B, S, H)
                            const T* shifted,  // (B, S, H)
                            const T* mix,      // (M, H)
                            T* result,         // (M, B, S, H)
                            uint64_t mixes, uint64_t batch, uint64_t tokens, uint64_t hidden_size, c10::Device device);

}  // namespace corvane
