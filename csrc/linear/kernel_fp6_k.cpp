// One input row against fp6_k.
#include "formats/fp6_k.hpp"
#include "linear/kernels_k.hpp"
#include "linear/matvec_blocks.hpp"

namespace corvane {

template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void qlinear_xpu_kernel_fp6_k_2x16(const T* input, const uint8_t* weight, T* output, uint64_t, uint64_t state_size,
                                   uint64_t output_size, c10::Device device) {
  const origin where{"linear_xpu_kernel", "qlinear_xpu_kernel_fp6_k_2x16"};
  check_multiple(state_size, 16, where);
  matvec_blocks<chunk_product<fp6_k_reader, T>, SG_SIZE, WG_SIZE, ROWS_PER_WG>(where, input, weight, output, state_size,
                                                                               output_size, device);
}

#define INSTANCE(T, SG, WG)                                                                                   \
  template void qlinear_xpu_kernel_fp6_k_2x16<T, SG, WG, 2>(const T*, const uint8_t*, T*, uint64_t, uint64_t, \
                                                            uint64_t, c10::Device);
#define INSTANCES(T) INSTANCE(T, 32, 64) INSTANCE(T, 16, 32)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
