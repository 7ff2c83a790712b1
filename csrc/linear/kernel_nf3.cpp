// One input row against nf3.
#include "formats/nf3.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_nf3_2x16, nf3_reader, 2, 16)

}  // namespace corvane
