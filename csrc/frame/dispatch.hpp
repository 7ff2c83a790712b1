// The framework's floating-point dispatch: a type tag for each dtype that kernels are instantiated for.
#pragma once

#include <c10/core/ScalarType.h>

#include <string>

#include "frame/check.hpp"

namespace corvane {

template <class T>
struct type_tag {
  using type = T;
};

// Calls f(type_tag<T>) for Half, float, double and BFloat16; any other dtype fails as the framework's dispatch does,
// under `label`, on behalf of `where`.
template <class F>
auto dispatch_floating(c10::ScalarType dtype, const char* label, const origin& where, const F& f) {
  switch (dtype) {
    case c10::ScalarType::Half:
      return f(type_tag<c10::Half>{});
    case c10::ScalarType::Float:
      return f(type_tag<float>{});
    case c10::ScalarType::Double:
      return f(type_tag<double>{});
    case c10::ScalarType::BFloat16:
      return f(type_tag<c10::BFloat16>{});
    default:
      fail(where, '"' + std::string(label) + "\" not implemented for '" + c10::toString(dtype) + "'");
  }
}

constexpr const char* linear_dispatch_label = "qlinear_forward_xpu";

}  // namespace corvane
