// One input row against q8_0.
#include "formats/q8_0.hpp"
#include "linear/kernels.hpp"
#include "linear/matvec.hpp"

namespace corvane {

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void qlinear_xpu_kernel_q8_0_2x8(const T* input, const uint8_t* weight, T* output, uint64_t, uint64_t state_size,
                                 uint64_t output_size, c10::Device device) {
  matvec<q8_0_reader, T, SG_SIZE, WG_SIZE, 2, 8>("qlinear_xpu_kernel_q8_0_2x8", input, weight, output, state_size,
                                                 output_size, device);
}

#define INSTANCE(T, SG, WG)                                                                                        \
  template void qlinear_xpu_kernel_q8_0_2x8<T, SG, WG>(const T*, const uint8_t*, T*, uint64_t, uint64_t, uint64_t, \
                                                       c10::Device);
#define INSTANCES(T) INSTANCE(T, 32, 64) INSTANCE(T, 16, 32)
INSTANCES(Half)
INSTANCES(float)
INSTANCES(double)
INSTANCES(BFloat16)

}  // namespace corvane
