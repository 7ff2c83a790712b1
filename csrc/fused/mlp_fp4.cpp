// The gated MLP from fp4 weights.
#include "formats/fp4.hpp"
#include "fused/mlp_frame.hpp"

namespace corvane {

template <class T, unsigned SG_SIZE, unsigned WG_SIZE>
void mlp_forward_fp4_kernel(const T* input, const mlp_arguments<T>& arguments, c10::Device device) {
  gated_mlp<fp4_reader, T, SG_SIZE, WG_SIZE, 2>(mlp_fp4, input, arguments, device);
}

#define INSTANCE(T, SG, WG) \
  template void mlp_forward_fp4_kernel<T, SG, WG>(const T*, const mlp_arguments<T>&, c10::Device);
#define INSTANCES(T) INSTANCE(T, 32, 64) INSTANCE(T, 16, 32)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
