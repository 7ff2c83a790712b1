// The readers of all formats, each held against what its support row says that it is used for.
#pragma once

#include "formats/fp4.hpp"
#include "formats/fp6.hpp"
#include "formats/fp6_k.hpp"
#include "formats/fp8_e4m3.hpp"
#include "formats/fp8_e5m2.hpp"
#include "formats/iq1_s.hpp"
#include "formats/iq2_xxs.hpp"
#include "formats/nf3.hpp"
#include "formats/nf4.hpp"
#include "formats/q2_k.hpp"
#include "formats/q4_0.hpp"
#include "formats/q4_1.hpp"
#include "formats/q4_k.hpp"
#include "formats/q5_0.hpp"
#include "formats/q5_1.hpp"
#include "formats/q5_k.hpp"
#include "formats/q6_k.hpp"
#include "formats/q8_0.hpp"
#include "formats/support.hpp"

namespace corvane {
namespace detail {

template <int32_t Id>
constexpr bool reads_what_is_supported() {
  if constexpr (!is_format(Id)) {
    return true;
  } else {
    using reader = reader_of<Id>;
    using scaled = scaled_reader_of<Id>;
    constexpr const format_support& offers = support[Id];
    static_assert(unit_reader<reader> && reader::id == Id && scaled::id == Id);
    static_assert(offers.one_row.scheme != row_scheme::units || row_reader<reader>, "one row, by units");
    static_assert(offers.one_row.scheme != row_scheme::chunks || chunk_reader<reader>, "one row, by chunks");
    static_assert(!offers.systolic || systolic_reader<scaled>, "systolic path");
    static_assert(offers.small_batch.kernel == nullptr || (row_reader<reader> && !reader::has_offset), "small batch");
    constexpr bool fused =
        offers.qkv.kernel.name != nullptr || offers.qk.kernel.name != nullptr || offers.mlp.kernel.name != nullptr;
    constexpr bool eight_bit = offers.one_row.scheme == row_scheme::eight_bit;
    static_assert(!fused || eight_bit || (row_reader<scaled> && !scaled::has_offset), "fused operators");
    return true;
  }
}

template <std::size_t... Id>
constexpr bool all_read_what_is_supported(std::index_sequence<Id...>) {
  return (reads_what_is_supported<static_cast<int32_t>(Id)>() && ...);
}
static_assert(all_read_what_is_supported(std::make_index_sequence<32>{}));

}  // namespace detail
}  // namespace corvane
