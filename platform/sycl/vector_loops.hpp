// Functions of vector_avx512.hpp lane by lane, for processors without an instruction for them; GCC finds what vectors
// it can.
#pragma once

#include "platform/sycl/vector_types.hpp"

namespace sycl {

constexpr bool looks_up_words = false;  // the following work, but one lane at a time
CORVANE_INLINE u16x32 lookup16(u16x16 table, u16x32 index) {
  u16x32 entries;
  for (int t = 0; t < 32; ++t) entries[t] = table[index[t] & 15];
  return entries;
}
CORVANE_INLINE u16x32 lookup32(u16x32 table, u16x32 index) {
  u16x32 entries;
  for (int t = 0; t < 32; ++t) entries[t] = table[index[t] & 31];
  return entries;
}
CORVANE_INLINE u16x32 lookup64(u16x32 low, u16x32 high, u16x32 index) {
  u16x32 entries;
  for (int t = 0; t < 32; ++t) entries[t] = (index[t] & 32) != 0 ? high[index[t] & 31] : low[index[t] & 31];
  return entries;
}
CORVANE_INLINE u16x32 widen_32_u8_to_u16(const void* from) {
  u16x32 words;
  for (int t = 0; t < 32; ++t) words[t] = static_cast<const std::uint8_t*>(from)[t];
  return words;
}
CORVANE_INLINE u16x16 half_of(u16x32 x, unsigned upper) {
  u16x16 half;
  std::memcpy(&half, reinterpret_cast<const char*>(&x) + 32 * upper, sizeof(half));
  return half;
}
CORVANE_INLINE u16x32 widen_32_s8_to_u16(const void* from) {
  u16x32 words;
  for (int t = 0; t < 32; ++t) words[t] = static_cast<std::uint16_t>(static_cast<const std::int8_t*>(from)[t]);
  return words;
}
CORVANE_INLINE u16x32 splat_where(std::uint32_t mask, std::int16_t bits) {
  u16x32 words;
  for (int t = 0; t < 32; ++t) words[t] = (mask >> t & 1) != 0 ? static_cast<std::uint16_t>(bits) : 0;
  return words;
}
CORVANE_INLINE f64x8 low_to_double(f32x16 x) {
  f64x8 y;
  for (int i = 0; i < 8; ++i) y[i] = x[i];
  return y;
}
CORVANE_INLINE f64x8 high_to_double(f32x16 x) {
  f64x8 y;
  for (int i = 0; i < 8; ++i) y[i] = x[i + 8];
  return y;
}
// table[index & 15] in each lane, the table in two parts.
CORVANE_INLINE f64x8 lookup16(f64x8 low, f64x8 high, i64x8 index) {
  f64x8 y;
  for (int i = 0; i < 8; ++i) y[i] = index[i] & 8 ? high[index[i] & 7] : low[index[i] & 7];
  return y;
}
CORVANE_INLINE i32x16 select_bits(std::int32_t mask, i32x16 if_set, i32x16 if_clear) {
  return (if_set & mask) | (if_clear & ~mask);
}
CORVANE_INLINE i32x16 select(std::uint16_t mask, i32x16 if_set, i32x16 if_clear) {
  const i32x16 lane_bit = {1 << 0, 1 << 1, 1 << 2,  1 << 3,  1 << 4,  1 << 5,  1 << 6,  1 << 7,
                           1 << 8, 1 << 9, 1 << 10, 1 << 11, 1 << 12, 1 << 13, 1 << 14, 1 << 15};
  const i32x16 set = (i32x16)((splat(std::int32_t{mask}) & lane_bit) != 0);
  return (if_set & set) | (if_clear & ~set);
}
CORVANE_INLINE f32x16 select(std::uint16_t mask, f32x16 if_set, f32x16 if_clear) {
  return as_float(select(mask, as_int(if_set), as_int(if_clear)));
}
CORVANE_INLINE f32x16 lookup32(f32x16 low, f32x16 high, i32x16 index) {
  const i32x16 upper = (i32x16)((index & 16) != 0);
  return as_float((as_int(lookup16(high, index)) & upper) | (as_int(lookup16(low, index)) & ~upper));
}
CORVANE_INLINE f32x16 lookup32(f32x16 low, f32x16 high, i32x16 index, std::uint16_t mask) {
  return select(mask, lookup16(high, index), lookup16(low, index));
}
CORVANE_INLINE f32x16 narrow_to_float(f64x8 low, f64x8 high) {
  f32x16 y;
  for (int i = 0; i < 8; ++i) {
    y[i] = static_cast<float>(low[i]);
    y[i + 8] = static_cast<float>(high[i]);
  }
  return y;
}
// Contracted where the processor can; elsewhere float and double round twice. The product of two Halfs is exact in
// float, so that its sum rounds once anywhere.
CORVANE_INLINE f32x16 fused_multiply_add(f32x16 a, f32x16 b, f32x16 c) { return a * b + c; }
CORVANE_INLINE f64x8 fused_multiply_add(f64x8 a, f64x8 b, f64x8 c) { return a * b + c; }

// 32 bytes of memory, and the same again.
CORVANE_INLINE i32x16 load_twice(const void* from) {
  using i32x8 = std::int32_t __attribute__((vector_size(32)));
  const auto half = load_bytes<i32x8>(from);
  return __builtin_shufflevector(half, half, 0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7);
}

// 16 bytes of memory, four times.
CORVANE_INLINE i32x16 load_four_times(const void* from) {
  using i32x4 = std::int32_t __attribute__((vector_size(16)));
  const auto quarter = load_bytes<i32x4>(from);
  return __builtin_shufflevector(quarter, quarter, 0, 1, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3);
}

// Each of four floats in memory in four lanes.
CORVANE_INLINE f32x16 splat_quarters(const float* from) {
  f32x16 x;
  for (int t = 0; t < 16; ++t) x[t] = from[t / 4];
  return x;
}

}  // namespace sycl
