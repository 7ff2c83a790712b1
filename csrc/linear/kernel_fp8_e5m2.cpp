// One input row against fp8_e5m2. The stored scales are not read.
#include "formats/fp8_e5m2.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

MATVEC_KERNEL(qlinear_xpu_kernel_fp8_e5m2_2x8, fp8_e5m2_reader, 2, 8)

}  // namespace corvane
