// One input row against q5_k. Products are formed in T, two at a time; everything after them is in float.
#include "formats/q5_k.hpp"
#include "linear/kernels_k.hpp"
#include "linear/matvec_blocks.hpp"

namespace corvane {
namespace {

// x[e] * code[e] + x[e + 16] * code[e + 16] is a value of T; so is x[e] + x[e + 16], which the minimums multiply.
template <class T>
struct pair_product {
  using reader = q5_k_reader;
  using sum = simd<float, 16>;

  struct staged {
    simd<T, 16> x[16];
    simd<float, 16> sum_x;  // over each chunk
  };

  static void stage(const T* x, staged& s) {
    s.sum_x = simd<float, 16>::zero();
    for (unsigned j = 0; j < 16; ++j) s.x[j] = detail::chunk_input<reader>(x, j);
    for (unsigned j : {0, 1, 4, 5, 8, 9, 12, 13}) {  // j and j + 2 are a pair, 16 elements apart
      s.sum_x = s.sum_x + simd<float, 16>::exact((s.x[j] + s.x[j + 2]).to_float());
    }
  }

  template <unsigned Rows>
  static CORVANE_INLINE void add_blocks(const staged& input, const reader::planes& planes,
                                        const uint32_t (&block)[Rows], sum (&total)[Rows]) {
    reader::chunks codes[Rows];
    for (unsigned r = 0; r < Rows; ++r) codes[r] = reader::fetch_chunks(planes, block[r]);
    sum dot[Rows];
    for (unsigned r = 0; r < Rows; ++r) dot[r] = sum::zero();
    const auto add = [&](unsigned r, unsigned j, const simd<T, 16>& first, const simd<T, 16>& second) {
      if constexpr (std::is_same_v<T, float>) {  // a pair is not rounded apart from the sum
        dot[r] = multiply_add(input.x[j + 2], second, multiply_add(input.x[j], first, dot[r]));
      } else {
        const simd<T, 16> both = multiply_add(input.x[j + 2], second, input.x[j] * first);
        dot[r] = dot[r] + sum::exact(both.to_float());
      }
    };
    sycl::unroll<4>([&](auto m) {
      for (unsigned r = 0; r < Rows; ++r) {
        const auto here = reader::chunk_pair<T, 2 * m>(codes[r]), behind = reader::chunk_pair<T, 2 * m + 1>(codes[r]);
        add(r, 4 * m, here.first, behind.first);
        add(r, 4 * m + 1, here.second, behind.second);
      }
    });
    for (unsigned r = 0; r < Rows; ++r) {
      total[r] = multiply_add(dot[r], reader::chunk_scale<float>(planes, block[r]), total[r]);
      total[r] = multiply_add(input.sum_x, reader::chunk_offset<float>(planes, block[r]), total[r]);
    }
  }
};

}  // namespace

template <class T>
void qlinear_xpu_kernel_q5_k(const T* input, const uint8_t* weight, T* output, uint64_t, uint64_t state_size,
                             uint64_t output_size, c10::Device device) {
  const origin where{"linear_xpu_kernel", "qlinear_xpu_kernel_q5_k"};
  check_multiple(state_size, 64, where);
  matvec_blocks<pair_product<T>, 8, 32, 2>(where, input, weight, output, state_size, output_size, device);
}

#define INSTANCE(T) \
  template void qlinear_xpu_kernel_q5_k<T>(const T*, const uint8_t*, T*, uint64_t, uint64_t, uint64_t, c10::Device);
CORVANE_FOR_ELEMENT_TYPES(INSTANCE)

}  // namespace corvane
