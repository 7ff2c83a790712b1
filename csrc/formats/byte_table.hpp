// Registers of 64 bytes that are made when the program is compiled: where multishift finds the bits of each byte, or
// what a look-up finds.
#pragma once

#include <cstdint>

#include "platform/sycl/simd.hpp"

namespace corvane::detail {

struct alignas(64) byte_table {
  uint8_t byte[64];
  CORVANE_INLINE sycl::u8x64 value() const { return sycl::load_bytes<sycl::u8x64>(byte); }
};

// Byte t is entry(t).
template <class Entry>
constexpr byte_table table_of_bytes(const Entry& entry) {
  byte_table b{};
  for (unsigned t = 0; t < 64; ++t) b.byte[t] = static_cast<uint8_t>(entry(t));
  return b;
}

}  // namespace corvane::detail
