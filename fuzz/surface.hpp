// The operators as the fuzzer of the surface calls them: one function for each, which reads a call from the input,
// makes it, and compares the answer with the reference.
#pragma once

#include <algorithm>
#include <exception>

#include "fuzz/reference.hpp"
#include "fuzz/tensors.hpp"
#include "fuzz/wrong.hpp"

namespace fuzz {

// What the environment says to forward_new, set for this call.
struct environment {
  bool systolic_allowed = true, valid = true;  // valid: no variable is malformed, and tiles have rows
};

void forward_new(byte_source& source, const environment& set);
void dequant(byte_source& source);
void dequantize_rows(byte_source& source);
void qkv(byte_source& source);
void qkv_bias(byte_source& source);
void qk(byte_source& source);
void mlp(byte_source& source);
void bmm(byte_source& source);
void rwkv_v4(byte_source& source);
void rwkv_v5(byte_source& source);
void time_shift(byte_source& source);
void moe(byte_source& source);

// Makes the call. An exception is an answer, but not to a call with nothing wrong about it; to some it is the only one.
template <class Call>
bool answers(const char* name, bool good, bool has_to_be_refused, const Call& call) {
  try {
    call();
  } catch (const std::exception& refusal) {
    if (good) wrong("%s refused a good call: %s", name, refusal.what());
    return false;
  }
  if (has_to_be_refused) wrong("%s took a tensor in host memory", name);
  return true;
}

// A format's id, now and then one of no format, or no number for one at all.
inline int32_t pick_qtype(byte_source& source) {
  constexpr int32_t formats[] = {2, 3, 6, 7, 8, 10, 11, 15, 16, 19, 21, 23, 24, 26, 27, 28, 29, 30};
  const int32_t usual = source.pick(formats);
  return static_cast<int32_t>(source.count(usual));
}

inline contents pick_contents(byte_source& source) {
  const unsigned b = source.byte();
  return b < 0x98 ? contents::sparse : b < 0xF0 ? contents::dense : contents::any;
}

// Positions to compare: the first, the last, and a spread of those between.
template <class Check>
void for_some(int64_t count, int64_t most, const Check& check) {
  const int64_t step = std::max<int64_t>(1, count / most) | 1;
  for (int64_t i = 0; i < count; i += step) check(i);
  if (count > 0) check(count - 1);
}

// Sizes of a packed weight. For ids of no format, those of another.
struct weight_shape {
  unsigned block_elements = 64, block_bytes = 34;
  int64_t state_size = 0, output_size = 0;

  weight_shape(byte_source& source, int32_t qtype) {
    if (const format* f = format_of(qtype)) block_elements = f->block_elements, block_bytes = f->block_bytes;
    state_size = static_cast<int64_t>(1 + source.below(5)) * block_elements;
    if (source.rarely()) state_size = 8 * source.below(200) + source.below(2);
    const unsigned rows = source.byte();
    output_size = rows % 2 == 0 ? 16 * (1 + rows / 2 % 3) : rows / 2 % 48;
  }
  size_t blocks() const { return static_cast<size_t>(state_size * output_size) / block_elements; }
  // Blocks fill the rows; else the rows that follow from the bytes are fewer than output_size.
  bool fits() const { return state_size > 0 && state_size * output_size % block_elements == 0; }
  bool rows_begin_on_blocks() const { return state_size > 0 && state_size % block_elements == 0; }
};

// A packed weight of a shape, now and then with bytes behind its last block.
inline at::Tensor make_weight(tensor_maker& make, byte_source& source, int32_t qtype, const weight_shape& shape) {
  const bool tail = source.rarely(), any_scales = source.rarely();
  const size_t bytes = shape.blocks() * shape.block_bytes + (tail ? source.below(shape.block_bytes) : 0);
  const uint64_t seed = make.seed();
  at::Tensor weight = make.bytes(static_cast<int64_t>(bytes));
  if (!make.distorted() && !any_scales && format_of(qtype) != nullptr) {
    set_scales(qtype, weight.data_ptr<uint8_t>(), shape.blocks(), seed);
  }
  return weight;
}

}  // namespace fuzz
