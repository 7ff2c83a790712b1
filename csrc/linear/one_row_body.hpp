// The bodies behind launch_one_row(), by the scheme of the format.
#pragma once

#include "linear/matvec.hpp"
#include "linear/matvec_chunks.hpp"
#include "linear/matvec_q8_1.hpp"
#include "linear/one_row.hpp"
#include "linear/row_dots_body.hpp"

namespace corvane {

// How the super-blocks of a format meet their input.
template <int32_t Id, class T>
using chunk_product_of =
    std::conditional_t<Id == qtype_q5_k, pair_product<reader_of<Id>, T>, chunk_product<reader_of<Id>, T>>;

template <int32_t Id, class T>
void launch_one_row(const kernel_launch& how, const one_row_input<Id, T>* input, const uint8_t* weight, T* output,
                    uint64_t state_size, uint64_t output_size, c10::Device device) {
  constexpr row_scheme scheme = support[Id].one_row.scheme;
  const origin where{linear_source, how.name};
  check_multiple(state_size, support[Id].one_row.multiple, where);
  check_whole_blocks(state_size, registry[Id].block_elements, where);
  if constexpr (scheme == row_scheme::units) {
    matvec<reader_of<Id>>(how, input, weight, output, state_size, output_size, device);
  } else if constexpr (scheme == row_scheme::chunks) {
    matvec_chunks<chunk_product_of<Id, T>>(how, input, weight, output, state_size, output_size, device);
  } else {
    matvec_q8_1<dots_of<Id>>(how, input, weight, output, state_size, output_size, device);
  }
}

template <int32_t Id, class T>
row_dots_function<scaled_reader_of<Id>, T> scaled_row_dots() {
  if constexpr (row_reader<scaled_reader_of<Id>>) {
    return &row_dots<scaled_reader_of<Id>, 1, T, fused_rows<T>>;
  } else {
    return nullptr;
  }
}

}  // namespace corvane
