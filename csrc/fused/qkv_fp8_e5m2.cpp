// Fused projections from fp8_e5m2 weights.
#include "formats/fp8_e5m2.hpp"
#include "fused/qkv_frame.hpp"

namespace corvane {

template <class T, unsigned SG_SIZE, unsigned WG_SIZE, bool BIAS>
void qlinear_xpu_kernel_fp8_e5m2_2x8_qkv(const T* input, const qkv_arguments<T>& arguments, c10::Device device) {
  project_qkv<fp8_e5m2_scaled_reader, T, SG_SIZE, WG_SIZE, BIAS>(fp8_e5m2_qkv, input, arguments, device);
}

#define INSTANCE(T, SG, WG, BIAS) \
  template void qlinear_xpu_kernel_fp8_e5m2_2x8_qkv<T, SG, WG, BIAS>(const T*, const qkv_arguments<T>&, c10::Device);
#define INSTANCES(T) \
  INSTANCE(T, 32, 64, false) INSTANCE(T, 32, 64, true) INSTANCE(T, 16, 32, false) INSTANCE(T, 16, 32, true)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
