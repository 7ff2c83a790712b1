#include "fuzz/tensors.hpp"

#include <ATen/Functions.h>

#include <algorithm>
#include <iterator>

namespace fuzz {
namespace {

const c10::Device xpu(c10::DeviceType::XPU);

void set_value(void* data, at::ScalarType dtype, int64_t index, double value) {
  switch (dtype) {
    case at::kHalf:
      static_cast<c10::Half*>(data)[index] = static_cast<float>(value);
      break;
    case at::kBFloat16:
      static_cast<c10::BFloat16*>(data)[index] = static_cast<float>(value);
      break;
    case at::kDouble:
      static_cast<double*>(data)[index] = value;
      break;
    default:
      static_cast<float*>(data)[index] = static_cast<float>(value);
  }
}

bool is_floating(const at::Tensor& t) { return at::isFloatingType(t.scalar_type()); }

// Every element that the storage holds, whether the tensor shows it or not.
int64_t stored(const at::Tensor& t) { return static_cast<int64_t>(t.storage().nbytes() / t.itemsize()); }

}  // namespace

unsigned tensor_maker::next_mishap() {
  constexpr unsigned none = 0x80, kinds = 10;  // a byte below means that nothing is wrong
  unsigned kind = kinds;
  for (const uint8_t mishap : mishaps_) {
    if (mishap >= none && (mishap - none) / kinds == made_) kind = (mishap - none) % kinds;
  }
  ++made_;
  return kind;
}

at::Tensor tensor_maker::make(std::vector<int64_t> sizes, at::ScalarType dtype) {
  const auto options = at::TensorOptions(xpu).dtype(dtype);
  const auto elements = [&] {
    int64_t n = 1;
    for (const int64_t size : sizes) n *= size;
    return n;
  };
  const unsigned kind = next_mishap();
  if (kind >= 10) return at::empty(sizes, options);
  if (kind >= 8) {  // as good a tensor, but not at the start of its storage, nor aligned
    return at::empty({elements() + 1}, options).narrow(0, 1, elements()).view(sizes);
  }
  distorted_ = true;
  const auto at = static_cast<ptrdiff_t>(random_.next() % sizes.size());
  const size_t dimension = static_cast<size_t>(at);
  switch (kind) {
    case 0:
      on_cpu_ = true;
      return at::empty(sizes, options.device(at::kCPU));
    case 1: {
      constexpr at::ScalarType others[] = {at::kByte, at::kFloat, at::kHalf, at::kBFloat16, at::kDouble,
                                           at::kInt,  at::kLong,  at::kBool, at::kChar,     at::kComplexFloat};
      return at::empty(sizes, options.dtype(others[random_.next() % std::size(others)]));
    }
    case 2:  // a dimension more
      sizes.insert(sizes.begin() + at, static_cast<int64_t>(random_.next() % 3));
      break;
    case 3:  // one less, down to none
      sizes.erase(sizes.begin() + at);
      break;
    case 4:
      sizes[dimension] = 0;
      break;
    case 5:
      sizes[dimension] = std::max<int64_t>(0, sizes[dimension] + (random_.next() % 2 != 0 ? 1 : -1));
      break;
    case 6:  // a size that nothing could hold, of a tensor without elements
      sizes[dimension] = int64_t{1} << (20 + random_.next() % 42);
      if (sizes.size() == 1) sizes.push_back(0);
      sizes[(dimension + 1) % sizes.size()] = 0;
      break;
    default: {  // not contiguous
      std::vector<int64_t> strides(sizes.size());
      int64_t stride = 2;
      for (size_t i = sizes.size(); i-- != 0;) {
        strides[i] = stride;
        stride *= std::max<int64_t>(1, sizes[i]);
      }
      return at::empty({stride}, options).as_strided(sizes, strides);
    }
  }
  return at::empty(sizes, options);
}

at::Tensor tensor_maker::floats(const std::vector<int64_t>& sizes, at::ScalarType dtype, contents c) {
  at::Tensor t = make(sizes, dtype);
  auto* data = t.storage().data();
  const int64_t n = stored(t);
  if (c == contents::any || !is_floating(t)) {
    unusual_ |= c == contents::any;
    for (size_t i = 0; i < t.storage().nbytes(); ++i)
      static_cast<uint8_t*>(data)[i] = static_cast<uint8_t>(random_.next());
    return t;
  }
  const auto sixteenths = [&] { return (static_cast<double>(random_.next() % 33) - 16) / 16; };
  for (int64_t i = 0; i < n; ++i) set_value(data, t.scalar_type(), i, c == contents::dense ? sixteenths() : 0.0);
  const int64_t run = sizes.empty() ? 0 : sizes.back();
  for (int64_t first = 0; c == contents::sparse && run > 0 && first + run <= n; first += run) {
    for (int i = 0; i < 4; ++i) {
      const auto at = static_cast<int64_t>(random_.next() % static_cast<uint64_t>(run));
      set_value(data, t.scalar_type(), first + at, sixteenths());
    }
  }
  return t;
}

at::Tensor tensor_maker::bytes(int64_t size) {
  at::Tensor t = make({size}, at::kByte);
  auto* data = static_cast<uint8_t*>(t.storage().data());
  for (size_t i = 0; i < t.storage().nbytes(); ++i) data[i] = static_cast<uint8_t>(random_.next());
  return t;
}

at::Tensor tensor_maker::integers(const std::vector<int64_t>& sizes, at::ScalarType dtype, int64_t below) {
  at::Tensor t = make(sizes, dtype);
  const auto number = [&] {
    return below > 0 && !source_.rarely() ? static_cast<int64_t>(random_.next() % static_cast<uint64_t>(below))
                                          : source_.count(below);
  };
  for (int64_t i = 0, n = stored(t); i < n; ++i) {
    const int64_t value = number();
    distorted_ |= value < 0 || value >= below;
    if (t.scalar_type() == at::kLong) static_cast<int64_t*>(t.storage().data())[i] = value;
    if (t.scalar_type() == at::kInt) static_cast<int32_t*>(t.storage().data())[i] = static_cast<int32_t>(value);
  }
  return t;
}

double value_at(const at::Tensor& t, int64_t index) {
  switch (t.scalar_type()) {
    case at::kHalf:
      return static_cast<double>(t.data_ptr<c10::Half>()[index]);
    case at::kBFloat16:
      return static_cast<double>(t.data_ptr<c10::BFloat16>()[index]);
    case at::kDouble:
      return t.data_ptr<double>()[index];
    default:
      return t.data_ptr<float>()[index];
  }
}

std::vector<double> values_of(const at::Tensor& t) {
  std::vector<double> all(static_cast<size_t>(t.numel()));
  for (size_t i = 0; i < all.size(); ++i) all[i] = value_at(t, static_cast<int64_t>(i));
  return all;
}

std::vector<uint8_t> bytes_of(const at::Tensor& t) {
  const auto* data = static_cast<const uint8_t*>(t.storage().data());
  return {data, data + t.storage().nbytes()};
}

}  // namespace fuzz
