#include "ops/expand_simd.hpp"

#include <string>

#include "formats/fp4.hpp"
#include "formats/fp6.hpp"
#include "formats/fp6_k.hpp"
#include "formats/fp8_e4m3.hpp"
#include "formats/fp8_e5m2.hpp"
#include "formats/q4_0.hpp"
#include "formats/q4_1.hpp"
#include "formats/q4_k.hpp"
#include "formats/q6_k.hpp"
#include "formats/q8_0.hpp"
#include "frame/launch.hpp"
#include "ops/expand.hpp"

namespace corvane {
namespace {

template <class Reader,
          class A,  // the arithmetic: Half, or float
          class T>
void expand_threads(const char* kernel, const char* label, const typename Reader::planes& planes, T* output,
                    uint64_t nb, c10::Device device, host_wait wait = host_wait::no) {
  constexpr uint32_t block_elements = registry[Reader::id].block_elements;
  constexpr uint32_t blocks = blocks_per_thread(Reader::id), units = blocks * (block_elements / unit_elements);
  const origin where{"dequantize", kernel};
  if (nb % blocks != 0) {
    fail(where, "nb % SBS == 0 is needed, found nb = " + std::to_string(nb) + " and SBS = " + std::to_string(blocks));
  }
  const bool past_caches = outgrows_caches(output, nb * block_elements);
  launch<1>(
      device, where, {{nb / blocks}, {1}}, sycl::sub_group_size{},
      [=](sycl::group<1> thread) {
        expand_units<Reader, A>(planes, static_cast<uint32_t>(thread.id()) * units, units,
                                output + thread.id() * units * unit_elements, past_caches);
      },
      wait, label);
}

}  // namespace

template <class T>
void dequantize_q4_0_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb, c10::Device device) {
  expand_threads<q4_0_reader, Half>("dequantize_q4_0_kernel", "dequantize q4_0", {codes, scales}, output, nb, device);
}

template <class T>
void dequantize_q4_1_kernel(const uint8_t* codes, const uint8_t* pairs, T* output, uint64_t nb, c10::Device device) {
  expand_threads<q4_1_reader, Half>("dequantize_q4_1_kernel", "dequantize q4_1", {codes, pairs}, output, nb, device);
}

template <class T>
void dequantize_fp4_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb, c10::Device device) {
  expand_threads<fp4_reader, Half>("dequantize_fp4_kernel", "dequantize fp4", {codes, scales}, output, nb, device);
}

template <class T>
void dequantize_q8_0_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb, c10::Device device) {
  expand_threads<q8_0_reader, Half>("dequantize_q8_0_kernel", "dequantize q8_0", {codes, scales}, output, nb, device);
}

template <class T>
void dequantize_fp8_e4m3_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb,
                                c10::Device device) {
  expand_threads<fp8_e4m3_reader, Half>("dequantize_fp8_e4m3_kernel", "dequantize fp8 e4m3", {codes, scales}, output,
                                        nb, device);
}

template <class T>
void dequantize_fp8_e5m2_kernel(const uint8_t* codes, const uint8_t* scales, T* output, uint64_t nb,
                                c10::Device device) {
  // The values are Halfs without any arithmetic: float holds them on their way to T.
  expand_threads<fp8_e5m2_reader, float>("dequantize_fp8_e5m2_kernel", "dequantize fp8 e5m2", {codes, scales}, output,
                                         nb, device);
}

template <class T>
void dequantize_fp6_kernel(const uint8_t* high, const uint8_t* low, const uint8_t* scales, T* output, uint64_t nb,
                           c10::Device device) {
  expand_threads<fp6_reader, Half>("dequantize_fp6_kernel", "dequantize fp6", {low, high, scales}, output, nb, device);
}

template <class T>
void dequantize_fp6_k_kernel(const uint8_t* high, const uint8_t* low, const uint8_t* sub_scales, const uint8_t* scales,
                             T* output, uint64_t nb, c10::Device device) {
  expand_threads<fp6_k_reader, Half>("dequantize_fp6_k_kernel", "dequantize fp6_k", {low, high, sub_scales, scales},
                                     output, nb, device, host_wait::yes);
}

template <class T>
void dequantize_q4_k_kernel(const uint8_t* codes, const uint8_t* sub_scales, const uint8_t* scales, T* output,
                            uint64_t nb, c10::Device device) {
  expand_threads<q4_k_reader, float>("dequantize_q4_k_kernel", "dequantize q4_k", {codes, sub_scales, scales}, output,
                                     nb, device);
}

template <class T>
void dequantize_q6_k_kernel(const uint8_t* high, const uint8_t* low, const uint8_t* sub_scales, const uint8_t* scales,
                            T* output, uint64_t nb, c10::Device device) {
  expand_threads<q6_k_reader, float>("dequantize_q6_k_kernel", "dequantize q6_k", {high, low, sub_scales, scales},
                                     output, nb, device);
}

#define INSTANCES(NAME, ...)                                           \
  template void NAME<Half>(__VA_ARGS__, Half*, uint64_t, c10::Device); \
  template void NAME<float>(__VA_ARGS__, float*, uint64_t, c10::Device);
#define TWO_PLANES const uint8_t*, const uint8_t*
INSTANCES(dequantize_q4_0_kernel, TWO_PLANES)
INSTANCES(dequantize_q4_1_kernel, TWO_PLANES)
INSTANCES(dequantize_fp4_kernel, TWO_PLANES)
INSTANCES(dequantize_q8_0_kernel, TWO_PLANES)
INSTANCES(dequantize_fp8_e4m3_kernel, TWO_PLANES)
INSTANCES(dequantize_fp8_e5m2_kernel, TWO_PLANES)
INSTANCES(dequantize_fp6_kernel, TWO_PLANES, const uint8_t*)
INSTANCES(dequantize_fp6_k_kernel, TWO_PLANES, TWO_PLANES)
INSTANCES(dequantize_q4_k_kernel, TWO_PLANES, const uint8_t*)
INSTANCES(dequantize_q6_k_kernel, TWO_PLANES, TWO_PLANES)

}  // namespace corvane
