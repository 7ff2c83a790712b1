// The explicit-SIMD expansions on tensors: plane pointers from the number of blocks, instance from the output's dtype.
#include <stdexcept>
#include <string>

#include "module/frame/check.hpp"
#include "ops/dequantize.hpp"
#include "ops/expand_simd.hpp"

namespace corvane {
namespace {

// Calls kernel(planes, output, nb) with T = float or Half. planes(bytes) is where the plane begins that lies behind
// `bytes` bytes of each block.
template <class Kernel>
at::Tensor expand_into(int32_t qtype, const char* wrapper, const at::Tensor& weight, at::Tensor output,
                       const Kernel& kernel) {
  const origin where{"dequantize", wrapper};
  const format_info& format = registry[qtype];
  const uint64_t nb = static_cast<uint64_t>(output.size(0) * output.size(1)) / format.block_elements;
  if (nb * format.block_bytes > static_cast<uint64_t>(weight.size(0))) {
    fail(where, "weight must hold " + std::to_string(nb * format.block_bytes) + " bytes, found " +
                    std::to_string(weight.size(0)));
  }
  const auto* bytes = weight.data_ptr<uint8_t>();
  const auto plane = [&](uint64_t bytes_before) { return bytes + bytes_before * nb; };
  if (output.scalar_type() == c10::ScalarType::Float) {
    kernel(plane, output.data_ptr<float>(), nb);
  } else if (output.scalar_type() == c10::ScalarType::Half) {
    kernel(plane, output.data_ptr<Half>(), nb);
  } else {
    throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
  }
  return output;
}

}  // namespace

at::Tensor dequantize_q4_0(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_q4_0, "dequantize_q4_0", weight, output, [&](const auto& plane, auto* to, uint64_t nb) {
    dequantize_q4_0_kernel(plane(0), plane(32), to, nb, weight.device());
  });
}

at::Tensor dequantize_q4_1(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_q4_1, "dequantize_q4_1", weight, output, [&](const auto& plane, auto* to, uint64_t nb) {
    dequantize_q4_1_kernel(plane(0), plane(32), to, nb, weight.device());
  });
}

at::Tensor dequantize_fp4(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_fp4, "dequantize_fp4", weight, output, [&](const auto& plane, auto* to, uint64_t nb) {
    dequantize_fp4_kernel(plane(0), plane(32), to, nb, weight.device());
  });
}

at::Tensor dequantize_q8_0(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_q8_0, "dequantize_q8_0", weight, output, [&](const auto& plane, auto* to, uint64_t nb) {
    dequantize_q8_0_kernel(plane(0), plane(64), to, nb, weight.device());
  });
}

at::Tensor dequantize_fp8_e4m3(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_fp8_e4m3, "dequantize_fp8_e4m3", weight, output,
                     [&](const auto& plane, auto* to, uint64_t nb) {
                       dequantize_fp8_e4m3_kernel(plane(0), plane(64), to, nb, weight.device());
                     });
}

at::Tensor dequantize_fp8_e5m2(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_fp8_e5m2, "dequantize_fp8_e5m2", weight, output,
                     [&](const auto& plane, auto* to, uint64_t nb) {
                       dequantize_fp8_e5m2_kernel(plane(0), plane(64), to, nb, weight.device());
                     });
}

at::Tensor dequantize_fp6(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_fp6, "dequantize_fp6", weight, output, [&](const auto& plane, auto* to, uint64_t nb) {
    dequantize_fp6_kernel(plane(32), plane(0), plane(48), to, nb, weight.device());
  });
}

at::Tensor dequantize_fp6_k(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_fp6_k, "dequantize_fp6_k", weight, output, [&](const auto& plane, auto* to, uint64_t nb) {
    dequantize_fp6_k_kernel(plane(128), plane(0), plane(192), plane(208), to, nb, weight.device());
  });
}

at::Tensor dequantize_q4_k(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_q4_k, "dequantize_q4_k", weight, output, [&](const auto& plane, auto* to, uint64_t nb) {
    dequantize_q4_k_kernel(plane(0), plane(128), plane(144), to, nb, weight.device());
  });
}

at::Tensor dequantize_q6_k(const at::Tensor& weight, at::Tensor output) {
  return expand_into(qtype_q6_k, "dequantize_q6_k", weight, output, [&](const auto& plane, auto* to, uint64_t nb) {
    dequantize_q6_k_kernel(plane(0), plane(64), plane(192), plane(208), to, nb, weight.device());
  });
}

}  // namespace corvane
