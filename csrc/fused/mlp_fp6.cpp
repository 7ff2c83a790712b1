// The gated MLP from fp6 weights.
#include "formats/fp6.hpp"
#include "fused/mlp_frame.hpp"

namespace corvane {

template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void mlp_forward_fp6_kernel(const T* input, const mlp_arguments<T>& arguments, c10::Device device) {
  gated_mlp<fp6_reader, T, SG_SIZE, WG_SIZE, ROWS_PER_WG>(mlp_fp6, input, arguments, device);
}

#define INSTANCE(T, SG, WG, ROWS) \
  template void mlp_forward_fp6_kernel<T, SG, WG, ROWS>(const T*, const mlp_arguments<T>&, c10::Device);
#define INSTANCES(T) INSTANCE(T, 32, 64, 2) INSTANCE(T, 16, 32, 2) INSTANCE(T, 16, 32, 8)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
