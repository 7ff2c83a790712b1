#include "linear/launchers.hpp"

#include <ATen/Functions.h>
#include <ATen/TensorIndexing.h>
#include <ATen/record_function.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "frame/dispatch.hpp"
#include "linear/quantised_row.hpp"
#include "linear/small_batch.hpp"
#include "ops/expansion.hpp"
#include "platform/xpu/expanded_product.hpp"
#include "sysdot/sysdot_forward.hpp"

namespace corvane {
namespace {

constexpr origin here{linear_source, "forward_new"};

at::Tensor empty_result(const linear_call& call, const at::Tensor& weight, int64_t rows, int64_t columns) {
  return at::empty({rows, columns}, weight.options().dtype(call.dtype));
}

// f(type_tag<T>) for the call's element type.
template <class F>
void with_element_type(const linear_call& call, const F& f) {
  dispatch_floating(call.dtype, linear_dispatch_label, here, f);
}

at::Tensor multiply_one_row(const linear_call& call, const at::Tensor& input, const at::Tensor& weight) {
  const sized_kernel& kernel = support[call.qtype].one_row.kernel;
  const kernel_launch how{kernel.name, kernel.sizes(call.device_class)};
  const auto k = static_cast<uint64_t>(call.state_size), n = static_cast<uint64_t>(call.output_size);
  at::Tensor activations;
  if (takes_eight_bit_input(support[call.qtype])) {
    with_element_type(call, [&](auto tag) { activations = quantised_row<typename decltype(tag)::type>(input, k); });
  }
  at::Tensor output = empty_result(call, weight, 1, call.output_size);
  with_element_type(call, [&](auto tag) {
    using T = typename decltype(tag)::type;
    with_format<[](const format_support&) { return true; }>(call.qtype, [&](auto id) {
      const auto run = [&](const auto* row) {
        launch_one_row<id, T>(how, row, weight.data_ptr<uint8_t>(), output.data_ptr<T>(), k, n, weight.device());
      };
      if constexpr (takes_eight_bit_input(support[id])) {
        run(activations.data_ptr<uint8_t>());
      } else {
        run(input.data_ptr<T>());
      }
    });
  });
  return output;
}

at::Tensor multiply_small_batch(const linear_call& call, const at::Tensor& input, const at::Tensor& weight) {
  // Its sizes are those of one row, two weight rows to a group.
  const kernel_launch how{support[call.qtype].small_batch.kernel, sized_kernel{}.sizes(call.device_class)};
  at::Tensor output = empty_result(call, weight, call.rows, call.output_size);
  with_element_type(call, [&](auto tag) {
    using T = typename decltype(tag)::type;
    launch_small_batch(call.qtype, how, input.data_ptr<T>(), weight.data_ptr<uint8_t>(), output.data_ptr<T>(),
                       call.rows, call.state_size, call.output_size, weight.device());
  });
  return output;
}

// An expansion writes whole blocks; a remainder would go into the product as it lay in memory.
void check_blocks_fill_the_weight(const linear_call& call) {
  const int32_t block = registry[call.qtype].block_elements;
  if (call.state_size * call.output_size % block != 0) {
    fail(here, "a weight of " + std::to_string(call.output_size) + " rows of state_size " +
                   std::to_string(call.state_size) + " does not end with a block of " + std::to_string(block) +
                   " elements");
  }
}

packed_weight packed(const linear_call& call, const at::Tensor& weight) {
  return {weight.data_ptr<uint8_t>(), static_cast<uint64_t>(call.state_size), static_cast<uint64_t>(call.output_size),
          weight.device()};
}

// Runs the expansion of a path to `to`.
template <class T>
void expand(linear_path path, const linear_call& call, const at::Tensor& weight, const expansion_target<T>& to) {
  // Of the general family a kernel has its own word for other sizes of a row.
  const bool explicit_simd = path == linear_path::explicit_simd_expansion;
  if (explicit_simd || call.state_size % 64 == 0) check_blocks_fill_the_weight(call);
  if (!explicit_simd) {
    expand_general(call.qtype, call.device_class, packed(call, weight), to);
  } else if constexpr (has_explicit_simd<T>) {
    expand_explicit_simd(call.qtype, packed(call, weight), to);
  }
}

// Whether nobody sees the expanded weight: then its rows can be multiplied as they are expanded, without ever lying in
// memory. A profiler would miss the product; a row that does not begin on a block cannot be expanded by itself; double
// has no product of its own.
bool expands_on_the_way(const linear_call& call) {
  return call.rows != 0 && call.output_size != 0 && call.dtype != c10::ScalarType::Double &&
         call.state_size % registry[call.qtype].block_elements == 0 && !at::hasCallbacks();
}

at::Tensor expand_and_multiply(linear_path path, const linear_call& call, const at::Tensor& input,
                               const at::Tensor& weight) {
  const bool on_the_way = expands_on_the_way(call);
  at::Tensor result;
  with_element_type(call, [&](auto tag) {
    using T = typename decltype(tag)::type;
    if (on_the_way) {
      if constexpr (!std::is_same_v<T, double>) {
        result = empty_result(call, weight, call.rows, call.output_size);
        const xpu::expanded_product_arguments<T> product{
            input.data_ptr<T>(), result.data_ptr<T>(), static_cast<std::size_t>(call.rows),
            static_cast<std::size_t>(call.output_size), static_cast<std::size_t>(call.state_size)};
        expand<T>(path, call, weight,
                  {.consume = [&](const row_expander<T>& rows) { xpu::expanded_product<T>(product, rows); }});
      }
      return;
    }
    at::Tensor expanded = empty_result(call, weight, call.output_size, call.state_size);
    expand<T>(path, call, weight, {expanded.data_ptr<T>()});
    result = at::linear(input, expanded);
  });
  return result;
}

at::Tensor multiply_by_tiles(uint64_t most_rows, const linear_call& call, const at::Tensor& input,
                             const at::Tensor& weight) {
  using at::indexing::Slice;
  if (most_rows == 0) fail(here, "TILE_SIZE must be at least 1, found 0");
  at::Tensor result = empty_result(call, weight, call.rows, call.output_size);
  const auto step = static_cast<int64_t>(std::min<uint64_t>(most_rows, call.output_size));
  for (int64_t first_row = 0; first_row < call.output_size; first_row += step) {
    const int64_t rows = std::min(step, call.output_size - first_row);
    at::Tensor tile = empty_result(call, weight, rows, call.state_size);
    with_element_type(call, [&](auto tag) {
      using T = typename decltype(tag)::type;
      expand_tile(call.qtype, call.device_class, packed(call, weight), first_row, rows, tile.data_ptr<T>());
    });
    result.index_put_({Slice(), Slice(first_row, first_row + rows)}, at::linear(input, tile));
  }
  return result;
}

}  // namespace

at::Tensor run_path(const path_choice& choice, const linear_call& call, const at::Tensor& input,
                    const at::Tensor& weight) {
  switch (choice.path) {
    case linear_path::systolic:
      return sysdot_forward(input, weight, call.rows, call.state_size, call.output_size, call.qtype,
                            /*wide=*/call.device_class == 0);
    case linear_path::matrix_vector:
      return multiply_one_row(call, input, weight);
    case linear_path::small_batch:
      return multiply_small_batch(call, input, weight);
    case linear_path::tile:
      return multiply_by_tiles(choice.tile_rows, call, input, weight);
    case linear_path::explicit_simd_expansion:
    case linear_path::general_expansion:
      return expand_and_multiply(choice.path, call, input, weight);
    case linear_path::refused:
      break;
  }
  throw std::runtime_error("Unsupported input dtype, only fp32 and fp16 are supported");
}

}  // namespace corvane
