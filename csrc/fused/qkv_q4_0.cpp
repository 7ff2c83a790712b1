// Fused projections from q4_0 weights.
#include "formats/q4_0.hpp"
#include "fused/qkv_frame.hpp"

namespace corvane {

template <class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS>
void qlinear_xpu_kernel_q4_0_2x16_qkv(const T* input, const qkv_arguments<T>& arguments, c10::Device device) {
  project_qkv<q4_0_reader, T, SG_SIZE, WG_SIZE, BIAS>(q4_0_qkv, input, arguments, device);
}

#define INSTANCE(T, SG, WG, BIAS) \
  template void qlinear_xpu_kernel_q4_0_2x16_qkv<T, SG, WG, BIAS>(const T*, const qkv_arguments<T>&, c10::Device);
#define INSTANCES(T) \
  INSTANCE(T, 32, 64, false) INSTANCE(T, 32, 64, true) INSTANCE(T, 16, 32, false) INSTANCE(T, 16, 32, true)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
