// sysdot_forward_kernel for float input.
#include "sysdot/sysdot_kernel_body.hpp"

namespace corvane {

SYSDOT_INSTANCES(float, Half);

}  // namespace corvane
