// RWKV attention, version 5. The work-items of a group own neighbouring columns of a head's state, which they hold in
// private memory from the first token to the last: on the host 64 rows by 32 columns in the first-level cache.
#include <cstring>

#include "frame/launch.hpp"
#include "platform/sycl/simd.hpp"
#include "rwkv/kernels.hpp"

namespace corvane {

using sycl::f32x16;

template <unsigned HEAD, unsigned GS, unsigned SG_SIZE>
void rwkv_linear_attention_kernel_v5(const float* time_decay, const float* time_first, const float* receptance,
                                     const float* key, const float* value, token_strides strides, float* result,
                                     float* state, uint64_t batch, uint64_t heads, uint64_t tokens,
                                     c10::Device device) {
  constexpr unsigned parts = GS / 16;
  const origin where{"rwkv", "rwkv_linear_attention_kernel_v5"};

  launch<3>(device, where, {{batch, heads, HEAD}, {1, 1, GS}}, sycl::sub_group_size{SG_SIZE},
            [=](sycl::group<3> group) {
              const uint64_t b = group.id(0), n = group.id(1), column = group.id(2) * GS;
              const float* decay = time_decay + n * HEAD;
              const float* first = time_first + n * HEAD;
              float* matrix = state + (b * heads + n) * HEAD * HEAD + column;

              f32x16 c[HEAD][parts];
              for (unsigned j = 0; j < HEAD; ++j) std::memcpy(c[j], matrix + j * HEAD, sizeof(c[j]));

              uint64_t at = b * strides.batch + n * strides.head;
              uint64_t to = (b * tokens * heads + n) * HEAD + column;
              for (uint64_t s = 0; s < tokens; ++s, at += strides.token, to += heads * HEAD) {
                const float *r = receptance + at, *k = key + at;
                f32x16 v[parts], sum[parts] = {};
                std::memcpy(v, value + at + column, sizeof(v));
                for (unsigned j = 0; j < HEAD; ++j) {
                  for (unsigned i = 0; i < parts; ++i) {
                    const f32x16 x = k[j] * v[i];
                    sum[i] += r[j] * (first[j] * x + c[j][i]);
                    c[j][i] = decay[j] * c[j][i] + x;
                  }
                }
                std::memcpy(result + to, sum, sizeof(sum));
              }

              for (unsigned j = 0; j < HEAD; ++j) std::memcpy(matrix + j * HEAD, c[j], sizeof(c[j]));
            });
}

template void rwkv_linear_attention_kernel_v5<64, 32, 16>(const float*, const float*, const float*, const float*,
                                                          const float*, token_strides, float*, float*, uint64_t,
                                                          uint64_t, uint64_t, c10::Device);

}  // namespace corvane
