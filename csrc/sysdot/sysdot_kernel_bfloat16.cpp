// sysdot_forward_kernel for BFloat16 input.
#include "sysdot/sysdot_kernel_body.hpp"

namespace corvane {

template void launch_sysdot<BFloat16, BFloat16>(const sysdot_call&, unsigned, unsigned, c10::Device);

}  // namespace corvane
