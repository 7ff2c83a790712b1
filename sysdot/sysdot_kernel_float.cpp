// sysdot_forward_kernel for float input.
#include "sysdot/sysdot_kernel_body.hpp"

namespace corvane {

#define INSTANCE(M, N)                                                    \
  template void sysdot_forward_kernel<float, Half, float, Half, M, N, 8>( \
      const void*, const uint8_t*, const uint8_t*, void*, uint64_t, uint64_t, uint64_t, int32_t, c10::Device)
#define INSTANCES(M) \
  INSTANCE(M, 16);   \
  INSTANCE(M, 8)

INSTANCES(1);
INSTANCES(2);
INSTANCES(3);
INSTANCES(4);
INSTANCES(5);
INSTANCES(6);
INSTANCES(7);
INSTANCES(8);

}  // namespace corvane
