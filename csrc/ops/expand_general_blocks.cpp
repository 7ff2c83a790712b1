// General expansion of the formats that are cut over row ends: 5-bit and 3-bit codes by elements, K-block and grid
// formats by super-blocks. All compute in float.
#include "formats/iq1_s.hpp"
#include "formats/iq2_xxs.hpp"
#include "formats/nf3.hpp"
#include "formats/q2_k.hpp"
#include "formats/q4_k.hpp"
#include "formats/q5_0.hpp"
#include "formats/q5_k.hpp"
#include "formats/q6_k.hpp"
#include "ops/expand_general.hpp"
#include "ops/expand_general_body.hpp"

namespace corvane {

#define INSTANCE(T, NAME) template void NAME<T>(const uint8_t*, T*, uint64_t, uint64_t, c10::Device);

#define ELEMENT_KERNEL(NAME, READER, WAIT)                                                                     \
  template <class T>                                                                                           \
  void NAME(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size, c10::Device device) { \
    expand_elements<READER, float>(#NAME, weight, output, state_size, output_size, device, host_wait::WAIT);   \
  }                                                                                                            \
  CORVANE_FOR_ELEMENT_TYPES(INSTANCE, NAME)

ELEMENT_KERNEL(qlinear_xpu_dequantize_kernel_q5_0, q5_0_reader, yes)
ELEMENT_KERNEL(qlinear_xpu_dequantize_kernel_q5_1, q5_1_reader, no)
ELEMENT_KERNEL(qlinear_xpu_dequantize_kernel_nf3_new, nf3_reader, yes)

// LOCAL: work-items that take a super-block on a device.
#define SUPER_BLOCK_KERNEL(NAME, READER, LOCAL, WAIT)                                                            \
  template <class T>                                                                                             \
  void NAME(const uint8_t* weight, T* output, uint64_t state_size, uint64_t output_size, c10::Device device) {   \
    expand_super_blocks<READER>(#NAME, LOCAL, weight, output, state_size, output_size, device, host_wait::WAIT); \
  }                                                                                                              \
  CORVANE_FOR_ELEMENT_TYPES(INSTANCE, NAME)

SUPER_BLOCK_KERNEL(qlinear_xpu_dequantize_kernel_q2_k, q2_k_reader, 64, yes)
SUPER_BLOCK_KERNEL(qlinear_xpu_dequantize_kernel_q4_k, q4_k_reader, 32, no)
SUPER_BLOCK_KERNEL(qlinear_xpu_dequantize_kernel_q5_k, q5_k_reader, 64, no)
SUPER_BLOCK_KERNEL(qlinear_xpu_dequantize_kernel_q6_k, q6_k_reader, 64, no)
SUPER_BLOCK_KERNEL(qlinear_xpu_dequantize_kernel_iq2_xxs, iq2_xxs_reader, 32, yes)
SUPER_BLOCK_KERNEL(qlinear_xpu_dequantize_kernel_iq1_s, iq1_s_reader, 32, yes)

}  // namespace corvane
