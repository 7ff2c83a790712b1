// The Python module corvane: the operator table, in order. Nothing happens at initialisation but its registration; the
// package of the device, which tells the framework's Python side of it, is imported before.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "frame/device_class.hpp"
#include "fused/mlp.hpp"
#include "module/linear_xpu.hpp"
#include "module/signature.hpp"
#include "module/tensor_caster.hpp"
#include "ops/moe.hpp"
#include "rwkv/rwkv.hpp"

PYBIND11_MODULE(corvane, module) {
  using namespace corvane;
  namespace py = pybind11;
  py::module_::import("host_xpu");
  py::options written_here;
  written_here.disable_function_signatures();
  const auto define = [&module](const char* name, auto* function, const char* text) {
    module.def(name, function, docstring(name, function, text).c_str());
  };

  module.attr("__version__") = CORVANE_VERSION;
  module.attr("_device_class") = static_cast<int>(class_at_load.linear);

  define("forward_new", &linear_forward_new, "Linear forward (XPU) new format");
  module.def("forward_qkv", &linear_xpu_qkv,
             docstring("forward_qkv", &linear_xpu_qkv, "Linear forward (XPU) qkv format",
                       {"input", "weight_q", "weight_k", "weight_v", "position_ids", "cache_k", "cache_v",
                        "src_0_qtype", "src_0_vtype", "kv_seq_len", "head_size", "rope_base=10000.0"})
                 .c_str(),
             py::arg("input"), py::arg("weight_q"), py::arg("weight_k"), py::arg("weight_v"), py::arg("position_ids"),
             py::arg("cache_k"), py::arg("cache_v"), py::arg("src_0_qtype"), py::arg("src_0_vtype"),
             py::arg("kv_seq_len"), py::arg("head_size"), py::arg("rope_base") = 10000.0f);
  define("forward_qkv_bias", &linear_xpu_qkv_bias, "Linear forward (XPU) qkv with bias");
  define("forward_qk", &linear_xpu_qk, "Linear forward (XPU) qk format");
  define("dequant", &dequant, "Dequantize weight (XPU)");
  define("bmm", &bmm, "SYCL-based batch matrix multiplication");
  define("mlp_forward_xpu", &mlp_forward_xpu, "fused mlp");
  define("rwkv_linear_attention_v4", &rwkv_linear_attention_v4, "rwkv v4 attention");
  define("rwkv_linear_attention_v5", &rwkv_linear_attention_v5, "rwkv v5 attention");
  define("rwkv_time_shift", &rwkv_time_shift, "rwkv time shift");
  define("dequantize_rows", &dequantize_rows, "Dequantize rows of weight");
  define("get_moe_indexes", &get_moe_indexes, "get moe indexes");
}
