// One input row against nf4.
#include "formats/nf4.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_nf4_2x16, nf4_reader, 2, 16)

}  // namespace corvane
