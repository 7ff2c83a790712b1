// Expansion of packed weights into dense matrices, on pointers and sizes: the general family, by work-groups, of a
// whole weight or a tile of its rows, and the explicit-SIMD family, by threads of some blocks.
//
// What kernels a format has, how they are cut and which of them the host waits for stands in its support row. Outputs
// are (rows, state_size) of T; of a weight whose elements do not fill its last super-block the rest is left as it is.
#pragma once

#include <c10/core/Device.h>

#include <cstdint>
#include <functional>

#include "formats/reader.hpp"
#include "formats/support.hpp"

namespace corvane {

struct packed_weight {
  const uint8_t* bytes;
  uint64_t state_size, output_size;
  c10::Device device;
};

// Element types that the explicit-SIMD family expands to.
template <class T>
constexpr bool has_explicit_simd = std::is_same_v<T, Half> || std::is_same_v<T, float>;

// Writes rows of an expanded weight: (first_row, rows, to).
template <class T>
using row_expander = std::function<void(std::size_t, std::size_t, T*)>;

// What becomes of an expansion: a matrix of T, or, where the host does not need the matrix itself, whatever is done
// with its rows while they are in a cache.
template <class T>
struct expansion_target {
  T* output = nullptr;
  std::function<void(const row_expander<T>&)> consume = {};  // in place of `output`
};

// The kernels of the general family refuse a state_size that is no multiple of 64. For formats that have one.
template <class T>
void expand_general(int32_t qtype, uint8_t device_class, const packed_weight& weight, const expansion_target<T>& to);

// `rows` rows from first_row on. For formats with a tile rule.
template <class T>
void expand_tile(int32_t qtype, uint8_t device_class, const packed_weight& weight, uint64_t first_row, uint64_t rows,
                 T* output);

// T: float or Half. Refuses a number of blocks that is no multiple of what a thread expands, unless the format allows
// it.
template <class T>
void expand_explicit_simd(int32_t qtype, const packed_weight& weight, const expansion_target<T>& to);

// Expands units `unit` to `unit` + `units` - 1 into 64 * units values; of super-block formats only whole blocks. Past
// the caches: for outputs that outgrow them.
template <class Out>
using unit_expander = void (*)(const packed_weight& weight, uint32_t unit, uint32_t units, Out* output,
                               bool past_caches);

// Those of a format and output type, null where it has none. Compiled in one source a format, from instances.cpp.in.
template <int32_t Id, class Out>
unit_expander<Out> general_expander();
template <int32_t Id, class Out>
unit_expander<Out> explicit_simd_expander();

}  // namespace corvane
