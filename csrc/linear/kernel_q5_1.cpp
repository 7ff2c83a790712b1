// One input row against q5_1. A weight is formed in float and rounded to T before it meets the input.
#include "formats/q5_0.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_q5_1, q5_1_reader, 1, 1)

}  // namespace corvane
