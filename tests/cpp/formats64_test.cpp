// Readers of the formats with blocks of 64 elements, on bytes and numbers worked out by hand, in all four element
// types.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

#include "formats/fp4.hpp"
#include "formats/fp6.hpp"
#include "formats/fp8_e4m3.hpp"
#include "formats/fp8_e5m2.hpp"
#include "formats/nf3.hpp"
#include "formats/nf4.hpp"
#include "formats/q4_0.hpp"
#include "formats/q4_1.hpp"
#include "formats/q5_0.hpp"
#include "formats/q8_0.hpp"

namespace {

using namespace corvane;

template <class T>
class formats64 : public testing::Test {};
using element_types = testing::Types<Half, float, double, BFloat16>;
TYPED_TEST_SUITE(formats64, element_types);

// A packed weight of `blocks` blocks in one row, as the planes of the format say.
template <class Reader>
struct packed {
  std::vector<uint8_t> bytes;
  unsigned blocks;
  explicit packed(unsigned n, uint8_t fill = 0) : bytes(n * registry[Reader::id].block_bytes, fill), blocks(n) {}
  typename Reader::planes planes() const { return Reader::locate(bytes.data(), 64 * blocks, 1); }
  void put(std::size_t at, Half x) { std::memcpy(&bytes[at], &x, sizeof(x)); }
  void put(std::size_t at, float x) { std::memcpy(&bytes[at], &x, sizeof(x)); }
};

// The 64 decoded values of a block.
template <class Reader, class T>
std::array<double, 64> decoded(const packed<Reader>& w, unsigned block = 0) {
  std::array<double, 64> out;
  const typename Reader::raw raw = Reader::fetch(w.planes(), block);
  for (unsigned v = 0; v < 4; ++v) {
    const simd<T, 16> lanes = Reader::template decode<T>(raw, v);
    for (unsigned t = 0; t < 16; ++t) out[16 * v + t] = static_cast<double>(lanes.lane(t));
  }
  return out;
}

template <class T>
double rounded(double x) {
  return static_cast<double>(static_cast<T>(static_cast<float>(x)));
}

TYPED_TEST(formats64, q4_0_low_nibble_is_element_j_and_high_nibble_j_plus_32) {
  packed<q4_0_reader> w(1, 0x88);
  w.bytes[0] = 0x1F;
  w.bytes[31] = 0x08;
  const auto y = decoded<q4_0_reader, TypeParam>(w);
  EXPECT_EQ(y[0], 7);    // 15 - 8
  EXPECT_EQ(y[32], -7);  // 1 - 8
  EXPECT_EQ(y[31], 0);
  EXPECT_EQ(y[63], -8);
  for (unsigned j = 1; j < 31; ++j) ASSERT_EQ(y[j], 0) << j;
}

TYPED_TEST(formats64, q4_1_counts_codes_from_zero_and_reads_scale_and_offset_in_pairs) {
  packed<q4_1_reader> w(2);
  w.bytes[32] = 0xF3;  // block 1
  const std::array<float, 4> pairs = {0.5f, -2.0f, 0.25f, 3.0f};
  for (unsigned i = 0; i < 4; ++i) w.put(64 + 2 * i, Half(pairs[i]));
  const auto y = decoded<q4_1_reader, TypeParam>(w, 1);
  EXPECT_EQ(y[0], 3);
  EXPECT_EQ(y[32], 15);
  EXPECT_EQ(y[1], 0);
  const auto p = w.planes();
  const auto scales = q4_1_reader::template scales<TypeParam>(p, 0, 2);
  const auto offsets = q4_1_reader::template offsets<TypeParam>(p, 0, 2);
  for (unsigned b = 0; b < 2; ++b) {
    EXPECT_EQ(double(q4_1_reader::template scale<TypeParam>(p, b, 0).lane(9)), pairs[2 * b]);
    EXPECT_EQ(double(q4_1_reader::template offset<TypeParam>(p, b, 0).lane(9)), pairs[2 * b + 1]);
    EXPECT_EQ(double(scales.lane(b)), pairs[2 * b]);
    EXPECT_EQ(double(offsets.lane(b)), pairs[2 * b + 1]);
  }
  EXPECT_EQ(double(scales.lane(2)), 0);  // behind the last block: nothing is read
}

TYPED_TEST(formats64, nf4_and_fp4_take_the_nibbles_of_a_byte_in_opposite_order) {
  packed<nf4_reader> nf4(1, 0x12);
  nf4.bytes[5] = 0x07;
  packed<fp4_reader> fp4(1, 0x12);
  const auto a = decoded<nf4_reader, TypeParam>(nf4);
  EXPECT_EQ(a[0], rounded<TypeParam>(-0.6961928009986877));   // code 1
  EXPECT_EQ(a[32], rounded<TypeParam>(-0.5250730514526367));  // code 2
  EXPECT_EQ(a[5], -1);
  EXPECT_EQ(a[37], 0);
  const auto b = decoded<fp4_reader, TypeParam>(fp4);
  EXPECT_EQ(b[0], 1.0);   // code 2
  EXPECT_EQ(b[32], 0.5);  // code 1
}

TYPED_TEST(formats64, fp4_has_no_zero) {
  const packed<fp4_reader> zeros(1), signs(1, 0x88);
  for (const double y : decoded<fp4_reader, TypeParam>(zeros)) ASSERT_EQ(y, 0.03125);
  for (const double y : decoded<fp4_reader, TypeParam>(signs)) ASSERT_EQ(y, -0.03125);
  packed<fp4_reader> w(1);
  const double values[8] = {0.03125, 0.5, 1, 1.5, 2, 3, 4, 6};
  for (unsigned c = 0; c < 8; ++c) w.bytes[c] = static_cast<uint8_t>((8 + c) << 4 | c);
  const auto y = decoded<fp4_reader, TypeParam>(w);
  for (unsigned c = 0; c < 8; ++c) {
    EXPECT_EQ(y[c], values[c]);
    EXPECT_EQ(y[32 + c], -values[c]);
  }
}

TYPED_TEST(formats64, nf3_zero_bytes_are_minus_one_and_each_code_has_a_bit_apart) {
  const packed<nf3_reader> zeros(1);
  for (const double y : decoded<nf3_reader, TypeParam>(zeros)) ASSERT_EQ(y, -1);
  packed<nf3_reader> w(1);
  w.bytes[4] = 0x01;       // bit 32 of the top bits: element 32 has code 4
  w.bytes[7] = 0x80;       // bit 63
  w.bytes[8] = 0x1B;       // 00 01 10 11 from the top: elements 0 to 3 have codes 0 to 3
  w.bytes[8 + 15] = 0x03;  // element 63 has the low bits 11
  const auto y = decoded<nf3_reader, TypeParam>(w);
  EXPECT_EQ(y[0], -1);
  EXPECT_EQ(y[1], rounded<TypeParam>(-0.4786292016506195));
  EXPECT_EQ(y[2], rounded<TypeParam>(-0.217141792178154));
  EXPECT_EQ(y[3], 0);
  EXPECT_EQ(y[32], rounded<TypeParam>(0.16093020141124725));
  EXPECT_EQ(y[63], 1);
  EXPECT_EQ(y[31], -1);
  EXPECT_EQ(y[62], -1);
}

TYPED_TEST(formats64, q5_0_element_32_has_bit_32) {
  packed<q5_0_reader> w(1);
  w.put(0, Half(0.5f));
  w.put(2, Half(100.0f));  // no offset here
  auto y = decoded<q5_0_reader, TypeParam>(w);
  for (const double e : y) ASSERT_EQ(e, -8);  // (0 - 16) / 2
  w.bytes[4] = 0x01;
  y = decoded<q5_0_reader, TypeParam>(w);
  EXPECT_EQ(y[0], 0);
  EXPECT_EQ(y[32], -8);
  w.bytes[4 + 4] = 0x01;   // bit 32
  w.bytes[12 + 0] = 0xF1;  // and the nibbles of elements 0 and 32
  y = decoded<q5_0_reader, TypeParam>(w);
  EXPECT_EQ(y[0], 0.5);   // 17 - 16
  EXPECT_EQ(y[32], 7.5);  // 31 - 16
  EXPECT_EQ(y[1], -8);
}

TYPED_TEST(formats64, q5_weights_are_formed_in_float_and_rounded_once) {
  packed<q5_1_reader> w(1, 0xFF);
  w.put(0, Half(1.0f));
  w.put(2, Half(1.0f / 1024));  // 31 + 2^-10 needs 15 bits
  EXPECT_EQ((decoded<q5_1_reader, TypeParam>(w)[40]), rounded<TypeParam>(31 + 1.0 / 1024));
  packed<q5_0_reader> z(1, 0xFF);
  z.put(0, Half(1 + 1.0f / 1024));  // 15 * (1 + 2^-10) needs 14 bits
  EXPECT_EQ((decoded<q5_0_reader, TypeParam>(z)[40]), rounded<TypeParam>(15 + 15.0 / 1024));
}

TYPED_TEST(formats64, q5_not_a_number_stays_one) {
  for (const uint16_t bits : {0x7FFF, 0xFFFF, 0x7E00, 0x7C01}) {
    packed<q5_0_reader> w(1, 0xFF);
    w.put(0, Half(bits, Half::from_bits()));
    for (const double y : decoded<q5_0_reader, TypeParam>(w)) ASSERT_TRUE(std::isnan(y)) << std::hex << bits;
  }
}

TYPED_TEST(formats64, q8_0_codes_are_signed_and_the_scale_is_a_float) {
  packed<q8_0_reader> w(1);
  w.bytes[0] = 0x80;
  w.bytes[63] = 0x7F;
  w.put(64, 1.0f + 0x1p-20f);
  const auto y = decoded<q8_0_reader, TypeParam>(w);
  EXPECT_EQ(y[0], -128);
  EXPECT_EQ(y[63], 127);
  EXPECT_EQ(double(q8_0_reader::template scale<TypeParam>(w.planes(), 0, 0).lane(0)), rounded<TypeParam>(1 + 0x1p-20));
}

// Element by element: the byte of either plane, the nibble, and the bits of the 2-bit plane, of the first 16.
TYPED_TEST(formats64, fp6_elements_stand_in_bytes_1_3_0_2) {
  const unsigned low_byte[16] = {1, 3, 0, 2, 1, 3, 0, 2, 5, 7, 4, 6, 5, 7, 4, 6};
  const unsigned high_byte[16] = {1, 3, 0, 2, 1, 3, 0, 2, 1, 3, 0, 2, 1, 3, 0, 2};
  for (unsigned e = 0; e < 64; ++e) {
    packed<fp6_reader> w(1);
    const bool high_nibble = e / 4 % 2 == 0;
    w.bytes[8 * (e / 16) + low_byte[e % 16]] = high_nibble ? 0xF0 : 0x0F;
    // sign and top exponent bit: bits 7 and 6, then 5 and 4, and so on
    w.bytes[32 + 4 * (e / 16) + high_byte[e % 16]] = static_cast<uint8_t>(0xC0 >> (2 * (e / 4 % 4)));
    const auto y = decoded<fp6_reader, TypeParam>(w);
    for (unsigned other = 0; other < 64; ++other) {
      ASSERT_EQ(y[other], other == e ? -0.00732421875 : 0x1p-17) << "element " << other << ", bits of " << e;
    }
  }
}

TYPED_TEST(formats64, fp6_codes_are_midpoints) {
  packed<fp6_reader> w(1);
  for (unsigned c = 0; c < 32; ++c) {  // e2 from the 2-bit plane, the rest a nibble, in element 0
    w.bytes[1] = static_cast<uint8_t>(c << 4);
    w.bytes[32 + 1] = static_cast<uint8_t>(c / 16 << 6);
    const int exponent = static_cast<int>(c / 4);
    const double mantissa = (c % 4) / 4.0 + 0.125;
    const double expected = exponent == 0 ? std::ldexp(mantissa, -14) : std::ldexp(1 + mantissa, exponent - 15);
    ASSERT_EQ((decoded<fp6_reader, TypeParam>(w)[0]), expected) << c;
  }
}

TYPED_TEST(formats64, fp8_e4m3_codes_are_midpoints_and_finite) {
  packed<fp8_e4m3_reader> w(1);
  w.bytes[0] = 0x00, w.bytes[1] = 0x80, w.bytes[2] = 0x38, w.bytes[3] = 0x7F, w.bytes[63] = 0xFF;
  const auto y = decoded<fp8_e4m3_reader, TypeParam>(w);
  EXPECT_EQ(y[0], 0x1p-18);
  EXPECT_EQ(y[1], -0x1p-18);
  EXPECT_EQ(y[2], 0.004150390625);
  EXPECT_EQ(y[3], 1.9375);
  EXPECT_EQ(y[63], -1.9375);
  const auto lower = fp8_e4m3_reader::template decode_without_midpoint<TypeParam>(w.bytes.data(), 0);
  EXPECT_EQ(double(lower.lane(0)), 0);
  EXPECT_TRUE(std::signbit(double(lower.lane(1))));
  EXPECT_EQ(double(lower.lane(2)), 0.00390625);
  EXPECT_EQ(double(lower.lane(3)), 1.875);
}

TYPED_TEST(formats64, fp8_e5m2_codes_are_midpoints_and_exponent_31_is_not_a_number) {
  packed<fp8_e5m2_reader> w(1);
  w.bytes[1] = 0x3C, w.bytes[2] = 0x7B, w.bytes[3] = 0xBC;
  for (unsigned i = 0; i < 4; ++i)
    w.bytes[16 + i] = static_cast<uint8_t>(0x7C + i), w.bytes[20 + i] = static_cast<uint8_t>(0xFC + i);
  const auto y = decoded<fp8_e5m2_reader, TypeParam>(w);
  EXPECT_EQ(y[0], 0x1p-17);
  EXPECT_EQ(y[1], 1.125);
  EXPECT_EQ(y[2], 61440);
  EXPECT_EQ(y[3], -1.125);
  for (unsigned i = 16; i < 24; ++i) EXPECT_TRUE(std::isnan(y[i])) << i;
}

TEST(fp8_e5m2, has_a_reader_with_and_one_without_the_stored_scale) {
  packed<fp8_e5m2_scaled_reader> w(2);
  w.put(128, 3.0f);
  w.put(132, 5.0f);
  EXPECT_EQ(fp8_e5m2_reader::shared_scale, 0u);
  EXPECT_EQ(fp8_e5m2_scaled_reader::scale<float>(w.planes(), 1, 0).lane(0), 5.0f);
}

}  // namespace
