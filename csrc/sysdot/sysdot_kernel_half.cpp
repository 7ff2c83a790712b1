// sysdot_forward_kernel for Half input.
#include "sysdot/sysdot_kernel_body.hpp"

namespace corvane {

SYSDOT_INSTANCES(Half, Half);

}  // namespace corvane
