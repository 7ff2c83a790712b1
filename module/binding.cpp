// The Python module corvane: the operator table, in order. Nothing happens at initialisation but its registration.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "module/linear_xpu.hpp"
#include "module/tensor_caster.hpp"
#include "ops/moe.hpp"
#include "rwkv/rwkv.hpp"

PYBIND11_MODULE(corvane, module) {
  using namespace corvane;
  module.def("forward_new", &linear_forward_new, "Linear forward (XPU) new format");
  module.def("dequant", &dequant, "Dequantize weight (XPU)");
  module.def("bmm", &bmm, "SYCL-based batch matrix multiplication");
  module.def("rwkv_linear_attention_v4", &rwkv_linear_attention_v4, "rwkv v4 attention");
  module.def("rwkv_linear_attention_v5", &rwkv_linear_attention_v5, "rwkv v5 attention");
  module.def("rwkv_time_shift", &rwkv_time_shift, "rwkv time shift");
  module.def("dequantize_rows", &dequantize_rows, "Dequantize rows of weight");
  module.def("get_moe_indexes", &get_moe_indexes, "get moe indexes");
}
