// The Python module corvane: the operator table, in order. Nothing happens at initialisation but its registration; the
// package of the device, which tells the framework's Python side of it, is imported before.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "fused/mlp.hpp"
#include "module/linear_xpu.hpp"
#include "module/tensor_caster.hpp"
#include "ops/moe.hpp"
#include "rwkv/rwkv.hpp"

PYBIND11_MODULE(corvane, module) {
  using namespace corvane;
  namespace py = pybind11;
  py::module_::import("host_xpu");
  module.def("forward_new", &linear_forward_new, "Linear forward (XPU) new format");
  module.def("forward_qkv", &linear_xpu_qkv, "Linear forward (XPU) qkv format", py::arg("input"), py::arg("weight_q"),
             py::arg("weight_k"), py::arg("weight_v"), py::arg("position_ids"), py::arg("cache_k"), py::arg("cache_v"),
             py::arg("src_0_qtype"), py::arg("src_0_vtype"), py::arg("kv_seq_len"), py::arg("head_size"),
             py::arg("rope_base") = 10000.0f);
  module.def("forward_qkv_bias", &linear_xpu_qkv_bias, "Linear forward (XPU) qkv with bias");
  module.def("forward_qk", &linear_xpu_qk, "Linear forward (XPU) qk format");
  module.def("dequant", &dequant, "Dequantize weight (XPU)");
  module.def("bmm", &bmm, "SYCL-based batch matrix multiplication");
  module.def("mlp_forward_xpu", &mlp_forward_xpu, "fused mlp");
  module.def("rwkv_linear_attention_v4", &rwkv_linear_attention_v4, "rwkv v4 attention");
  module.def("rwkv_linear_attention_v5", &rwkv_linear_attention_v5, "rwkv v5 attention");
  module.def("rwkv_time_shift", &rwkv_time_shift, "rwkv time shift");
  module.def("dequantize_rows", &dequantize_rows, "Dequantize rows of weight");
  module.def("get_moe_indexes", &get_moe_indexes, "get moe indexes");
}
