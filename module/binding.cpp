// The Python module corvane: the operator table, in order. Nothing happens at initialisation but its registration.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "module/linear_xpu.hpp"
#include "module/tensor_caster.hpp"

PYBIND11_MODULE(corvane, module) {
  using namespace corvane;
  module.def("forward_new", &linear_forward_new, "Linear forward (XPU) new format");
}
