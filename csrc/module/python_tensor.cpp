#include <torch/csrc/autograd/python_variable.h>

namespace corvane {

bool is_python_tensor(PyObject* object) { return THPVariable_Check(object); }
at::Tensor from_python(PyObject* tensor) { return THPVariable_Unpack(tensor); }
PyObject* to_python(const at::Tensor& tensor) { return THPVariable_Wrap(tensor); }

}  // namespace corvane
