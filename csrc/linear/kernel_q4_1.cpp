// One input row against q4_1.
#include "formats/q4_1.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_q4_1_2x16, q4_1_reader, 2, 16)

}  // namespace corvane
