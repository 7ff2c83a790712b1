// RWKV time shift: every mix vector blends the hidden states with the shifted ones into a plane of its own, and all
// planes come out of one pass over the two.
#include "frame/launch.hpp"
#include "platform/sycl/simd.hpp"
#include "rwkv/kernels.hpp"

namespace corvane {

template <class T, unsigned GS, unsigned SG_SIZE>
void rwkv_time_shift_kernel(const T* hidden, const T* shifted, const T* mix, T* result, uint64_t mixes, uint64_t batch,
                            uint64_t tokens, uint64_t hidden_size, c10::Device device) {
  using lanes = sycl::simd<T, GS>;  // rounds to T after the difference, the product and the sum
  const origin where{"rwkv", "rwkv_time_shift_kernel"};
  const uint64_t of_plane = batch * tokens * hidden_size;

  launch<3>(device, where, {{batch, tokens, hidden_size}, {1, 1, GS}}, sycl::sub_group_size{SG_SIZE},
            [=](sycl::group<3> group) {
              const uint64_t channel = group.id(2) * GS;
              const uint64_t at = (group.id(0) * tokens + group.id(1)) * hidden_size + channel;
              const lanes y = lanes::load(shifted + at);
              const lanes difference = lanes::load(hidden + at) - y;
              for (uint64_t m = 0; m < mixes; ++m) {
                const lanes blend = y + lanes::load(mix + m * hidden_size + channel) * difference;
                blend.store(result + m * of_plane + at);
              }
            });
}

#define INSTANCE(T)                                                                                               \
  template void rwkv_time_shift_kernel<T, 64, 32>(const T*, const T*, const T*, T*, uint64_t, uint64_t, uint64_t, \
                                                  uint64_t, c10::Device);
INSTANCE(float)
INSTANCE(c10::Half)

}  // namespace corvane
