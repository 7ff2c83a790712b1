// Path selection as a table, without running a kernel.
#include "linear/path.hpp"

#include <gtest/gtest.h>

namespace {

using namespace corvane;
using path = linear_path;
using c10::ScalarType;

struct row {
  const char* why;
  linear_call call;  // class, qtype, dtype, rows, K, N, row_hint
  tile_policy policy;
  path expected;
};

const tile_policy usual{};
const tile_policy low_memory{50000, true, 4096};

path taken(const row& r) { return select_path(r.call, {true, r.policy}).path; }

const row rows[] = {
    {"one row", {1, 2, ScalarType::Half, 1, 64, 64, 1}, usual, path::matrix_vector},
    {"class 0 from two rows", {0, 2, ScalarType::Half, 2, 64, 64, 2}, usual, path::systolic},
    {"class 0 to sixteen", {0, 15, ScalarType::Half, 16, 64, 64, 2}, usual, path::systolic},
    {"class 0 above", {0, 2, ScalarType::Half, 17, 64, 64, 2}, usual, path::explicit_simd_expansion},
    {"class 1 below seven", {1, 2, ScalarType::Half, 6, 64, 64, 2}, usual, path::small_batch},
    {"class 1 from seven", {1, 2, ScalarType::Half, 7, 64, 64, 2}, usual, path::systolic},
    {"class 2 to sixty-four", {2, 19, ScalarType::Half, 64, 64, 64, 2}, usual, path::systolic},
    {"class 1 above", {1, 2, ScalarType::Half, 65, 64, 64, 2}, usual, path::explicit_simd_expansion},
    {"fp8_e4m3 from two rows", {2, 15, ScalarType::Half, 2, 64, 64, 2}, usual, path::systolic},
    {"output no multiple of 16", {1, 2, ScalarType::Half, 7, 64, 1000, 2}, usual, path::small_batch},
    {"class 3 never", {3, 2, ScalarType::Half, 7, 64, 64, 2}, usual, path::small_batch},
    {"class 3 expands", {3, 2, ScalarType::Half, 8, 64, 64, 2}, usual, path::explicit_simd_expansion},
    {"q8_0 has no small batch", {1, 8, ScalarType::Half, 6, 64, 64, 2}, usual, path::explicit_simd_expansion},
    {"no rows", {3, 8, ScalarType::Half, 0, 64, 64, 2}, usual, path::explicit_simd_expansion},
    {"double fails the dtype test", {3, 2, ScalarType::Double, 8, 64, 64, 2}, usual, path::general_expansion},
    {"BFloat16 too", {3, 8, ScalarType::BFloat16, 8, 64, 64, 2}, usual, path::general_expansion},
    {"unit test of 8", {3, 3, ScalarType::Half, 8, 64, 12, 2}, usual, path::general_expansion},
    {"unit test of 4", {3, 8, ScalarType::Half, 8, 64, 12, 2}, usual, path::explicit_simd_expansion},
    {"fp8_e4m3 double", {3, 15, ScalarType::Double, 8, 64, 64, 2}, usual, path::refused},
    {"fp6 unit test", {3, 29, ScalarType::Half, 3, 64, 12, 2}, usual, path::refused},
    {"fp6_k", {3, 30, ScalarType::Float, 3, 256, 2, 2}, usual, path::explicit_simd_expansion},
    {"nf4 fourteen", {0, 10, ScalarType::Half, 14, 64, 64, 2}, usual, path::small_batch},
    {"nf4 fifteen", {0, 10, ScalarType::Half, 15, 64, 64, 2}, usual, path::general_expansion},
    {"q4_k even", {3, 27, ScalarType::Half, 8, 256, 2, 2}, usual, path::explicit_simd_expansion},
    {"q4_k odd", {3, 27, ScalarType::Half, 8, 256, 3, 2}, usual, path::general_expansion},
    {"q6_k row not whole", {3, 26, ScalarType::Half, 8, 320, 64, 2}, usual, path::general_expansion},
    {"q5_k", {0, 28, ScalarType::Half, 8, 256, 2, 2}, usual, path::general_expansion},
    // Tile path: strictly above the threshold and row_hint 129 for q4_0, at or above for the other two.
    {"q4_0 class 4", {4, 2, ScalarType::Half, 100, 64, 50001, 129}, usual, path::tile},
    {"q4_0 at the threshold", {4, 2, ScalarType::Half, 100, 64, 50000, 129}, usual, path::explicit_simd_expansion},
    {"q4_0 row_hint 128", {4, 2, ScalarType::Half, 100, 64, 50008, 128}, usual, path::explicit_simd_expansion},
    {"q4_0 few rows first", {4, 2, ScalarType::Half, 7, 64, 50001, 129}, usual, path::small_batch},
    {"q4_0 low memory", {0, 2, ScalarType::Half, 100, 64, 50001, 129}, low_memory, path::tile},
    {"q4_0 class 3 without", {3, 2, ScalarType::Half, 100, 64, 50008, 129}, usual, path::explicit_simd_expansion},
    {"q8_0 class 1", {1, 8, ScalarType::Half, 100, 64, 50000, 0}, usual, path::tile},
    {"q8_0 class 4", {4, 8, ScalarType::Half, 100, 64, 50000, 0}, usual, path::explicit_simd_expansion},
    {"q8_0 ignores low memory",
     {3, 8, ScalarType::Half, 100, 64, 50000, 129},
     low_memory,
     path::explicit_simd_expansion},
    {"nf4 has no tiles", {1, 10, ScalarType::Half, 100, 64, 60000, 129}, low_memory, path::general_expansion},
};

class path_table : public testing::TestWithParam<row> {};

TEST_P(path_table, holds) { EXPECT_EQ(taken(GetParam()), GetParam().expected) << GetParam().why; }

INSTANTIATE_TEST_SUITE_P(rows, path_table, testing::ValuesIn(rows));

}  // namespace
