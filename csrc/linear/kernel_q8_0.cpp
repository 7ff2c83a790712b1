// One input row against q8_0.
#include "formats/q8_0.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_q8_0_2x8, q8_0_reader, 2, 8)

}  // namespace corvane
