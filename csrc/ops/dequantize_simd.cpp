// The explicit-SIMD expansions on tensors: plane pointers from the reader, instance from the output's dtype.
#include <stdexcept>
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
#include "frame/check.hpp"
#include "ops/dequantize.hpp"
#include "ops/expand_simd.hpp"

namespace corvane {
namespace {

// Calls kernel(planes, output, nb) with an output of float or Half.
template <class Reader, class Kernel>
at::Tensor expand_into(const char* wrapper, const at::Tensor& weight, at::Tensor output, const Kernel& kernel) {
  const origin where{"dequantize", wrapper};
  constexpr format_info format = registry[Reader::id];
  const uint64_t nb = static_cast<uint64_t>(output.size(0) * output.size(1)) / format.block_elements;
  if (nb * format.block_bytes > static_cast<uint64_t>(weight.size(0))) {
    fail(where, "weight must hold " + std::to_string(nb * format.block_bytes) + " bytes, found " +
                    std::to_string(weight.size(0)));
  }
  const auto planes = Reader::locate(weight.data_ptr<uint8_t>(), output.size(1), output.size(0));
  if (output.scalar_type() == c10::ScalarType::Float) {
    kernel(planes, output.data_ptr<float>(), nb);
  } else if (output.scalar_type() == c10::ScalarType::Half) {
    kernel(planes, output.data_ptr<Half>(), nb);
  } else {
    throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
  }
  return output;
}

}  // namespace

at::Tensor dequantize_q4_0(const at::Tensor& weight, at::Tensor output) {
  return expand_into<q4_0_reader>("dequantize_q4_0", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
    dequantize_q4_0_kernel(planes.codes, planes.scales, to, nb, weight.device());
  });
}

at::Tensor dequantize_q4_1(const at::Tensor& weight, at::Tensor output) {
  return expand_into<q4_1_reader>("dequantize_q4_1", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
    dequantize_q4_1_kernel(planes.codes, planes.pairs, to, nb, weight.device());
  });
}

at::Tensor dequantize_fp4(const at::Tensor& weight, at::Tensor output) {
  return expand_into<fp4_reader>("dequantize_fp4", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
    dequantize_fp4_kernel(planes.codes, planes.scales, to, nb, weight.device());
  });
}

at::Tensor dequantize_q8_0(const at::Tensor& weight, at::Tensor output) {
  return expand_into<q8_0_reader>("dequantize_q8_0", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
    dequantize_q8_0_kernel(planes.codes, planes.scales, to, nb, weight.device());
  });
}

at::Tensor dequantize_fp8_e4m3(const at::Tensor& weight, at::Tensor output) {
  return expand_into<fp8_e4m3_reader>(
      "dequantize_fp8_e4m3", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
        dequantize_fp8_e4m3_kernel(planes.codes, planes.scales, to, nb, weight.device());
      });
}

at::Tensor dequantize_fp8_e5m2(const at::Tensor& weight, at::Tensor output) {
  return expand_into<fp8_e5m2_reader>(
      "dequantize_fp8_e5m2", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
        dequantize_fp8_e5m2_kernel(planes.codes, planes.scales, to, nb, weight.device());
      });
}

at::Tensor dequantize_fp6(const at::Tensor& weight, at::Tensor output) {
  return expand_into<fp6_reader>("dequantize_fp6", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
    dequantize_fp6_kernel(planes.high, planes.low, planes.scales, to, nb, weight.device());
  });
}

at::Tensor dequantize_fp6_k(const at::Tensor& weight, at::Tensor output) {
  return expand_into<fp6_k_reader>("dequantize_fp6_k", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
    dequantize_fp6_k_kernel(planes.high, planes.low, planes.sub_scales, planes.scales, to, nb, weight.device());
  });
}

at::Tensor dequantize_q4_k(const at::Tensor& weight, at::Tensor output) {
  return expand_into<q4_k_reader>("dequantize_q4_k", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
    dequantize_q4_k_kernel(planes.codes, planes.sub_scales, planes.scales, to, nb, weight.device());
  });
}

at::Tensor dequantize_q6_k(const at::Tensor& weight, at::Tensor output) {
  return expand_into<q6_k_reader>("dequantize_q6_k", weight, output, [&](const auto& planes, auto* to, uint64_t nb) {
    dequantize_q6_k_kernel(planes.high, planes.low, planes.sub_scales, planes.scales, to, nb, weight.device());
  });
}

}  // namespace corvane
