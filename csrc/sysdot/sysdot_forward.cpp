#include "sysdot/sysdot_forward.hpp"

#include <ATen/Functions.h>

#include <cstdio>
#include <cstdlib>

#include "sysdot/sysdot_kernel.hpp"
#include "sysdot/tiles.hpp"

namespace corvane {
namespace {

// Not an exception: the process ends here. Through _Exit, since exit() would run the destructors of a program in the
// middle of its work, worker threads and the interpreter included, any of which may hang or change the status.
[[noreturn]] void end_for_unsupported_dtype() {
  std::fflush(stdout);
  std::fputs("unsupported dtype\n", stderr);
  std::fflush(stderr);
  std::_Exit(2);
}

auto launcher_for(c10::ScalarType input) {
  switch (input) {
    case c10::ScalarType::Float:
      return &launch_sysdot<float, Half>;
    case c10::ScalarType::Half:
      return &launch_sysdot<Half, Half>;
    case c10::ScalarType::BFloat16:
      return &launch_sysdot<BFloat16, BFloat16>;
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
  const auto run = launcher_for(input.scalar_type());
  const auto k = static_cast<uint64_t>(state_size), n = static_cast<uint64_t>(output_size);
  const sysdot_call call{input.data_ptr(),
                         codes,
                         scale_plane(qtype, codes, k, n),
                         output.data_ptr(),
                         static_cast<uint64_t>(rows),
                         k,
                         n,
                         qtype};
  run(call, (rows + tile_rows - 1) % tile_rows + 1, wide ? 16 : 8, weight.device());
  return output;
}

}  // namespace corvane
