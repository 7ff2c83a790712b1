// Packed weights of the systolic formats become operand tiles: bytes are turned from along K to across the columns, and
// the readers of the formats do the rest, 16 columns of one element where they usually take 16 elements of a row.
#include <cstring>

#include "formats/readers.hpp"
#include "sysdot/tiles.hpp"

namespace corvane {
namespace {

constexpr auto is_systolic = [](const format_support& s) { return s.systolic; };

// The zero code of fp8_e4m3 is zero here, unlike elsewhere: no midpoints.
struct fp8_e4m3_systolic : fp8_e4m3_reader {
  template <class T>
  static CORVANE_INLINE simd<T, 16> decode(raw qs, unsigned v) {
    return simd<T, 16>::exact(sycl::half_bits_to_float(half_bits<false>(qs, v)));
  }
};

template <int32_t Id>
using systolic_reader_of = std::conditional_t<Id == qtype_fp8_e4m3, fp8_e4m3_systolic, scaled_reader_of<Id>>;

CORVANE_INLINE void put(weight_tile<Half>& tile, unsigned k, unsigned strip, f32x16 even, f32x16 odd) {
  std::memcpy(&tile.cell[k][16 * strip], &even, sizeof(even));
  std::memcpy(&tile.cell[k + 1][16 * strip], &odd, sizeof(odd));
}
CORVANE_INLINE void put(weight_tile<BFloat16>& tile, unsigned k, unsigned strip, f32x16 even, f32x16 odd) {
  const sycl::i32x16 pair = sycl::pair_of(even, odd);
  std::memcpy(&tile.cell[k / 2][16 * strip], &pair, sizeof(pair));
}

template <class Reader, class WT>
void expand(const weight_columns& columns, uint64_t b, weight_tile<WT>& tile) {
  constexpr unsigned bytes = Reader::code_bytes;
  static_assert(bytes == 64 || bytes == 32, "a byte is an element, or elements j and j + 32");
  for (unsigned strip = 0; strip < strips; ++strip) {
    const uint8_t* column[16];
    for (unsigned i = 0; i < 16; ++i) {
      column[i] = columns.codes[16 * strip + i] + b * bytes;
      sycl::prefetch(column[i] + 64);  // 32 streams are too many for the host to foresee; one line ahead is enough
    }
    alignas(64) uint8_t across[16 * bytes + 16];  // a reader may load 32 bytes to make 16 elements of
    for (unsigned j = 0; j < bytes; j += 16) sycl::transpose_bytes(column, j, across + 16 * j);
    // Byte j of 16 columns is now what a reader takes for run 0 of a unit. Where it holds two elements, as in q4_0, the
    // second is j + 32, of run 2.
    for (unsigned run = 0; run < QK / bytes; ++run) {
      const auto element = [&](unsigned j) { return Reader::template decode<float>(across + 16 * j, 2 * run).r[0]; };
      for (unsigned j = 0; j < bytes; j += 2) put(tile, run * bytes + j, strip, element(j), element(j + 1));
    }
  }
}

// Scales of block b, widened from Half or as they are.
template <class Scale>
void collect_scales(const weight_columns& columns, uint64_t b, f32x16 (&scale)[strips]) {
  alignas(64) Scale gathered[tile_columns];
  for (unsigned i = 0; i < tile_columns; ++i) {
    std::memcpy(static_cast<void*>(&gathered[i]), columns.scales[i] + b * sizeof(Scale), sizeof(Scale));
  }
  for (unsigned s = 0; s < strips; ++s) scale[s] = simd<Scale, 16>::load(gathered + 16 * s).r[0];
}

}  // namespace

uint32_t code_bytes(int32_t qtype) {
  uint32_t bytes = 0;
  with_format<is_systolic>(qtype, [&](auto id) { bytes = scaled_reader_of<id>::code_bytes; });
  return bytes;
}

uint32_t scale_bytes(int32_t qtype) {
  uint32_t bytes = 0;
  with_format<is_systolic>(qtype, [&](auto id) { bytes = sizeof(typename scaled_reader_of<id>::scale_type); });
  return bytes;
}

const uint8_t* scale_plane(int32_t qtype, const uint8_t* weight, uint64_t state_size, uint64_t output_size) {
  const uint8_t* plane = weight;
  with_format<is_systolic>(
      qtype, [&](auto id) { plane = scaled_reader_of<id>::locate(weight, state_size, output_size).scales; });
  return plane;
}

template <class WT>
void expand_weights(int32_t qtype, const weight_columns& columns, uint64_t b, weight_tile<WT>& tile) {
  with_format<is_systolic>(qtype, [&](auto id) {
    collect_scales<typename scaled_reader_of<id>::scale_type>(columns, b, tile.scale);
    expand<systolic_reader_of<id>>(columns, b, tile);
  });
}

template void expand_weights<Half>(int32_t, const weight_columns&, uint64_t, weight_tile<Half>&);
template void expand_weights<BFloat16>(int32_t, const weight_columns&, uint64_t, weight_tile<BFloat16>&);

}  // namespace corvane
