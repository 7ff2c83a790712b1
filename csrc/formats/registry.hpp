// The registry of weight formats: what a qtype means, how large its blocks are, how a packed tensor yields its shape.
#pragma once

#include <array>
#include <cstdint>

#include "frame/check.hpp"

namespace corvane {

// Kernels walk weight rows in units of 64 elements, numbered through the whole matrix (unit = flat element / 64).
constexpr unsigned unit_elements = 64;

struct format_info {
  const char* name = nullptr;  // null: the id names no format that an operator reads
  int32_t block_elements = 0;
  uint64_t block_bytes = 0;  // over all planes
};

// Ids of the formats.
enum qtype : int32_t {
  qtype_q4_0 = 2,
  qtype_q4_1 = 3,
  qtype_q5_0 = 6,
  qtype_q5_1 = 7,
  qtype_q8_0 = 8,
  qtype_nf4 = 10,
  qtype_nf3 = 11,
  qtype_fp8_e4m3 = 15,
  qtype_fp4 = 16,
  qtype_fp8_e5m2 = 19,
  qtype_iq2_xxs = 21,
  qtype_q2_k = 23,
  qtype_iq1_s = 24,
  qtype_q6_k = 26,
  qtype_q4_k = 27,
  qtype_q5_k = 28,
  qtype_fp6 = 29,
  qtype_fp6_k = 30,
};

namespace detail {

constexpr std::array<format_info, 32> make_registry() {
  std::array<format_info, 32> t{};
  t[qtype_q4_0] = {"q4_0", 64, 34};
  t[qtype_q4_1] = {"q4_1", 64, 36};
  t[qtype_q5_0] = {"q5_0", 64, 44};
  t[qtype_q5_1] = {"q5_1", 64, 44};
  t[qtype_q8_0] = {"q8_0", 64, 68};
  t[9] = {nullptr, 32, 36};  // sizes of an activation block; no weight format
  t[qtype_nf4] = {"nf4", 64, 34};
  t[qtype_nf3] = {"nf3", 64, 26};
  t[qtype_fp8_e4m3] = {"fp8_e4m3", 64, 68};
  t[qtype_fp4] = {"fp4", 64, 34};
  t[qtype_fp8_e5m2] = {"fp8_e5m2", 64, 68};
  t[qtype_iq2_xxs] = {"iq2_xxs", 256, 66};
  t[22] = {nullptr, 256, 74};  // sizes only
  t[qtype_q2_k] = {"q2_k", 256, 84};
  t[qtype_iq1_s] = {"iq1_s", 256, 50};
  t[25] = {nullptr, 256, 56};  // sizes only
  t[qtype_q6_k] = {"q6_k", 256, 210};
  t[qtype_q4_k] = {"q4_k", 256, 148};
  t[qtype_q5_k] = {"q5_k", 256, 176};
  t[qtype_fp6] = {"fp6", 64, 50};
  t[qtype_fp6_k] = {"fp6_k", 256, 210};
  return t;
}

}  // namespace detail

inline constexpr std::array<format_info, 32> registry = detail::make_registry();

// Whether the id names a format that has kernels. Everything below needs it to hold.
constexpr bool is_format(int64_t id) { return id >= 0 && id < 32 && registry[id].name != nullptr; }

// Refuses an id that names no format. Every operator asks this before it divides by a size.
void check_format(int64_t id, const origin& where);

// Refuses a weight of 2^31 elements or more, whose plane offsets would not fit the 32 bits that kernels compute with.
// Neither size is negative.
void check_elements(int64_t rows, int64_t state_size, const origin& where);

// Rows of a packed weight of `bytes` bytes whose rows hold `state_size` elements. Refuses a state_size below 1, and
// as check_elements does.
int64_t derive_output_size(int64_t bytes, int64_t state_size, int32_t id, const origin& where);

// Bytes before a plane of a planar weight: its blocks times the width of the planes before it. The product of the two
// sizes is a signed 32-bit one, as kernels expect it.
inline uint32_t plane_offset(uint64_t state_size, uint64_t output_size, int32_t block_elements, uint32_t bytes_before) {
  const auto elements = static_cast<int32_t>(state_size * output_size);
  return static_cast<uint32_t>(elements / block_elements) * bytes_before;
}

}  // namespace corvane
