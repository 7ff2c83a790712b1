#include "rwkv/rwkv.hpp"

#include <ATen/ops/empty.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "frame/argument.hpp"
#include "rwkv/kernels.hpp"

namespace corvane {
namespace {

constexpr unsigned head_size = 64, attention_group = 32, shift_group = 64;
constexpr unsigned attention_sub_group = 16, shift_sub_group = 32;

// The conditions without which a kernel would read or write beyond a tensor. They come after the operator's own checks.

void check_sizes(const argument& a, at::IntArrayRef needed, const origin& where) {
  if (a.tensor.sizes() == needed) return;
  std::ostringstream text;
  text << a.name << " must have the sizes " << needed << ", found " << a.tensor.sizes();
  fail(where, text.str());
}

void check_dense(const argument& a, at::IntArrayRef needed, const origin& where) {
  check_on_xpu(a, where);
  check_sizes(a, needed, where);
  check_contiguous(a, where);
}

// Receptance and value are read with the strides of key. Their own are not asked: but where key's lead, there has to be
// memory.
void check_reach(const argument& a, const at::Tensor& key, const origin& where) {
  check_on_xpu(a, where);
  check_sizes(a, key.sizes(), where);
  if (key.numel() == 0) return;
  int64_t last = a.tensor.storage_offset();
  for (int64_t axis = 0; axis < key.dim(); ++axis) last += (key.size(axis) - 1) * key.stride(axis);
  if (static_cast<size_t>(last) < a.tensor.storage().nbytes() / a.tensor.itemsize()) return;
  std::ostringstream text;
  text << a.name << " must have the strides of key, " << key.strides() << ", found " << a.tensor.strides();
  fail(where, text.str());
}

// Calls f with a value of the element type.
template <class F>
void with_float_or_half(at::ScalarType type, const F& f) {
  if (type == at::kFloat) {
    f(float{});
  } else if (type == at::kHalf) {
    f(c10::Half{});
  } else {
    throw std::runtime_error("unsupported dtype, only fp32 and fp16 are supported");
  }
}

}  // namespace

at::Tensor rwkv_linear_attention_v4(at::Tensor time_decay, at::Tensor time_first, at::Tensor key, at::Tensor value,
                                    at::Tensor num_state, at::Tensor den_state, at::Tensor max_state) {
  const origin where{"rwkv", "rwkv_linear_attention_v4"};
  check(time_decay.dim() == 1 && time_first.dim() == 1, where, "time_decay.dim() == 1 && time_first.dim() == 1");
  check(key.dim() == 3 && value.dim() == 3, where, "key.dim() == 3 && value.dim() == 3");
  check(num_state.dim() == 2 && den_state.dim() == 2 && max_state.dim() == 2, where,
        "num_state.dim() == 2 && den_state.dim() == 2 && max_state.dim() == 2");
  check(time_decay.scalar_type() == key.scalar_type() && time_first.scalar_type() == key.scalar_type(), where,
        "time_decay.scalar_type() == key.scalar_type() && time_first.scalar_type() == key.scalar_type()");

  const int64_t batch = key.size(0), tokens = key.size(1), hidden_size = key.size(2);
  at::Tensor result = at::empty(key.sizes(), key.options());
  with_float_or_half(key.scalar_type(), [&](auto element) {
    using T = decltype(element);
    auto* num = num_state.data_ptr<float>();
    auto* den = den_state.data_ptr<float>();
    auto* max = max_state.data_ptr<float>();
    check_hidden_size(hidden_size, attention_group, "rwkv_linear_attention_kernel_v4");

    check_dense({"time_decay", time_decay}, {hidden_size}, where);
    check_dense({"time_first", time_first}, {hidden_size}, where);
    check_dense({"key", key}, key.sizes(), where);
    check_dense({"value", value}, key.sizes(), where);
    check_dense({"num_state", num_state}, {batch, hidden_size}, where);
    check_dense({"den_state", den_state}, {batch, hidden_size}, where);
    check_dense({"max_state", max_state}, {batch, hidden_size}, where);
    check_no_gradients({{"time_decay", time_decay},
                        {"time_first", time_first},
                        {"key", key},
                        {"value", value},
                        {"num_state", num_state},
                        {"den_state", den_state},
                        {"max_state", max_state}},
                       where);
    rwkv_linear_attention_kernel_v4<T, attention_group, attention_sub_group>(
        time_decay.data_ptr<T>(), time_first.data_ptr<T>(), key.data_ptr<T>(), value.data_ptr<T>(),
        result.data_ptr<T>(), num, den, max, batch, tokens, hidden_size, key.device());
  });
  return result;
}

at::Tensor rwkv_linear_attention_v5(at::Tensor time_decay, at::Tensor time_first, at::Tensor receptance, at::Tensor key,
                                    at::Tensor value, at::Tensor state) {
  const origin where{"rwkv", "rwkv_linear_attention_v5"};
  check(time_decay.dim() == 2 && time_first.dim() == 2, where, "time_decay.dim() == 2 && time_first.dim() == 2");
  check(receptance.dim() == 4 && key.dim() == 4 && value.dim() == 4 && state.dim() == 4, where,
        "receptance.dim() == 4 && key.dim() == 4 && value.dim() == 4 && state.dim() == 4");
  check(time_decay.is_contiguous() && time_first.is_contiguous() && state.is_contiguous(), where,
        "time_decay.is_contiguous() && time_first.is_contiguous() && state.is_contiguous()");

  const int64_t batch = key.size(0), heads = key.size(1), tokens = key.size(2), head_dim = key.size(3);
  at::Tensor result = at::empty({batch, tokens, heads, head_dim}, key.options());
  check(head_dim == head_size, where, "head_dim == 64");
  const auto* decay = time_decay.data_ptr<float>();
  const auto* first = time_first.data_ptr<float>();
  const auto* k = key.data_ptr<float>();
  const auto* v = value.data_ptr<float>();
  const auto* r = receptance.data_ptr<float>();
  auto* matrices = state.data_ptr<float>();

  check_dense({"time_decay", time_decay}, {heads, head_dim}, where);
  check_dense({"time_first", time_first}, {heads, head_dim}, where);
  check_on_xpu({"key", key}, where);
  if (key.numel() != 0 && key.stride(3) != 1) {
    fail(where, "key must be dense along its last axis, found the stride " + std::to_string(key.stride(3)));
  }
  check_reach({"receptance", receptance}, key, where);
  check_reach({"value", value}, key, where);
  check_dense({"state", state}, {batch, heads, head_dim, head_dim}, where);
  check_no_gradients({{"time_decay", time_decay},
                      {"time_first", time_first},
                      {"receptance", receptance},
                      {"key", key},
                      {"value", value},
                      {"state", state}},
                     where);

  const token_strides strides{static_cast<uint64_t>(key.stride(0)), static_cast<uint64_t>(key.stride(1)),
                              static_cast<uint64_t>(key.stride(2))};
  rwkv_linear_attention_kernel_v5<head_size, attention_group, attention_sub_group>(
      decay, first, r, k, v, strides, result.data_ptr<float>(), matrices, batch, heads, tokens, key.device());
  return result;
}

at::Tensor rwkv_time_shift(at::Tensor hidden, at::Tensor shifted, at::Tensor mix) {
  const origin where{"rwkv", "rwkv_time_shift"};
  check(hidden.dim() == 3 && shifted.dim() == 3 && mix.dim() == 3, where,
        "hidden.dim() == 3 && shifted.dim() == 3 && mix.dim() == 3");
  check(hidden.size(2) == shifted.size(2) && hidden.size(2) == mix.size(2), where,
        "hidden.size(2) == shifted.size(2) && hidden.size(2) == mix.size(2)");
  check(hidden.is_contiguous() && shifted.is_contiguous() && mix.is_contiguous(), where,
        "hidden.is_contiguous() && shifted.is_contiguous() && mix.is_contiguous()");
  check(hidden.scalar_type() == shifted.scalar_type() && hidden.scalar_type() == mix.scalar_type(), where,
        "hidden.scalar_type() == shifted.scalar_type() && hidden.scalar_type() == mix.scalar_type()");

  const int64_t mixes = mix.size(0), batch = hidden.size(0), tokens = hidden.size(1), hidden_size = hidden.size(2);
  at::Tensor result = at::empty({mixes, batch, tokens, hidden_size}, hidden.options());
  with_float_or_half(hidden.scalar_type(), [&](auto element) {
    using T = decltype(element);
    check_hidden_size(hidden_size, shift_group, "rwkv_time_shift_kernel");

    check_on_xpu({"hidden", hidden}, where);
    check_dense({"shifted", shifted}, hidden.sizes(), where);
    check_dense({"mix", mix}, {mixes, 1, hidden_size}, where);
    check_no_gradients({{"hidden", hidden}, {"shifted", shifted}, {"mix", mix}}, where);
    rwkv_time_shift_kernel<T, shift_group, shift_sub_group>(hidden.data_ptr<T>(), shifted.data_ptr<T>(),
                                                            mix.data_ptr<T>(), result.data_ptr<T>(), mixes, batch,
                                                            tokens, hidden_size, hidden.device());
  });
  return result;
}

}  // namespace corvane
