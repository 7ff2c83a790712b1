#include "linear/expansion_path.hpp"

#include <ATen/Functions.h>
#include <ATen/TensorIndexing.h>

#include <algorithm>
#include <string>

#include "formats/registry.hpp"
#include "frame/dispatch.hpp"
#include "ops/dequantize.hpp"
#include "ops/expand_general.hpp"
#include "ops/expand_simd.hpp"

namespace corvane {
namespace {

constexpr origin here{"linear_xpu", "forward_new"};

// fp8_e4m3 has no other expansion than one by threads of four blocks: the last blocks of a weight that is no multiple
// of that are expanded from a copy, filled up with zero bytes.
template <class T>
void expand_fp8_e4m3(const at::Tensor& weight, at::Tensor& expanded) {
  constexpr int64_t step = blocks_per_thread(qtype_fp8_e4m3), codes = 64, scale = sizeof(float);
  const int64_t blocks = expanded.numel() / codes, whole = blocks - blocks % step, rest = blocks - whole;
  const auto* bytes = weight.data_ptr<uint8_t>();
  if (whole != 0) {
    dequantize_fp8_e4m3_kernel<T>(bytes, bytes + codes * blocks, expanded.data_ptr<T>(), whole, weight.device());
  }
  if (rest == 0) return;
  const at::Tensor flat = weight.view(-1);
  at::Tensor copy = at::zeros({step * (codes + scale)}, weight.options());
  copy.narrow(0, 0, codes * rest).copy_(flat.narrow(0, codes * whole, codes * rest));
  copy.narrow(0, codes * step, scale * rest).copy_(flat.narrow(0, codes * blocks + scale * whole, scale * rest));
  at::Tensor values = at::empty({step * codes}, expanded.options());
  const auto* copied = copy.data_ptr<uint8_t>();
  dequantize_fp8_e4m3_kernel<T>(copied, copied + codes * step, values.data_ptr<T>(), step, weight.device());
  expanded.view(-1).narrow(0, codes * whole, codes * rest).copy_(values.narrow(0, 0, codes * rest));
}

// The explicit-SIMD expansion of a format, into a given (output_size, state_size) tensor of float or Half.
void expand_fast(int32_t qtype, const at::Tensor& weight, at::Tensor expanded) {
  switch (qtype) {
    case qtype_q4_0:
      dequantize_q4_0(weight, expanded);
      break;
    case qtype_q4_1:
      dequantize_q4_1(weight, expanded);
      break;
    case qtype_fp4:
      dequantize_fp4(weight, expanded);
      break;
    case qtype_q8_0:
      dequantize_q8_0(weight, expanded);
      break;
    case qtype_fp8_e4m3:
      if (expanded.scalar_type() == at::kFloat) {
        expand_fp8_e4m3<float>(weight, expanded);
      } else {
        expand_fp8_e4m3<Half>(weight, expanded);
      }
      break;
    case qtype_fp8_e5m2:
      dequantize_fp8_e5m2(weight, expanded);
      break;
    case qtype_fp6:
      dequantize_fp6(weight, expanded);
      break;
    case qtype_fp6_k:
      dequantize_fp6_k(weight, expanded);
      break;
    case qtype_q4_k:
      dequantize_q4_k(weight, expanded);
      break;
    case qtype_q6_k:
      dequantize_q6_k(weight, expanded);
      break;
    default:
      fail(here, "no fast expansion for qtype " + std::to_string(qtype));
  }
}

// The format's own kernel of the general family.
template <class T>
void expand_direct(const linear_call& call, const uint8_t* weight, T* expanded, c10::Device device) {
  const auto k = static_cast<uint64_t>(call.state_size), n = static_cast<uint64_t>(call.output_size);
  switch (call.qtype) {
    case qtype_q5_0:
      qlinear_xpu_dequantize_kernel_q5_0<T>(weight, expanded, k, n, device);
      break;
    case qtype_q5_1:
      qlinear_xpu_dequantize_kernel_q5_1<T>(weight, expanded, k, n, device);
      break;
    case qtype_nf4:
      if (call.device_class == 0) {
        qlinear_xpu_dequantize_kernel_nf4_1x4<T, 32>(weight, expanded, k, n, device);
      } else {
        qlinear_xpu_dequantize_kernel_nf4_1x2<T, 16>(weight, expanded, k, n, device);
      }
      break;
    case qtype_nf3:
      qlinear_xpu_dequantize_kernel_nf3_new<T>(weight, expanded, k, n, device);
      break;
    case qtype_iq2_xxs:
      qlinear_xpu_dequantize_kernel_iq2_xxs<T>(weight, expanded, k, n, device);
      break;
    case qtype_q2_k:
      qlinear_xpu_dequantize_kernel_q2_k<T>(weight, expanded, k, n, device);
      break;
    case qtype_iq1_s:
      qlinear_xpu_dequantize_kernel_iq1_s<T>(weight, expanded, k, n, device);
      break;
    case qtype_q6_k:
      qlinear_xpu_dequantize_kernel_q6_k<T>(weight, expanded, k, n, device);
      break;
    case qtype_q4_k:
      qlinear_xpu_dequantize_kernel_q4_k<T>(weight, expanded, k, n, device);
      break;
    case qtype_q5_k:
      qlinear_xpu_dequantize_kernel_q5_k<T>(weight, expanded, k, n, device);
      break;
    default:
      fail(here, "no direct expansion for qtype " + std::to_string(call.qtype));
  }
}

// Tile of tile_rows weight rows from first_row on.
template <class T>
void expand_tile(const linear_call& call, const uint8_t* weight, T* tile, int64_t tile_rows, int64_t first_row,
                 c10::Device device) {
  const auto k = static_cast<uint64_t>(call.state_size), n = static_cast<uint64_t>(call.output_size);
  if (call.qtype == qtype_q4_0) {
    if (call.device_class == 0) {
      qlinear_xpu_tile_dequantize_kernel_q4_0_1x4<T, 32>(weight, tile, k, n, tile_rows, first_row, device);
    } else {
      qlinear_xpu_tile_dequantize_kernel_q4_0_1x2<T, 16>(weight, tile, k, n, tile_rows, first_row, device);
    }
  } else if (call.qtype == qtype_q8_0) {
    qlinear_xpu_tile_dequantize_kernel_q8_0_1x1<T, 16>(weight, tile, k, n, tile_rows, first_row, device);
  } else {
    qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1<T, 16>(weight, tile, k, n, tile_rows, first_row, device);
  }
}

at::Tensor empty_like_weight(const at::Tensor& weight, const linear_call& call, int64_t rows, int64_t columns) {
  return at::empty({rows, columns}, weight.options().dtype(call.dtype));
}

// An expansion writes whole blocks; a remainder would go into the product as it lay in memory.
void check_blocks_fill_the_weight(const linear_call& call) {
  const int64_t elements = call.state_size * call.output_size;
  const int32_t block = registry[call.qtype].block_elements;
  if (elements % block != 0) {
    fail(here, "a weight of " + std::to_string(call.output_size) + " rows of state_size " +
                   std::to_string(call.state_size) + " does not end with a block of " + std::to_string(block) +
                   " elements");
  }
}

}  // namespace

at::Tensor expand_and_multiply(linear_path path, const linear_call& call, const at::Tensor& input,
                               const at::Tensor& weight) {
  if (path == linear_path::general_expansion) {
    const at::Tensor expanded = dequant_body(input, weight, call.qtype);  // of formats whose blocks fill any weight
    return at::linear(input, expanded);
  }
  if (path == linear_path::fast_expansion) {
    check_blocks_fill_the_weight(call);
    at::Tensor expanded = empty_like_weight(weight, call, call.output_size, call.state_size);
    expand_fast(call.qtype, weight, expanded);
    return at::linear(input, expanded);
  }
  at::Tensor expanded = empty_like_weight(weight, call, call.output_size, call.state_size);
  dispatch_floating(call.dtype, linear_dispatch_label, {"linear_xpu_kernel", "forward_new"}, [&](auto tag) {
    using T = typename decltype(tag)::type;
    if (call.state_size % 64 == 0) check_blocks_fill_the_weight(call);  // else the kernel has a word for it
    expand_direct<T>(call, weight.data_ptr<uint8_t>(), expanded.data_ptr<T>(), weight.device());
  });
  return at::linear(input, expanded);
}

at::Tensor multiply_by_tiles(const linear_call& call, const tile_policy& policy, const at::Tensor& input,
                             const at::Tensor& weight) {
  using at::indexing::Slice;
  if (policy.tile_rows == 0) fail(here, "TILE_SIZE must be at least 1, found 0");
  at::Tensor result = empty_like_weight(weight, call, call.rows, call.output_size);
  const auto most_rows = static_cast<int64_t>(std::min<uint64_t>(policy.tile_rows, call.output_size));
  for (int64_t first_row = 0; first_row < call.output_size; first_row += most_rows) {
    const int64_t tile_rows = std::min(most_rows, call.output_size - first_row);
    at::Tensor tile = empty_like_weight(weight, call, tile_rows, call.state_size);
    dispatch_floating(call.dtype, linear_dispatch_label, {"linear_xpu_kernel", "forward_new"}, [&](auto tag) {
      using T = typename decltype(tag)::type;
      expand_tile<T>(call, weight.data_ptr<uint8_t>(), tile.data_ptr<T>(), tile_rows, first_row, weight.device());
    });
    result.index_put_({Slice(), Slice(first_row, first_row + tile_rows)}, at::linear(input, tile));
  }
  return result;
}

}  // namespace corvane
