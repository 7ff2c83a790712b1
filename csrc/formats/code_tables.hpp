// Code tables as the kernels use them: each entry rounded to the element type when the program is compiled.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <type_traits>

#include "formats/reader.hpp"

namespace corvane {

namespace detail {

// Nearest, ties to even, with `dropped` bits fewer in the mantissa. For zero and for magnitudes that are normal numbers
// of the narrower type.
constexpr float round_mantissa(float x, unsigned dropped) {
  auto bits = std::bit_cast<uint32_t>(x);
  bits += (1u << (dropped - 1)) - 1 + (bits >> dropped & 1);
  return std::bit_cast<float>(bits >> dropped << dropped);
}

template <class Lane, std::size_t N>
struct alignas(64) lane_table {
  Lane entry[N];
};

}  // namespace detail

// Entries as values of T, held as floats; double keeps the float that an entry is.
template <class T, class Lane = float, std::size_t N>
constexpr detail::lane_table<Lane, N> table_of(const std::array<float, N>& entries) {
  detail::lane_table<Lane, N> table{};
  for (std::size_t i = 0; i < N; ++i) {
    table.entry[i] = entries[i];
    if constexpr (std::is_same_v<T, Half>) table.entry[i] = detail::round_mantissa(entries[i], 13);
    if constexpr (std::is_same_v<T, BFloat16>) table.entry[i] = detail::round_mantissa(entries[i], 16);
  }
  return table;
}

// 4-bit NormalFloat.
inline constexpr std::array<float, 16> nf4_values = {
    -1.0f,                  // 0
    -0.6961928009986877f,   // 1
    -0.5250730514526367f,   // 2
    -0.39491748809814453f,  // 3
    -0.28444138169288635f,  // 4
    -0.18477343022823334f,  // 5
    -0.09105003625154495f,  // 6
    0.0f,                   // 7
    0.07958029955625534f,   // 8
    0.16093020141124725f,   // 9
    0.24611230194568634f,   // 10
    0.33791524171829224f,   // 11
    0.44070982933044434f,   // 12
    0.5626170039176941f,    // 13
    0.7229568362236023f,    // 14
    1.0f,                   // 15
};

inline constexpr std::array<float, 8> nf3_values = {
    -1.0f,         -0.4786292016506195f, -0.217141792178154f, 0.0f,  // 0 to 3
    nf4_values[9], nf4_values[11],       nf4_values[13],      nf4_values[15],
};

// E2M1, but 2^-5 instead of zero; bit 3 is the sign.
inline constexpr std::array<float, 16> fp4_values = {
    0.03125f,  0.5f,  1.0f,  1.5f,  2.0f,  3.0f,  4.0f,  6.0f,   // 0 to 7
    -0.03125f, -0.5f, -1.0f, -1.5f, -2.0f, -3.0f, -4.0f, -6.0f,  // 8 to 15
};

}  // namespace corvane
