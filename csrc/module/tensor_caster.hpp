// Tensors across the binding, shown as torch.Tensor in signatures.
//
// The framework's own caster for the same type shows another name, so a source that binds functions includes this one
// and no framework Python header; python_tensor.cpp, on the other side, includes those.
#pragma once

#include <ATen/core/Tensor.h>
#include <pybind11/pybind11.h>

namespace corvane {

bool is_python_tensor(PyObject* object);
at::Tensor from_python(PyObject* tensor);
PyObject* to_python(const at::Tensor& tensor);  // a new reference

}  // namespace corvane

namespace pybind11::detail {

template <>
struct type_caster<at::Tensor> {
  PYBIND11_TYPE_CASTER(at::Tensor, const_name("torch.Tensor"));

  bool load(handle source, bool) {
    if (!corvane::is_python_tensor(source.ptr())) return false;
    value = corvane::from_python(source.ptr());
    return value.defined();
  }

  static handle cast(const at::Tensor& tensor, return_value_policy, handle) { return corvane::to_python(tensor); }
};

}  // namespace pybind11::detail
