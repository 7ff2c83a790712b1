// sysdot_forward_kernel for BFloat16 input.
#include "sysdot/sysdot_kernel_body.hpp"

namespace corvane {

SYSDOT_INSTANCES(BFloat16, BFloat16);

}  // namespace corvane
