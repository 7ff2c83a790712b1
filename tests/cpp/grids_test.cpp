// The tables of the grid formats against checksums of the published ones.
#include "formats/grids.hpp"

#include <gtest/gtest.h>

#include <bit>

namespace {

using namespace corvane;

template <class Table>
uint32_t crc32(const Table& table) {
  uint32_t crc = ~0u;
  for (const auto entry : table) {
    for (unsigned byte = 0; byte < sizeof(entry); ++byte) {
      crc ^= static_cast<uint8_t>(entry >> (8 * byte));
      for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320 : 0);
    }
  }
  return ~crc;
}

TEST(grids, are_the_published_ones) {
  EXPECT_EQ(crc32(iq2xxs_grid), 0x9924FF02u);
  EXPECT_EQ(crc32(iq1s_grid), 0xCC79879Bu);
  EXPECT_EQ(iq2xxs_grid[2], 0x0808080808081919u);
  EXPECT_EQ(iq2xxs_grid[255], 0x2B2B2B1908081908u);
  EXPECT_EQ(iq1s_grid[7], 0x00020000u);
  EXPECT_EQ(iq1s_grid[2045], 0x22222022u);
}

TEST(grids, bytes_of_a_run_are_its_nibbles_low_ones_first) {
  for (unsigned row = 0; row < 2048; ++row) {
    for (unsigned j = 0; j < 8; ++j) {
      EXPECT_EQ(iq1s_runs[row] >> (8 * j) & 0xFF, iq1s_grid[row] >> (8 * (j % 4) + 4 * (j / 4)) & 15) << row;
    }
  }
}

TEST(grids, signs_are_an_even_number) {
  EXPECT_EQ(ksigns_iq2xs[1], 129);
  for (unsigned i = 0; i < 128; ++i) {
    EXPECT_EQ(ksigns_iq2xs[i] & 127u, i);
    EXPECT_EQ(std::popcount(ksigns_iq2xs[i]) % 2, 0);
  }
}

}  // namespace
