// General expansion of the formats that are cut into rows: 4-bit codes (1x4, 1x2) and byte codes (1x2, 1x1), of a whole
// weight and of tiles.
#include "formats/fp4.hpp"
#include "formats/fp8_e5m2.hpp"
#include "formats/nf4.hpp"
#include "formats/q4_0.hpp"
#include "formats/q4_1.hpp"
#include "formats/q8_0.hpp"
#include "ops/expand_general.hpp"
#include "ops/expand_general_body.hpp"

namespace corvane {

#define ROW_INSTANCE(T, NAME, SG) template void NAME<T, SG>(const uint8_t*, T*, uint64_t, uint64_t, c10::Device);

// A kernel by its name, which is also what launches show: reader, arithmetic, elements of a work-item in a pass, the
// one sub-group size that it has (1x4 and the 1x2 of byte codes run on device class 0, the others elsewhere), and
// whether the host waits for it.
#define ROW_KERNEL(NAME, READER, ARITHMETIC, PER_ITEM, SG, WAIT)                                                       \
  template <class T, unsigned SG_SIZE>                                                                                 \
  void NAME(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size, c10::Device device) {         \
    expand_rows<READER, ARITHMETIC, SG_SIZE, PER_ITEM>(#NAME, weight, output, state_size, output_size, output_size, 0, \
                                                       device, host_wait::WAIT);                                       \
  }                                                                                                                    \
  CORVANE_FOR_ELEMENT_TYPES(ROW_INSTANCE, NAME, SG)

ROW_KERNEL(qlinear_xpu_dequantize_kernel_q4_0_1x4, q4_0_reader, T, 4, 32, no)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_q4_0_1x2, q4_0_reader, T, 2, 16, no)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_q4_1_1x4, q4_1_reader, T, 4, 32, no)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_q4_1_1x2, q4_1_reader, T, 2, 16, no)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_nf4_1x4, nf4_reader, T, 4, 32, yes)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_nf4_1x2, nf4_reader, T, 2, 16, yes)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_fp4_1x4, fp4_reader, T, 4, 32, no)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_fp4_1x2, fp4_reader, T, 2, 16, no)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_q8_0_1x2, q8_0_reader, T, 2, 32, no)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_q8_0_1x1, q8_0_reader, T, 1, 16, no)
// Without a scale there is no arithmetic: the value is a Half, which float holds on its way to T.
ROW_KERNEL(qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2, fp8_e5m2_reader, float, 2, 32, no)
ROW_KERNEL(qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1, fp8_e5m2_reader, float, 1, 16, no)

#define TILE_INSTANCE(T, NAME, SG) \
  template void NAME<T, SG>(const uint8_t*, T*, uint64_t, uint64_t, uint64_t, uint64_t, c10::Device);
#define TILE_KERNEL(NAME, READER, ARITHMETIC, PER_ITEM, SG, WAIT)                                               \
  template <class T, unsigned SG_SIZE>                                                                          \
  void NAME(const uint8_t* weight, T* tile, uint64_t state_size, uint64_t output_size, uint64_t tile_rows,      \
            uint64_t first_row, c10::Device device) {                                                           \
    expand_rows<READER, ARITHMETIC, SG_SIZE, PER_ITEM>(#NAME, weight, tile, state_size, output_size, tile_rows, \
                                                       first_row, device, host_wait::WAIT);                     \
  }                                                                                                             \
  CORVANE_FOR_ELEMENT_TYPES(TILE_INSTANCE, NAME, SG)

TILE_KERNEL(qlinear_xpu_tile_dequantize_kernel_q4_0_1x4, q4_0_reader, T, 4, 32, no)
TILE_KERNEL(qlinear_xpu_tile_dequantize_kernel_q4_0_1x2, q4_0_reader, T, 2, 16, yes)
TILE_KERNEL(qlinear_xpu_tile_dequantize_kernel_q8_0_1x1, q8_0_reader, T, 1, 16, yes)
TILE_KERNEL(qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1, fp8_e5m2_reader, float, 1, 16, yes)

}  // namespace corvane
