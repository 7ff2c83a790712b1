// Constant tables of the grid formats: patterns of eight elements, and the signs that go with them.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace corvane {

// Eight magnitudes 8, 25 or 43, element j in byte j. Indexed by a byte of a group.
extern const std::array<uint64_t, 256> iq2xxs_grid;

// The same by pairs of positions: of byte n of entry p, bits 4 m to 4 m + 3 are for row n + 128 m, the number of the
// magnitude of element 2 p in the lower two, of element 2 p + 1 in the upper two; and the magnitudes by that number.
extern const std::array<std::array<uint8_t, 128>, 4> iq2xxs_pairs;
inline constexpr std::array<uint8_t, 4> iq2xxs_magnitudes = {8, 25, 43, 0};

// Eight values 0, 1 or 2: elements 0 to 3 in the low nibbles of bytes 0 to 3, elements 4 to 7 in their high nibbles.
extern const std::array<uint32_t, 2048> iq1s_grid;
// The same, a byte each, element j in byte j.
extern const std::array<uint64_t, 2048> iq1s_runs;

namespace detail {
constexpr std::array<uint8_t, 128> make_ksigns() {
  std::array<uint8_t, 128> t{};
  for (unsigned i = 0; i < 128; ++i) t[i] = static_cast<uint8_t>(i | (std::popcount(i) % 2 == 1 ? 128 : 0));
  return t;
}
constexpr std::array<uint8_t, 8> make_kmask() {
  std::array<uint8_t, 8> t{};
  for (unsigned j = 0; j < 8; ++j) t[j] = static_cast<uint8_t>(1u << j);
  return t;
}
}  // namespace detail

// Which of eight elements are negative, from seven bits: an even number of them always.
inline constexpr std::array<uint8_t, 128> ksigns_iq2xs = detail::make_ksigns();
inline constexpr std::array<uint8_t, 8> kmask_iq2xs = detail::make_kmask();

}  // namespace corvane
