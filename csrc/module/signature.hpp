// Docstrings of bound functions: the signature as the operator table writes it, and the function's text. pybind11's own
// signatures differ from release to release in how they write an int and a list.
#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace corvane {

template <class T>
struct type_name;
template <>
struct type_name<at::Tensor> {
  static std::string text() { return "torch.Tensor"; }
};
template <>
struct type_name<int32_t> {
  static std::string text() { return "int"; }
};
template <>
struct type_name<int64_t> {
  static std::string text() { return "int"; }
};
template <>
struct type_name<float> {
  static std::string text() { return "float"; }
};
template <class T>
struct type_name<std::vector<T>> {
  static std::string text() { return "List[" + type_name<T>::text() + "]"; }
};

// `names`: those of the arguments in order, "=" and the default behind a name that has one; arguments without a name
// are arg0, arg1, ...
template <class Result, class... Arguments>
std::string docstring(const std::string& function, Result (*)(Arguments...), const char* text,
                      const std::vector<std::string>& names = {}) {
  const std::string types[] = {type_name<std::decay_t<Arguments>>::text()...};
  std::string signature;
  for (std::size_t i = 0; i < sizeof...(Arguments); ++i) {
    const std::string name = i < names.size() ? names[i] : "arg" + std::to_string(i);
    const auto equals = name.find('=');
    if (i != 0) signature += ", ";
    signature += name.substr(0, equals) + ": " + types[i];
    if (equals != std::string::npos) signature += " = " + name.substr(equals + 1);
  }
  return function + "(" + signature + ") -> " + type_name<Result>::text() + "\n\n" + text + "\n";
}

}  // namespace corvane
