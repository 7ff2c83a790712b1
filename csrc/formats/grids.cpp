#include "formats/grids.hpp"

namespace corvane {

alignas(64) constexpr std::array<uint64_t, 256> iq2xxs_grid = {
#include "formats/data/iq2xxs_grid.inc"
};

namespace {
constexpr std::array<std::array<uint8_t, 128>, 4> make_pairs() {
  std::array<std::array<uint8_t, 128>, 4> pairs{};
  for (unsigned row = 0; row < 256; ++row) {
    for (unsigned j = 0; j < 8; ++j) {
      const unsigned magnitude = iq2xxs_grid[row] >> (8 * j) & 0xFF;
      unsigned number = 0;
      while (iq2xxs_magnitudes[number] != magnitude) ++number;  // no constant expression if there is none
      uint8_t& byte = pairs[j / 2][row % 128];
      byte = static_cast<uint8_t>(byte | number << (4 * (row / 128) + 2 * (j % 2)));
    }
  }
  return pairs;
}
}  // namespace

alignas(64) constexpr std::array<std::array<uint8_t, 128>, 4> iq2xxs_pairs = make_pairs();

alignas(64) constexpr std::array<uint32_t, 2048> iq1s_grid = {
#include "formats/data/iq1s_grid.inc"
};

alignas(64) constexpr std::array<uint64_t, 2048> iq1s_runs = [] {
  std::array<uint64_t, 2048> runs{};
  for (unsigned row = 0; row < 2048; ++row) {
    const uint64_t nibbles = iq1s_grid[row];
    runs[row] = (nibbles | nibbles << 28) & 0x0F0F0F0F0F0F0F0F;
  }
  return runs;
}();

}  // namespace corvane
