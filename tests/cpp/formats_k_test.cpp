// Where each element of the formats with super-blocks stands, by hand; the two views of a block; the grids.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <vector>

#include "formats/fp6_k.hpp"
#include "formats/iq1_s.hpp"
#include "formats/iq2_xxs.hpp"
#include "formats/q2_k.hpp"
#include "formats/q4_k.hpp"
#include "formats/q5_k.hpp"
#include "formats/q6_k.hpp"
#include "scalar_expansion.hpp"

namespace {

using namespace corvane;

constexpr float infinity = std::numeric_limits<float>::infinity();

// One super-block of a format, all bytes zero but those that a test sets. As the only block of a tensor its planes lie
// at the widths of the planes before them.
struct one_block {
  std::vector<uint8_t> bytes;

  explicit one_block(int32_t qtype) : bytes(registry[qtype].block_bytes) {}
  one_block& byte(unsigned at, unsigned value) {
    bytes[at] = static_cast<uint8_t>(value);
    return *this;
  }
  one_block& half(unsigned at, float value) {
    const Half h(value);
    std::memcpy(&bytes[at], &h, 2);
    return *this;
  }

  // Element e as the reader has it in T: code, scale and offset apart, put together in double.
  template <class Reader, class T>
  double element(unsigned e) const {
    const auto planes = Reader::locate(bytes.data(), 256, 1);
    const uint32_t unit = e / 64;
    const unsigned v = e % 64 / 16, lane = e % 16;
    const auto in = [lane](const simd<T, 16>& x) { return static_cast<double>(x.lane(lane)); };
    const double code = in(Reader::template decode<T>(Reader::fetch(planes, unit), v));
    double y = code * in(Reader::template scale<T>(planes, unit, v));
    if constexpr (Reader::has_offset) y += in(Reader::template offset<T>(planes, unit, v));
    return y;
  }
};

// Tests of where elements stand, in each element type that the reader's scales know.
template <class Reader>
struct is_in_float
    : std::bool_constant<scalar::expands_in_float(Reader::id) && Reader::id != qtype_q4_k && Reader::id != qtype_q6_k> {
};
template <class Reader>
void expect_elements(const one_block& block, std::initializer_list<std::pair<unsigned, double>> expected) {
  for (const auto& [e, value] : expected) {
    EXPECT_EQ((block.element<Reader, float>(e)), value) << "element " << e;
    if constexpr (!is_in_float<Reader>::value) {
      EXPECT_EQ((block.element<Reader, double>(e)), value) << "element " << e << " in double";
      EXPECT_EQ((block.element<Reader, Half>(e)), value) << "element " << e << " in Half";
      EXPECT_EQ((block.element<Reader, BFloat16>(e)), value) << "element " << e << " in BFloat16";
    }
  }
}

TEST(q2_k_layout, a_byte_holds_elements_32_apart) {
  one_block b(qtype_q2_k);
  for (unsigned u = 0; u < 16; ++u) b.byte(u, 0x01);
  b.half(80, 2.0f).byte(16, 0b11'10'01'00).byte(16 + 32, 0b00'01'10'11);
  expect_elements<q2_k_reader>(b, {{0, 0}, {32, 2}, {64, 4}, {96, 6}, {128, 6}, {160, 4}, {192, 2}, {224, 0}, {1, 0}});
}
TEST(q2_k_layout, low_nibble_scales_high_nibble_is_the_minimum) {
  // Element 16 lies under scale byte 1, element 128 under byte 8.
  one_block b(qtype_q2_k);
  b.half(80, 1.0f).half(82, 0.5f).byte(1, 0x2F).byte(8, 0x43).byte(16 + 16, 0x03).byte(16 + 32, 0x02);
  expect_elements<q2_k_reader>(b, {{16, 15 * 3 - 1}, {17, -1}, {128, 3 * 2 - 2}, {0, 0}});
}
TEST(q2_k_layout, a_zero_scale_byte_gives_zero) {
  one_block b(qtype_q2_k);
  b.half(80, 1.0f).half(82, 1.0f).byte(16, 0xFF);
  expect_elements<q2_k_reader>(b, {{0, 0}, {32, 0}});
}

TEST(q4_k_layout, nibbles_of_a_byte_stand_16_apart) {
  one_block b(qtype_q4_k);
  for (unsigned i = 0; i < 8; ++i) b.byte(128 + 2 * i, 1);
  b.half(144, 1.0f).byte(0, 0x21).byte(15, 0x43).byte(16, 0x65);
  expect_elements<q4_k_reader>(b, {{0, 1}, {16, 2}, {15, 3}, {31, 4}, {32, 5}, {48, 6}, {1, 0}});
}
TEST(q4_k_layout, scale_and_minimum_take_a_byte_each) {
  one_block b(qtype_q4_k);
  b.half(144, 0.5f).half(146, 2.0f).byte(128 + 14, 200).byte(128 + 15, 255).byte(112, 0x0F);
  expect_elements<q4_k_reader>(b, {{224, 0.5 * 200 * 15 - 2.0 * 255}, {225, -2.0 * 255}, {0, 0}});
}

TEST(q5_k_layout, a_bit_of_qh_extends_one_sub_block) {
  one_block b(qtype_q5_k);
  for (unsigned i = 0; i < 4; ++i) b.byte(4 + i, 1).byte(12 + i, 1);
  b.half(0, 1.0f).byte(16 + 3, 0b00000111).byte(48 + 3, 0x21).byte(16, 0x80);
  expect_elements<q5_k_reader>(b, {{3, 17}, {35, 18}, {67, 16}, {99, 0}, {224, 16}, {192, 0}});
}
TEST(q5_k_layout, scales_from_sub_block_4_on_are_put_together) {
  one_block b(qtype_q5_k);
  // scales[0]: 11'000001, top bits of sub-block 4 and its own 1. scales[4]: 01'000010. scales[8]: minimum 9, scale 5.
  b.half(0, 1.0f).half(2, 0.25f).byte(4, 0b11'000001).byte(8, 0b01'000010).byte(12, 0x95);
  b.byte(48, 0x01).byte(48 + 64, 0x01);
  expect_elements<q5_k_reader>(b, {{0, 1 - 0.25 * 2}, {128, (3 * 16 + 5) - 0.25 * (16 + 9)}, {129, -0.25 * 25}});
}

TEST(q6_k_layout, the_high_bits_are_the_first_plane) {
  one_block b(qtype_q6_k);
  for (unsigned u = 0; u < 16; ++u) b.byte(192 + u, 1);
  // Byte 0 of the first high word: elements 0, 4, 8, 12. Low bits: bytes 64 and, for element 8, 68.
  b.half(208, 1.0f).byte(0, 0b11'10'01'00).byte(64, 0xA5).byte(68, 0x30);
  expect_elements<q6_k_reader>(b, {{0, 48 + 10 - 32}, {4, 32 + 5 - 32}, {8, 16 + 3 - 32}, {12, -32}, {1, -32}});
}
TEST(q6_k_layout, code_32_is_zero_and_scales_are_signed) {
  one_block b(qtype_q6_k);
  b.half(208, 2.0f).byte(192, 0xFD).byte(193, 0x80);
  b.byte(0, 0x80).byte(4, 0xC0);  // elements 0 and 16: top bits 2 and 3
  expect_elements<q6_k_reader>(b, {{0, 0}, {4, 2.0 * -3 * -32}, {16, 2.0 * -128 * 16}, {32, 0}});
}

TEST(fp6_k_layout, the_low_bits_are_the_first_plane_in_byte_order_1_3_0_2) {
  one_block b(qtype_fp6_k);
  for (unsigned u = 0; u < 16; ++u) b.byte(192 + u, 1);
  // Exponent 4 + 0, mantissa 0, with the midpoint: 2^-11 * 1.125. Byte 1 of either word is element 0, bytes 3, 0, 2 are
  // elements 1 to 3, low nibbles elements 4 to 7.
  const double p = std::ldexp(1.125, -11), zero = std::ldexp(1.0, -17);
  b.half(208, 1.0f).byte(128 + 1, 0b01'11'00'00).byte(128 + 3, 0b11'00'00'00).byte(0, 0x04).byte(2, 0x10);
  expect_elements<fp6_k_reader>(
      b, {{0, p}, {4, -p}, {1, -p}, {2, zero}, {6, std::ldexp(1.125, -14)}, {3, std::ldexp(0.375, -14)}, {8, zero}});
}
TEST(fp6_k_layout, a_zero_scale_zeroes_its_16_elements) {
  one_block b(qtype_fp6_k);
  b.half(208, 1.0f).byte(193, 0xFF);
  expect_elements<fp6_k_reader>(b,
                                {{0, 0}, {15, 0}, {16, -std::ldexp(1.0, -17)}, {31, -std::ldexp(1.0, -17)}, {32, 0}});
}
TEST(fp6_k_layout, the_factor_is_a_half_in_every_type) {
  one_block b(qtype_fp6_k);
  b.half(208, 60000.0f).byte(192, 2);
  expect_elements<fp6_k_reader>(b, {{0, infinity}});
  // 2049 * 3 = 6147 is no Half: the even neighbour is 6148.
  EXPECT_EQ((b.half(208, 2050.0f).byte(192, 3).element<fp6_k_reader, double>(0)), std::ldexp(6152.0, -17));
}

TEST(iq2_xxs_layout, signs_grid_and_scale) {
  one_block b(qtype_iq2_xxs);
  b.half(0, 4.0f);
  expect_elements<iq2_xxs_reader>(b, {{0, 8 * 0.5}, {31, 8 * 0.5}, {255, 8 * 0.5}});  // never zero
  // Group 1: row 1 in run 0; sign index 1 in run 1 negates elements 0 and 7; scale 3.
  b.byte(2 + 8, 1).byte(2 + 13, 0x80 & 0).byte(2 + 12, 0x80).byte(2 + 15, 0x30);
  expect_elements<iq2_xxs_reader>(
      b, {{32, 43 * 3.5}, {33, 8 * 3.5}, {40, -8 * 3.5}, {41, 8 * 3.5}, {46, 8 * 3.5}, {47, -8 * 3.5}, {48, 8 * 3.5}});
}

TEST(iq1_s_layout, row_number_delta_and_scale) {
  one_block b(qtype_iq1_s);
  b.half(0, 2.0f);
  expect_elements<iq1_s_reader>(b, {{0, -0.875 * 2}, {255, -0.875 * 2}});
  // Group 2, run 3: row 2047 is 0x22222222. Run 0: row 1 is 0x00000002. Bit 15 holds for the group, scale 3.
  b.byte(2 + 11, 0xFF).byte(2 + 8, 1).byte(34 + 4, 0x00).byte(34 + 5, 0b1'011'1110);
  const double dl = 2 * 7;
  expect_elements<iq1_s_reader>(b, {{64, dl * 0.875},
                                    {65, dl * -1.125},
                                    {68, dl * -1.125},
                                    {80, dl * -1.125},
                                    {88, dl * 0.875},
                                    {95, dl * 0.875},
                                    {96, 2 * -0.875}});
}

// The kernels read whole chunks where expansion reads units: the same codes, scales and offsets by either way.
template <class Reader, class T, class Scale>
void expect_chunks_are_units(const std::vector<uint8_t>& weight, uint64_t blocks) {
  const auto planes = Reader::locate(weight.data(), 256, blocks);
  for (uint32_t b = 0; b < blocks; ++b) {
    const auto chunks = Reader::fetch_chunks(planes, b);
    const auto same = [](double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); };
    sycl::unroll<16>([&](auto j) {
      const auto pair = Reader::template chunk_pair<T, j / 2>(chunks);
      const auto& codes = j % 2 == 0 ? pair.first : pair.second;
      for (unsigned c = 0; c < 16; ++c) {
        const unsigned e = Reader::chunk_element(c, j), v = e % 64 / 16;
        const uint32_t unit = 4 * b + e / 64;
        ASSERT_EQ(codes.lane(c), (Reader::template decode<T>(Reader::fetch(planes, unit), v).lane(e % 16))) << e;
        ASSERT_TRUE(same(Reader::template chunk_scale<Scale>(planes, b).lane(c),
                         Reader::template scale<Scale>(planes, unit, v).lane(0)));
        if constexpr (Reader::has_offset) {
          ASSERT_TRUE(same(Reader::template chunk_offset<Scale>(planes, b).lane(c),
                           Reader::template offset<Scale>(planes, unit, v).lane(0)));
        }
      }
    });
  }
}
template <class Reader>
struct chunks : testing::Test {};
using chunk_readers = testing::Types<q4_k_reader, q5_k_reader, q6_k_reader, fp6_k_reader>;
TYPED_TEST_SUITE(chunks, chunk_readers);
TYPED_TEST(chunks, hold_the_elements_of_the_units) {
  const auto weight = scalar::random_weight(TypeParam::id, 7, 1).bytes;
  const auto check = [&]<class T>(T) {
    expect_chunks_are_units<TypeParam, T, std::conditional_t<is_in_float<TypeParam>::value, float, T>>(weight, 7);
  };
  check(float{});
  check(double{});
  check(Half{});
  check(BFloat16{});
}

// --- grids ---------------------------------------------------------------------------------------------------------

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
TEST(grids, signs_are_an_even_number) {
  EXPECT_EQ(ksigns_iq2xs[0], 0);
  EXPECT_EQ(ksigns_iq2xs[1], 129);
  EXPECT_EQ(ksigns_iq2xs[127], 255);
  for (unsigned i = 0; i < 128; ++i) {
    EXPECT_EQ(ksigns_iq2xs[i] & 127u, i);
    EXPECT_EQ(std::popcount(ksigns_iq2xs[i]) % 2, 0);
  }
}

}  // namespace
