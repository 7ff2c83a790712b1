#include "fused/projections.hpp"

#include <ATen/ops/empty.h>

#include <array>
#include <cmath>
#include <string>

#include "frame/device_class.hpp"
#include "frame/dispatch.hpp"
#include "fused/cache.hpp"
#include "fused/qkv_kernels.hpp"
#include "linear/quantised_row.hpp"

namespace corvane {
namespace {

constexpr const char* weight_names[] = {"weight_q", "weight_k", "weight_v"};
constexpr const char* bias_names[] = {"bias_q", "bias_k", "bias_v"};
constexpr const char* cache_names[] = {"", "cache_k", "cache_v"};

// One call of an operator with `Matrices` weights: its arguments, and what follows from them.
template <unsigned Matrices>
struct projection_call {
  at::Tensor input;
  std::array<at::Tensor, Matrices> weights;
  std::array<int32_t, Matrices> qtypes;  // by which the weights' sizes are read
  std::vector<at::Tensor> biases;        // one for each weight, or none
  at::Tensor position_ids;
  std::array<at::Tensor, Matrices> caches;  // from 1 on: the query has none
  int64_t kv_seq_len, head_size;
  float rope_base;

  int64_t state_size = 0;
  std::array<int64_t, Matrices> rows{};
  std::array<at::Tensor, Matrices> outputs{};  // the query, and the longer views of the caches
};

template <unsigned Matrices>
constexpr const projection_support& projection_of(const format_support& s) {
  return Matrices == 3 ? s.qkv : s.qk;
}

// Everything below divides by these sizes or builds on them.
template <unsigned Matrices>
void derive_sizes(projection_call<Matrices>& call, const origin& where) {
  const at::Tensor& input = call.input;
  if (input.dim() < 2) fail(where, "input must have two dimensions, found " + std::to_string(input.dim()));
  check(input.size(0) == 1, where, "batch_size == 1");
  call.state_size = input.size(1);
  if (input.numel() < call.state_size) fail(where, "input must not have an empty dimension behind the second");
  if (call.head_size < 2 || call.head_size % 2 != 0) {
    fail(where, "head_size must be even and at least 2, found " + std::to_string(call.head_size));
  }
  for (unsigned m = 0; m < Matrices; ++m) {
    const argument weight{weight_names[m], call.weights[m]};
    check_packed(weight, where);
    call.rows[m] = derive_output_size(weight.tensor.size(0), call.state_size, call.qtypes[m], where);
    if (call.rows[m] % call.head_size != 0) {
      fail(where, "head_size " + std::to_string(call.head_size) + " must divide the rows of " + weight.name +
                      ", found " + std::to_string(call.rows[m]));
    }
  }
}

void check_bias(const argument& bias, int64_t rows, c10::Device device, const origin& where) {
  check_device(bias, device, where);
  if (bias.tensor.numel() != rows || !bias.tensor.is_contiguous()) {
    fail(where, std::string(bias.name) + " must be " + std::to_string(rows) + " contiguous elements, found " +
                    std::to_string(bias.tensor.numel()) + (bias.tensor.is_contiguous() ? "" : ", not contiguous"));
  }
}

// What the kernel takes for granted of the memory that it reads and writes.
template <unsigned Matrices>
void check_memory(const projection_call<Matrices>& call, int32_t id, bool with_bias, const origin& where) {
  const int32_t own_value_format = projection_of<Matrices>(support[id]).value_format;
  const int32_t value_id = own_value_format != 0 ? own_value_format : id;
  check_whole_blocks(call.state_size, registry[id].block_elements, where);
  const c10::Device device = call.weights[0].device();
  check_device({"input", call.input}, device, where);
  check_device({"position_ids", call.position_ids}, device, where);
  if (call.position_ids.numel() == 0) fail(where, "position_ids must hold the token's position, found no element");
  for (unsigned m = 0; m < Matrices; ++m) {
    const argument weight{weight_names[m], call.weights[m]};
    check_device(weight, device, where);
    check_holds(weight, call.rows[m], call.state_size, m == value_matrix ? value_id : id, where);
    if (with_bias) check_bias({bias_names[m], call.biases[m]}, call.rows[m], device, where);
    if (m == 0) continue;
    const argument cache{cache_names[m], call.caches[m]};
    check_device(cache, device, where);
    check_room(cache, call.rows[m] / call.head_size, call.head_size, call.kv_seq_len, where);
  }
  if (Matrices > value_matrix && call.caches[value_matrix].is_alias_of(call.caches[1]) &&
      call.caches[value_matrix].data_ptr() == call.caches[1].data_ptr()) {
    fail(where, "cache_k and cache_v must not be the same memory");
  }
}

template <class T, unsigned Matrices>
projection_arguments<T, Matrices> arguments_of(const projection_call<Matrices>& call, bool with_bias) {
  projection_arguments<T, Matrices> a{};
  for (unsigned m = 0; m < Matrices; ++m) {
    a.matrices[m].output = call.outputs[m].template data_ptr<T>();
    a.matrices[m].weight = call.weights[m].template data_ptr<uint8_t>();
    a.matrices[m].bias = with_bias ? call.biases[m].template data_ptr<T>() : nullptr;
    a.matrices[m].rows = static_cast<uint32_t>(call.rows[m]);
    a.matrices[m].head_stride = static_cast<uint64_t>(m == 0 ? call.head_size : call.caches[m].stride(1));
    a.matrices[m].base_offset =
        m == 0 ? 0 : static_cast<uint64_t>(call.caches[m].stride(2)) * static_cast<uint64_t>(call.kv_seq_len);
  }
  a.state_size = static_cast<uint64_t>(call.state_size);
  a.head_size = static_cast<uint32_t>(call.head_size);
  a.position_ids = call.position_ids.template data_ptr<int64_t>();
  a.theta_scale = std::pow(call.rope_base, static_cast<float>(-2.0 / static_cast<double>(call.head_size)));
  return a;
}

// Nothing is launched, and no cache touched, before every check has passed.
template <unsigned Matrices>
void run_projection(const projection_call<Matrices>& call) {
  const int32_t qtype = call.qtypes[0];
  const projection_support& offers = projection_of<Matrices>(support[qtype]);
  const kernel_launch how{offers.kernel.name, offers.kernel.sizes(class_at_load.projections)};
  const origin where{projection_source, how.name};
  const bool with_bias = offers.adds_bias && !call.biases.empty();
  dispatch_floating(call.input.scalar_type(), how.name, where, [&](auto tag) {
    using T = typename decltype(tag)::type;
    check_multiple(static_cast<uint64_t>(call.state_size), offers.multiple, where);
    const auto arguments = arguments_of<T>(call, with_bias);
    check_memory(call, qtype, with_bias, where);
    const at::Tensor row =
        takes_eight_bit_input(support[qtype]) ? quantised_row<T>(call.input, arguments.state_size) : call.input;
    project_row(qtype, how, row.data_ptr(), arguments, call.input.device());
  });
}

template <unsigned Matrices>
std::vector<at::Tensor> project(projection_call<Matrices> call, const origin& where) {
  const int32_t qtype = call.qtypes[0];
  check_format(qtype, where);
  if (!projection_of<Matrices>(support[qtype]).kernel.on(class_at_load.projections)) {
    fail(where, "no kernel for qtype " + std::to_string(qtype) + " (" + registry[qtype].name + ")");
  }
  derive_sizes(call, where);
  for (unsigned m = 1; m < Matrices; ++m) call.outputs[m] = longer_view({cache_names[m], call.caches[m]}, where);
  call.outputs[0] = at::empty({1, call.rows[0] / call.head_size, 1, call.head_size},
                              at::TensorOptions().device(call.weights[0].device()).dtype(call.input.scalar_type()));
  run_projection(call);
  return {call.outputs.begin(), call.outputs.end()};
}

}  // namespace

std::vector<at::Tensor> forward_qkv_body(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k,
                                         at::Tensor weight_v, std::vector<at::Tensor> biases, at::Tensor position_ids,
                                         at::Tensor cache_k, at::Tensor cache_v, int32_t src_0_qtype,
                                         int32_t src_0_vtype, int64_t kv_seq_len, int64_t head_size, float rope_base) {
  const origin where{projection_source, biases.empty() ? "forward_qkv" : "forward_qkv_bias"};
  return project<3>({input,
                     {weight_q, weight_k, weight_v},
                     {src_0_qtype, src_0_qtype, src_0_vtype},
                     biases,
                     position_ids,
                     {at::Tensor(), cache_k, cache_v},
                     kv_seq_len,
                     head_size,
                     rope_base},
                    where);
}

std::vector<at::Tensor> forward_qk_body(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k,
                                        at::Tensor position_ids, at::Tensor cache_k, int32_t src_0_qtype,
                                        int64_t kv_seq_len, int64_t head_size, float rope_base) {
  return project<2>({input,
                     {weight_q, weight_k},
                     {src_0_qtype, src_0_qtype},
                     {},
                     position_ids,
                     {at::Tensor(), cache_k},
                     kv_seq_len,
                     head_size,
                     rope_base},
                    {projection_source, "forward_qk"});
}

}  // namespace corvane
