// One input row against fp8_e4m3.
#include "formats/fp8_e4m3.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_fp8_e4m3_2x8, fp8_e4m3_reader, 2, 8)

}  // namespace corvane
