// The device's operators for a step of one row, for Python. A source of its own: the framework's casters include much.
#include "platform/xpu/row_operators.hpp"

#include <torch/csrc/Dtype.h>
#include <torch/csrc/utils/pybind.h>

#include "platform/python/row_operators.hpp"

namespace py = pybind11;

namespace {

at::ScalarType type_of(const py::object& dtype) {
  TORCH_CHECK_TYPE(THPDtype_Check(dtype.ptr()), "dtype must be a torch.dtype");
  return reinterpret_cast<THPDtype*>(dtype.ptr())->scalar_type;
}

}  // namespace

void define_row_operators(py::module_& module) {
  module.def(
      "rms_norm",
      [](const at::Tensor& x, const at::Tensor& weight, double epsilon, const py::object& dtype,
         const c10::optional<at::Tensor>& delta) { return xpu::rms_norm(x, weight, epsilon, type_of(dtype), delta); },
      py::arg("x"), py::arg("weight"), py::arg("epsilon"), py::arg("dtype"), py::arg("delta") = py::none(),
      "Root-mean-square norm over the last dimension of x, float (..., size), contiguous on XPU, times weight, float\n"
      "(size,); computed in float, rounded to dtype (float, half or bfloat16). A delta of x's shape is added to x "
      "first,\n"
      "in place. RuntimeError: other shapes, types or devices.");
  module.def(
      "row_attention", &xpu::row_attention, py::arg("query"), py::arg("keys"), py::arg("values"),
      "Attention of one position: query (1, heads, 1, head_size), keys and values (1, kv_heads, length, head_size) "
      "with\n"
      "contiguous rows, all float, half or bfloat16, head_size a multiple of 16; heads / kv_heads query heads share a "
      "key\n"
      "and value head. softmax(query key^T / sqrt(head_size)) value in float, rounded once: (1, heads * head_size).\n"
      "RuntimeError: other shapes, types or devices.");
}
