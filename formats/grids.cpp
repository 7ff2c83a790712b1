#include "formats/grids.hpp"

namespace corvane {

alignas(64) constexpr std::array<uint64_t, 256> iq2xxs_grid = {
#include "formats/data/iq2xxs_grid.inc"
};

namespace {
constexpr std::array<std::array<uint8_t, 64>, 8> make_codes() {
  std::array<std::array<uint8_t, 64>, 8> codes{};
  for (unsigned row = 0; row < 256; ++row) {
    for (unsigned j = 0; j < 8; ++j) {
      const unsigned magnitude = iq2xxs_grid[row] >> (8 * j) & 0xFF;
      unsigned number = 0;
      while (iq2xxs_magnitudes[number] != magnitude) ++number;  // no constant expression if there is none
      codes[j][row % 64] = static_cast<uint8_t>(codes[j][row % 64] | number << (2 * (row / 64)));
    }
  }
  return codes;
}
}  // namespace

alignas(64) constexpr std::array<std::array<uint8_t, 64>, 8> iq2xxs_codes = make_codes();

alignas(64) const std::array<uint32_t, 2048> iq1s_grid = {
#include "formats/data/iq1s_grid.inc"
};

}  // namespace corvane
