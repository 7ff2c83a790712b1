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
  static CORVANE_INLINE simd<T, 16> value_in_words(sycl::i32x16 words, unsigned i) {
    return fp8_e4m3_reader::value_in_words<T, false>(words, i);
  }
};

template <int32_t Id>
using systolic_reader_of = std::conditional_t<Id == qtype_fp8_e4m3, fp8_e4m3_systolic, scaled_reader_of<Id>>;

// Elements k to k + 3 of 16 columns, of whose words the codes are; nibbles: or the 32 further ones, of run 1.
template <class Reader>
CORVANE_INLINE void put(weight_tile<Half>& tile, unsigned k, unsigned strip, sycl::i32x16 words, unsigned run) {
  for (unsigned i = 0; i < 4; ++i) {
    f32x16 element;
    if constexpr (nibble_reader<Reader>) {
      element = Reader::template value_in_words<float>(words, i, run).r[0];
    } else {
      element = Reader::template value_in_words<float>(words, i).r[0];
    }
    std::memcpy(&tile.cell[32 * run + k + i][16 * strip], &element, sizeof(element));
  }
}
template <class Reader>
CORVANE_INLINE void put(weight_tile<BFloat16>& tile, unsigned k, unsigned strip, sycl::i32x16 words, unsigned run) {
  for (unsigned i = 0; i < 2; ++i) {
    sycl::i32x16 pair;
    if constexpr (nibble_reader<Reader>) {
      pair = Reader::bfloat16_pair_in_words(words, i, run);
    } else {
      const auto value = [&](unsigned n) { return Reader::template value_in_words<float>(words, n).r[0]; };
      pair = sycl::pair_of(value(i), value(i + 2));
    }
    std::memcpy(&tile.cell[16 * run + k / 2 + i][16 * strip], &pair, sizeof(pair));
  }
}

template <class Reader, class WT>
void expand(const weight_columns& columns, uint64_t b, weight_tile<WT>& tile) {
  constexpr unsigned bytes = Reader::code_bytes, runs = nibble_reader<Reader> ? 2 : 1;
  static_assert(bytes * runs == QK);
  for (unsigned strip = 0; strip < strips; ++strip) {
    const uint8_t* column[16];
    for (unsigned i = 0; i < 16; ++i) {
      column[i] = columns.codes[16 * strip + i] + b * bytes;
      sycl::prefetch(column[i] + 64);  // 32 streams are too many for the host to foresee; one line ahead is enough
    }
    sycl::i32x16 words[bytes / 4];
    sycl::transpose_words(column, words);
    for (unsigned q = 0; q < bytes / 4; ++q) {
      for (unsigned run = 0; run < runs; ++run) put<Reader>(tile, 4 * q, strip, words[q], run);
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
