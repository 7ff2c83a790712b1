// Constants that suit the host's processor: what a kernel may choose freely and chooses by measurement. Sanitizers and
// instruction sets matter here and nowhere else outside platform/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "platform/sycl/vector_types.hpp"

namespace sycl::tuning {

// Chains of dependent operations that are worth staging side by side. In Half and BFloat16 each operation waits for the
// rounding of the one before it; in float and double more than two only cost registers.
#if defined(__SANITIZE_ADDRESS__)  // GCC takes minutes over eight chains of instrumented code
constexpr unsigned most_chains = 2;
#elif defined(CORVANE_AVX512)
constexpr unsigned most_chains = 8;
#else  // half the registers, of half the width
constexpr unsigned most_chains = 4;
#endif
template <class T>
constexpr unsigned staged_chains = sizeof(T) == 2 ? most_chains : 2;

// Weight rows that a one-row kernel reads side by side, while it asks for those that come next. Measured in float,
// weights from memory, two threads, time with four rows and with one row prefetched 12 kB ahead, against two: q4_0 0.93
// and 0.92, q4_1 0.93 and 0.99, q5_0 0.95 and 1.0, nf3 0.93 and 1.09, fp6 0.96 and 0.98, fp8 0.97 and 0.9.
template <class T>
constexpr unsigned rows_side_by_side = std::is_same_v<T, float> ? 4 : 2;

// Sums that a weight row is spread over, unit by unit in turn: a sum waits for its own last rounding too.
template <class T>
constexpr unsigned sums_of_row = sizeof(T) == 2 ? 2 : 1;

// Chains of a lane's sum over 16 elements under one scale.
template <class T>
constexpr unsigned chunk_chains = sizeof(T) == 2 ? 4 : 2;

// Input rows of a small batch that a decoded code meets at once. In the 16-bit types the roundings are all of the cost,
// in double the registers run out.
template <class T>
constexpr unsigned inputs_together = std::is_same_v<T, float> ? 4 : 2;

// Row pairs of one matrix that follow each other in the fused projections: one stream of weights at a time.
constexpr std::size_t streamed_pairs = 32;

// An expansion's output of this size and more is stored past the caches: about what the last of them holds.
constexpr std::uint64_t uncached_output_bytes = std::uint64_t{32} << 20;

// Elements that an expansion takes at least at a time.
constexpr std::uint32_t expanded_together = 4096;

// A product of rows that are expanded on the way: rows of the input and of the weight that meet in registers, and bytes
// of a weight tile, which stays in the second-level cache beside some input.
#ifdef CORVANE_AVX512
// Eight streams a power of two apart are what the ways of the first-level cache hold; with six input rows 16 rows took
// 2.5 times the time of 8.
constexpr unsigned product_rows = 4, product_columns = 4;
#else
constexpr unsigned product_rows = 2, product_columns = 2;
#endif
// With more input rows a library that packs its operands is faster, but for BFloat16 where the processor multiplies
// pairs: 2048 x 2048 with 96 / 128 / 256 rows took 0.80 / 0.84 / 0.82 of the library's time, 4096 x 4096 0.79 / 0.84 /
// 0.81.
#ifdef __AVX512BF16__
constexpr std::size_t product_few_pairs = std::numeric_limits<std::size_t>::max();
#else
constexpr std::size_t product_few_pairs = 64;
#endif
template <class T>
constexpr std::size_t product_few_rows = std::is_same_v<T, BFloat16> ? product_few_pairs
                                         : sizeof(T) == 2            ? 24
                                                                     : 16;
constexpr std::size_t product_tile_bytes = std::size_t{256} << 10;

// Row tiles of 8 rows, and columns, that the systolic kernel takes together: a weight block is expanded once for 64
// rows.
constexpr unsigned systolic_row_tiles = 8;
constexpr unsigned systolic_columns = 32;

}  // namespace sycl::tuning
