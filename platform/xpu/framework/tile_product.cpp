// Tiles by the framework's own product on the CPU, which calls the libraries that it was built with.
#include "platform/xpu/tile_product.hpp"

#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/ops/addmm.h>
#include <ATen/ops/from_blob.h>
#include <ATen/ops/mm.h>
#include <c10/core/InferenceMode.h>

#include "platform/sycl/vector_types.hpp"

namespace xpu {
namespace {

template <class T>
at::Tensor matrix(const T* data, std::size_t rows, std::size_t columns, std::size_t stride) {
  return at::from_blob(const_cast<T*>(data), {static_cast<int64_t>(rows), static_cast<int64_t>(columns)},
                       {static_cast<int64_t>(stride), 1}, c10::CppTypeToScalarType<T>::value);
}

}  // namespace

template <class T>
void tile_product(const product_tile<T>& tile) {
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  const at::Tensor x = matrix(tile.x, tile.rows, tile.depth, tile.depth);
  const at::Tensor w = matrix(tile.w, tile.columns, tile.depth, tile.w_stride).t();
  at::Tensor y = matrix(tile.y, tile.rows, tile.columns, tile.y_stride);
  if (tile.bias == nullptr) {
    at::mm_out(y, x, w);
  } else {
    at::addmm_out(y, matrix(tile.bias, 1, tile.columns, tile.columns), x, w);
  }
}

template void tile_product(const product_tile<float>&);
template void tile_product(const product_tile<sycl::BFloat16>&);

bool has_bfloat16_product() { return true; }

}  // namespace xpu
