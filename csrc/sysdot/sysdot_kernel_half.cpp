// sysdot_forward_kernel for Half input.
#include "sysdot/sysdot_kernel_body.hpp"

namespace corvane {

template void launch_sysdot<Half, Half>(const sysdot_call&, unsigned, unsigned, c10::Device);

}  // namespace corvane
