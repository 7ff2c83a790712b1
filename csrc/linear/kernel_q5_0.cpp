// One input row against q5_0. A weight is formed in float and rounded to T before it meets the input.
#include "formats/q5_0.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_q5_0, q5_0_reader, 1, 1)

}  // namespace corvane
