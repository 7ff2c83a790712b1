// The Python module bench_memory: reads, fills and multiplies on all cores: the measures that kernels are held against.
#include <pybind11/pybind11.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "platform/sycl/parallel.hpp"
#include "platform/sycl/simd.hpp"
#include "platform/sycl/systolic.hpp"

namespace py = pybind11;

namespace {

constexpr size_t piece = 1 << 18;  // bytes that a core takes at a time

// Reads `bytes` bytes at `address` once, asking for those `ahead` bytes further if that is not 0; returns a word that
// depends on all of them, so that nothing is left out.
uint64_t read_all(uint64_t address, size_t bytes, size_t ahead) {
  const auto* data = reinterpret_cast<const char*>(address);  // NOLINT(performance-no-int-to-ptr): Python has it as int
  std::atomic<uint64_t> mixed{0};
  host::parallel_for(bytes / 256, piece / 256, [&](size_t begin, size_t end) {
    sycl::i32x16 a{}, b{}, c{}, d{};
    for (size_t i = begin; i < end; ++i) {
      const char* line = data + 256 * i;
      if (ahead != 0) {
        for (size_t b = 0; b < 256; b += 64) sycl::prefetch<sycl::cache_level::first>(line + ahead + b);
      }
      a ^= sycl::load_bytes<sycl::i32x16>(line);
      b ^= sycl::load_bytes<sycl::i32x16>(line + 64);
      c ^= sycl::load_bytes<sycl::i32x16>(line + 128);
      d ^= sycl::load_bytes<sycl::i32x16>(line + 192);
    }
    const sycl::i32x16 all = a ^ b ^ c ^ d;
    uint64_t word = 0;
    for (int i = 0; i < 16; ++i) word = word * 31 + static_cast<uint32_t>(all[i]);
    mixed ^= word;
  });
  return mixed;
}

void fill_all(uint64_t address, size_t bytes) {
  auto* data = reinterpret_cast<char*>(address);  // NOLINT(performance-no-int-to-ptr): Python has it as int
  host::parallel_for(bytes, piece, [&](size_t begin, size_t end) { std::memset(data + begin, 0x3C, end - begin); });
}

// Products of BFloat16 pairs between registers, `multiply_adds` in all; returns a sum that depends on all of them.
float multiply_pairs(uint64_t multiply_adds) {
  constexpr unsigned chains = 12, steps = 4096;  // enough sums under way that no product waits for the one before
  static const auto starts = [] {
    std::array<float, 16 * chains> values;
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i);
    return values;
  }();
  std::atomic<float> total{0};
  host::parallel_for(multiply_adds / (32 * chains * steps), 16, [&](size_t begin, size_t end) {
    const sycl::i32x16 ones = sycl::i32x16{} + 0x3F803F80;
    const auto a = sycl::load_once<sycl::i32x16>(&ones), b = sycl::load_once<sycl::i32x16>(&ones);
    sycl::f32x16 sums[chains];
    for (unsigned c = 0; c < chains; ++c) sums[c] = sycl::load_once<sycl::f32x16>(&starts[16 * c]);
    for (size_t i = begin * steps; i < end * steps; ++i) {
      for (unsigned c = 0; c < chains; ++c) sums[c] = sycl::multiply_add_pairs_flushing(a, b, sums[c]);
    }
    float sum = 0;
    for (unsigned c = 0; c < chains; ++c) sum += sums[c][0];
    total += sum;
  });
  return total;
}

}  // namespace

PYBIND11_MODULE(bench_memory, module) {
  module.doc() = "Plain reading and filling of memory and multiplying, on all cores, for comparison with kernels.";
  module.def(
      "read", &read_all, py::arg("address"), py::arg("bytes"), py::arg("ahead") = 0,
      "read(address: int, bytes: int, ahead: int = 0) -> int\n\nReads the bytes once, with a hint for those `ahead` "
      "bytes further.");
  module.def("fill", &fill_all, "fill(address: int, bytes: int)\n\nWrites the bytes once.");
  module.def("multiply_pairs", &multiply_pairs,
             "multiply_pairs(multiply_adds: int) -> float\n\nMultiplies pairs of BFloat16 and adds them in float.");
  module.def("threads", &host::concurrency, "threads() -> int\n\nCores that the device uses.");
}
