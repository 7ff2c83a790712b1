// Dispatch of the systolic path: six tables of launchers, by input type, column width and rows of the last tile.
#include "sysdot/sysdot_forward.hpp"

#include <ATen/Functions.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "sysdot/sysdot_kernel.hpp"
#include "sysdot/tiles.hpp"

namespace corvane {
namespace {

using launcher = decltype(&sysdot_forward_kernel<float, Half, float, Half, 8, 16, 8>);
using launcher_table = std::array<launcher, 8>;  // by rows modulo 8, which are the rows of the last tile; 0: all 8

template <class IT, class WT, unsigned N, std::size_t... Rest>
constexpr launcher_table make_table(std::index_sequence<Rest...>) {
  return {sysdot_forward_kernel < IT, WT, float, WT, Rest == 0 ? 8 : Rest, N, 8 > ...};
}

template <class IT, class WT, unsigned N>
constexpr launcher_table launchers = make_table<IT, WT, N>(std::make_index_sequence<8>{});

// Not an exception: the process ends here. Through _Exit, since exit() would run the destructors of a program in the
// middle of its work, worker threads and the interpreter included, any of which may hang or change the status.
[[noreturn]] void end_for_unsupported_dtype() {
  std::fflush(stdout);
  std::fputs("unsupported dtype\n", stderr);
  std::fflush(stderr);
  std::_Exit(2);
}

const launcher_table& launchers_for(c10::ScalarType input, bool wide) {
  switch (input) {
    case c10::ScalarType::Float:
      return wide ? launchers<float, Half, 16> : launchers<float, Half, 8>;
    case c10::ScalarType::Half:
      return wide ? launchers<Half, Half, 16> : launchers<Half, Half, 8>;
    case c10::ScalarType::BFloat16:
      return wide ? launchers<BFloat16, BFloat16, 16> : launchers<BFloat16, BFloat16, 8>;
    default:
      end_for_unsupported_dtype();
  }
}

}  // namespace

at::Tensor sysdot_forward(at::Tensor input, at::Tensor weight, int64_t rows, int64_t state_size, int64_t output_size,
                          int32_t qtype, bool wide) {
  at::Tensor output =
      at::empty({rows, output_size}, c10::TensorOptions().device(weight.device()).dtype(input.scalar_type()));
  const auto* codes = weight.data_ptr<uint8_t>();
  const uint8_t* scales = codes + output_size * state_size / QK * code_bytes(qtype);
  const launcher_table& table = launchers_for(input.scalar_type(), wide);
  table[rows % 8](input.data_ptr(), codes, scales, output.data_ptr(), rows, state_size, output_size, qtype,
                  weight.device());
  return output;
}

}  // namespace corvane
