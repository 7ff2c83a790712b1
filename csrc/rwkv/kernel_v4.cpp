// RWKV attention, version 4. Channels share nothing: the lanes of a value are neighbouring channels, and each walks the
// tokens with its numerator, its denominator and the largest exponent so far in registers.
#include "frame/launch.hpp"
#include "platform/sycl/math.hpp"
#include "rwkv/kernels.hpp"

namespace corvane {
namespace {

using sycl::f32x16;
using sycl::simd;

template <class T>
CORVANE_INLINE f32x16 load_widened(const T* from) {
  return simd<T, 16>::load(from).r[0];
}

struct factors {
  f32x16 old, fresh;  // of what was summed so far, and of the token at hand
};

// exp(a - top) and exp(b - top), top being the larger of a and b. One of the two differences is zero, hence one
// exponential, that of their sum, serves both. A difference of infinities is not a number, and both factors become so.
CORVANE_INLINE factors exponentials(f32x16 a, f32x16 b, f32x16 top) {
  const f32x16 below_a = a - top, below_b = b - top;
  const f32x16 e = sycl::exp(below_a + below_b);
  const f32x16 one = sycl::splat(1.0f);
  return {below_a == 0.0f ? one : e, below_b == 0.0f ? one : e};
}

}  // namespace

template <class T, unsigned GS, unsigned SG_SIZE>
void rwkv_linear_attention_kernel_v4(const T* time_decay, const T* time_first, const T* key, const T* value, T* result,
                                     float* num_state, float* den_state, float* max_state, uint64_t batch,
                                     uint64_t tokens, uint64_t hidden_size, c10::Device device) {
  constexpr unsigned parts = GS / 16;
  constexpr uint64_t ahead = 8;  // tokens; a token's row begins on another page, where no hardware prefetch follows
  const origin where{"rwkv", "rwkv_linear_attention_kernel_v4"};

  launch<2>(device, where, {{batch, hidden_size}, {1, GS}}, sycl::sub_group_size{SG_SIZE}, [=](sycl::group<2> group) {
    const uint64_t channel = group.id(1) * GS;
    const uint64_t of_state = group.id(0) * hidden_size + channel;
    f32x16 w[parts], u[parts], num[parts], den[parts], top[parts];
    for (unsigned i = 0; i < parts; ++i) {
      w[i] = load_widened(time_decay + channel + 16 * i);
      u[i] = load_widened(time_first + channel + 16 * i);
      num[i] = load_widened(num_state + of_state + 16 * i);
      den[i] = load_widened(den_state + of_state + 16 * i);
      top[i] = load_widened(max_state + of_state + 16 * i);
    }

    uint64_t at = group.id(0) * tokens * hidden_size + channel;
    for (uint64_t s = 0; s < tokens; ++s, at += hidden_size) {
      for (unsigned i = 0; i < parts; ++i) {
        sycl::prefetch(key + at + ahead * hidden_size + 16 * i);
        sycl::prefetch(value + at + ahead * hidden_size + 16 * i);
        const f32x16 k = load_widened(key + at + 16 * i);
        const f32x16 v = load_widened(value + at + 16 * i);

        // The output counts the token with `time_first` added, and the state from before it.
        const f32x16 bonus = k + u[i];
        const factors output = exponentials(top[i], bonus, sycl::fmax(top[i], bonus));
        const f32x16 blend = (output.old * num[i] + output.fresh * v) / (output.old * den[i] + output.fresh);
        simd<T, 16>::from_float(blend).store(result + at + 16 * i);

        const f32x16 decayed = top[i] + w[i];
        top[i] = sycl::fmax(decayed, k);
        const factors next = exponentials(decayed, k, top[i]);
        num[i] = next.old * num[i] + next.fresh * v;
        den[i] = next.old * den[i] + next.fresh;
      }
    }

    for (unsigned i = 0; i < parts; ++i) {
      simd<float, 16>::exact(num[i]).store(num_state + of_state + 16 * i);
      simd<float, 16>::exact(den[i]).store(den_state + of_state + 16 * i);
      simd<float, 16>::exact(top[i]).store(max_state + of_state + 16 * i);
    }
  });
}

#define INSTANCE(T)                                                                                                    \
  template void rwkv_linear_attention_kernel_v4<T, 32, 16>(const T*, const T*, const T*, const T*, T*, float*, float*, \
                                                           float*, uint64_t, uint64_t, uint64_t, c10::Device);
INSTANCE(float)
INSTANCE(c10::Half)

}  // namespace corvane
