// One input row against q4_0.
#include "formats/q4_0.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void qlinear_xpu_kernel_q4_0_2x16(const T* input, const uint8_t* weight, T* output, uint64_t, uint64_t state_size,
                                  uint64_t output_size, c10::Device device) {
  matvec<q4_0_reader, T, SG_SIZE, WG_SIZE, ROWS_PER_WG, 16>("qlinear_xpu_kernel_q4_0_2x16", input, weight, output,
                                                            state_size, output_size, device);
}

#define INSTANCE(T, SG, WG, ROWS)                                                                               \
  template void qlinear_xpu_kernel_q4_0_2x16<T, SG, WG, ROWS>(const T*, const uint8_t*, T*, uint64_t, uint64_t, \
                                                              uint64_t, c10::Device);
#define INSTANCES(T) INSTANCE(T, 32, 64, 2) INSTANCE(T, 16, 32, 8) INSTANCE(T, 16, 32, 2)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
