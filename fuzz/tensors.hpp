// Tensors of a fuzzer's choice: on the device and as asked, or with something wrong about them.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <vector>

#include "fuzz/byte_source.hpp"

namespace fuzz {

constexpr at::ScalarType floating_types[] = {at::kFloat, at::kHalf, at::kBFloat16, at::kDouble};

enum class contents {
  sparse,  // at most four elements of a row other than zero: the error of one element shows
  dense,   // multiples of 1/16 from -1 to 1
  any,     // any bits: infinities, not-a-numbers
};

// Makes the tensors of one call. Two bytes say what is wrong with up to two of them: half of all bytes mean nothing,
// and any one fault of any one tensor is one byte away.
class tensor_maker {
 public:
  tensor_maker(byte_source& source, uint64_t seed)
      : source_(source), random_(seed), mishaps_{source.byte(), source.byte()} {}

  at::Tensor floats(const std::vector<int64_t>& sizes, at::ScalarType dtype, contents c);
  at::Tensor bytes(int64_t size);  // random ones
  // 64-bit or 32-bit integers from 0 to below - 1, now and then others.
  at::Tensor integers(const std::vector<int64_t>& sizes, at::ScalarType dtype, int64_t below);

  // Whether a tensor is other than it was asked to be: the call may be refused.
  bool distorted() const { return distorted_; }
  // Whether a tensor is in host memory, where no operator on the device may take it.
  bool on_cpu() const { return on_cpu_; }
  // Whether there are contents that no answer is known for.
  bool unusual() const { return unusual_; }
  uint64_t seed() { return random_.next(); }

 private:
  unsigned next_mishap();  // of the tensor to make
  at::Tensor make(std::vector<int64_t> sizes, at::ScalarType dtype);

  byte_source& source_;
  random_bits random_;
  uint8_t mishaps_[2];
  unsigned made_ = 0;  // tensors so far
  bool distorted_ = false, on_cpu_ = false, unusual_ = false;
};

double value_at(const at::Tensor& tensor, int64_t index);  // of the elements as they lie in memory
std::vector<double> values_of(const at::Tensor& tensor);   // of a contiguous tensor

// The bytes of a storage, to see afterwards what was written.
std::vector<uint8_t> bytes_of(const at::Tensor& tensor);

}  // namespace fuzz
