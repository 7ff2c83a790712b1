// The 8-bit activation path: the quantiser, and the one-row kernels of iq2_xxs, iq1_s and q2_k.
#include <algorithm>

#include "frame/launch.hpp"
#include "linear/q8_1_dots.hpp"
#include "linear/row_sums.hpp"

namespace corvane {
namespace {

using sycl::f32x16;
using sycl::i32x16;

constexpr char source[] = "linear_xpu_kernel";

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
    for (int t = 0; t < 16; ++t) block->qs[16 * h + t] = static_cast<int8_t>(codes[t]);
  }
  block->d = static_cast<Half>(d);
  block->s = static_cast<Half>(s);
}

// The frame of the dot kernels: 32 work-items to a row on a device, 16 lanes here. A lane sums its dot products in
// float; its sum becomes a Sum before the lanes are added.
template <class Dots, unsigned RowsPerGroup, class Sum, class T>
void dot_rows(const char* kernel_name, const uint8_t* weight, const uint8_t* activations, T* output,
              uint64_t state_size, uint64_t output_size, c10::Device device, const sycl::nd_range<2>& range,
              sycl::sub_group_size sub_group) {
  check_whole_blocks(state_size, detail::block_elements, {source, kernel_name});
  const auto blocks = static_cast<uint32_t>(state_size / detail::block_elements);
  staged_row<Dots> row(blocks);
  const auto prepare = [&row, activations] { row.fill(activations); };
  const auto kernel = [=, input = row.data()](const sycl::group_block<2>& groups) {
    const uint64_t first_row = groups.first(0) * RowsPerGroup;
    simd<Sum, 16> sums[tree_rows];
    for (unsigned r = 0; r < tree_rows; ++r) {
      f32x16 sum{};
      // A row past the end skips its arithmetic.
      if (first_row + r < output_size) {
        const uint8_t* at = weight + (first_row + r) * blocks * Dots::block_bytes;
        for_each_dot<Dots>(at, input, blocks, [&](f32x16 dots) { sum += dots; });
      }
      sums[r] = simd<Sum, 16>::from_float(sum);
    }
    store_rows(sum_trees(sums), output, first_row, output_size);
  };
  launch<2>(
      device, {source, kernel_name}, range, sub_group,
      sycl::prepared_kernel{prepare, sycl::block_kernel<2, decltype(kernel)>{{tree_rows / RowsPerGroup, 1}, kernel}},
      host_wait::yes);
}

}  // namespace

template <class T>
void quantize_xpu_kernel_q8_1(const T* input, uint8_t* activations, uint64_t rows, uint64_t state_size,
                              c10::Device device) {
  constexpr origin where{source, "quantize_xpu_kernel_q8_1"};
  check(rows == 1, where, "only one row is quantised");
  check_multiple(state_size, 256, where);
  auto* blocks = reinterpret_cast<block_q8_1*>(activations);
  launch<1>(device, where, {{state_size}, {256}}, sycl::sub_group_size{32}, [=](sycl::group<1> group) {
    for (uint64_t b = 8 * group.id(); b < 8 * group.id() + 8; ++b) quantize_block(input + 32 * b, blocks + b);
  });
}

template <class T>
void qlinear_xpu_kernel_iq2_xxs_q8_1(const uint8_t* weight, const uint8_t* activations, T* output, uint64_t,
                                     uint64_t state_size, uint64_t output_size, c10::Device device) {
  const char* name = "qlinear_xpu_kernel_iq2_xxs_q8_1";
  const uint64_t items = (output_size * 16 + 16) / 32 * 32;
  dot_rows<iq2_xxs_dots, 2, T>(name, weight, activations, output, state_size, output_size, device,
                               {{items, 2}, {32, 2}}, sycl::sub_group_size{32});
}

template <class T>
void qlinear_xpu_kernel_iq1_s_q8_1(const uint8_t* weight, const uint8_t* activations, T* output, uint64_t,
                                   uint64_t state_size, uint64_t output_size, c10::Device device) {
  const char* name = "qlinear_xpu_kernel_iq1_s_q8_1";
  dot_rows<iq1_s_dots, 1, float>(name, weight, activations, output, state_size, output_size, device,
                                 {{output_size * 32, 1}, {32, 1}}, sycl::sub_group_size{32});
}

template <class T>
void qlinear_xpu_kernel_q2_k_q8_1(const uint8_t* weight, const uint8_t* activations, T* output, uint64_t,
                                  uint64_t state_size, uint64_t output_size, c10::Device device) {
  const char* name = "qlinear_xpu_kernel_q2_k_q8_1";
  dot_rows<q2_k_dots, 1, T>(name, weight, activations, output, state_size, output_size, device,
                            {{output_size * 32, 1}, {32, 1}}, sycl::sub_group_size{});
}

#define DOT_INSTANCE(KERNEL, T) \
  template void KERNEL<T>(const uint8_t*, const uint8_t*, T*, uint64_t, uint64_t, uint64_t, c10::Device);
#define INSTANCES(T)                                                                              \
  template void quantize_xpu_kernel_q8_1<T>(const T*, uint8_t*, uint64_t, uint64_t, c10::Device); \
  DOT_INSTANCE(qlinear_xpu_kernel_iq2_xxs_q8_1, T)                                                \
  DOT_INSTANCE(qlinear_xpu_kernel_iq1_s_q8_1, T)                                                  \
  DOT_INSTANCE(qlinear_xpu_kernel_q2_k_q8_1, T)
CORVANE_FOR_ELEMENT_TYPES(INSTANCES)

}  // namespace corvane
