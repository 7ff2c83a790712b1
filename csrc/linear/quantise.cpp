// The quantiser of 8-bit activations.
#include <algorithm>
#include <cstring>

#include "formats/q8_1.hpp"
#include "frame/launch.hpp"
#include "linear/kernels.hpp"

namespace corvane {
namespace {

using sycl::f32x16;
using sycl::i32x16;

// Lanes of x / d as the quantiser rounds them: in float, but in double for a row of double.
template <class T>
f32x16 quotient(const simd<T, 16>& x, float d) {
  if constexpr (std::is_same_v<T, double>) {
    return sycl::narrow_to_float(x.r[0] / static_cast<double>(d), x.r[1] / static_cast<double>(d));
  } else {
    return x.to_float() / d;
  }
}

// Nearest integer, halves away from zero. Beyond a signed byte, as a d that has lost its low bits can lead to, the
// nearest one; 0 for a not-a-number, whose block has d = not-a-number.
i32x16 rounded(f32x16 q) {
  q = q > 127.0f ? f32x16{} + 127.0f : q;
  q = q < -128.0f ? f32x16{} - 128.0f : q;
  q = q == q ? q : f32x16{};
  const i32x16 whole = __builtin_convertvector(q, i32x16);
  const f32x16 rest = q - sycl::to_float(whole);
  return whole - (i32x16)(rest >= 0.5f) + (i32x16)(rest <= -0.5f);  // a comparison that holds is -1
}

template <class T>
void quantize_block(const T* input, block_q8_1* block) {
  constexpr float over_127 = 0.007874015718698502f;  // the float nearest 1/127
  const simd<T, 16> x[2] = {simd<T, 16>::load(input), simd<T, 16>::load(input + 16)};
  const f32x16 low = x[0].to_float(), high = x[1].to_float();
  // What an exchange over the block's 32 items gives: their sum and the largest magnitude. Magnitudes compare as
  // integers, a not-a-number above all others, so that one in the input shows in the output.
  const float s = sum_tree(simd<float, 16>::exact(low + high));
  const i32x16 a = sycl::as_int(low) & 0x7FFFFFFF, b = sycl::as_int(high) & 0x7FFFFFFF;
  const i32x16 larger = a > b ? a : b;
  int32_t largest = 0;
  for (int t = 0; t < 16; ++t) largest = std::max(largest, larger[t]);
  const float d = sycl::as_float(sycl::splat(largest))[0] * over_127;

  for (int h = 0; h < 2; ++h) {
    const i32x16 codes = d == 0 ? i32x16{} : rounded(quotient(x[h], d));
    using s8x16 = int8_t __attribute__((vector_size(16)));
    const s8x16 bytes = __builtin_convertvector(codes, s8x16);
    std::memcpy(block->qs + 16 * h, &bytes, sizeof(bytes));
  }
  block->d = static_cast<Half>(d);
  block->s = static_cast<Half>(s);
}

}  // namespace

template <class T>
void quantize_xpu_kernel_q8_1(const T* input, uint8_t* activations, uint64_t rows, uint64_t state_size,
                              c10::Device device) {
  constexpr origin where{linear_source, "quantize_xpu_kernel_q8_1"};
  check(rows == 1, where, "only one row is quantised");
  check_multiple(state_size, 256, where);
  auto* blocks = reinterpret_cast<block_q8_1*>(activations);
  launch<1>(device, where, {{state_size}, {256}}, sycl::sub_group_size{32}, [=](sycl::group<1> group) {
    for (uint64_t b = 8 * group.id(); b < 8 * group.id() + 8; ++b) quantize_block(input + 32 * b, blocks + b);
  });
}

#define INSTANCE(T) template void quantize_xpu_kernel_q8_1<T>(const T*, uint8_t*, uint64_t, uint64_t, c10::Device);
CORVANE_FOR_ELEMENT_TYPES(INSTANCE)

}  // namespace corvane
