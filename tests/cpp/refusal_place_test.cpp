// The place that a framework check failure names: function and source stem. Python sees the text alone.
#include <ATen/ops/zeros.h>
#include <gtest/gtest.h>

#include "ops/bmm.hpp"
#include "ops/moe.hpp"
#include "rwkv/rwkv.hpp"

namespace {

using namespace corvane;

template <class Call>
void expect_place(const Call& call, const std::string& place) {
  try {
    call();
    FAIL() << "nothing was refused";
  } catch (const c10::Error& error) {
    EXPECT_NE(error.backtrace().find("raised from " + place + ":0"), std::string::npos) << error.what();
  }
}

const at::Tensor matrix = at::zeros({2, 2}), channels = at::zeros(48), tokens = at::zeros({1, 3, 48});
const at::Tensor state = at::zeros({1, 48}), heads = at::zeros({1, 1, 3, 32}), head_state = at::zeros({1, 1, 64, 64});

TEST(refusal_place, is_the_operator) {
  expect_place([] { rwkv_time_shift(matrix, tokens, tokens); }, "rwkv_time_shift at rwkv.cpp");
  expect_place([] { rwkv_linear_attention_v4(matrix, channels, tokens, tokens, state, state, state); },
               "rwkv_linear_attention_v4 at rwkv.cpp");
  expect_place([] { rwkv_linear_attention_v5(matrix, matrix, heads, heads, heads, head_state); },
               "rwkv_linear_attention_v5 at rwkv.cpp");
  expect_place([] { bmm_xpu(matrix, matrix, matrix); }, "bmm_xpu at bmm_xpu_kernel.cpp");
  expect_place([] { get_moe_indexes(channels.to(at::kInt), 4); }, "get_moe_indexes at moe.cpp");
}

TEST(refusal_place, is_the_launcher_for_the_hidden_size) {
  expect_place([] { rwkv_linear_attention_v4(channels, channels, tokens, tokens, state, state, state); },
               "rwkv_linear_attention_kernel_v4 at rwkv.cpp");
  expect_place([] { rwkv_time_shift(tokens, tokens, tokens); }, "rwkv_time_shift_kernel at rwkv.cpp");
}

}  // namespace
