// The gated MLP from q4_0 weights.
#include "formats/q4_0.hpp"
#include "fused/mlp_frame.hpp"

namespace corvane {

template <class T, unsigned SG_SIZE, unsigned WG_SIZE, unsigned ROWS_PER_WG>
void mlp_forward_q4_0_kernel(const T* input, const mlp_arguments<T>& arguments, c10::Device device) {
  gated_mlp<q4_0_reader, T, SG_SIZE, WG_SIZE, ROWS_PER_WG>(mlp_q4_0, input, arguments, device);
}

#define INSTANCE(T, SG, WG, ROWS) \
  template void mlp_forward_q4_0_kernel<T, SG, WG, ROWS>(const T*, const mlp_arguments<T>&, c10::Device);
#define INSTANCES(T) INSTANCE(T, 32, 64, 2) INSTANCE(T, 16, 32, 2) INSTANCE(T, 16, 32, 8)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
