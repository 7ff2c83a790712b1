// One input row against fp4.
#include "formats/fp4.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_fp4_2x16, fp4_reader, 2, 16)

}  // namespace corvane
