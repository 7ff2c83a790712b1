// Fuzzer of expert grouping: a table of the input's own numbers, of any shape, against what the result has
// to be.
#include <ATen/Functions.h>

#include "fuzz/byte_source.hpp"
#include "fuzz/moe_check.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::byte_source source(data, size);
  // Few enough that their lists are quickly made.
  const int32_t n_experts = static_cast<int16_t>(source.word(2)) - (source.rarely() ? 1 << 20 : 0);
  const unsigned shape = source.byte();
  const bool narrow_ids = source.below(2) == 0;  // a byte each, so that they often name an expert; else four
  const int64_t count = static_cast<int64_t>(source.rest_size() / (narrow_ids ? 1 : 4));
  at::Tensor table = at::empty({count}, at::kInt);
  for (int64_t i = 0; i < count; ++i) {
    table.data_ptr<int32_t>()[i] =
        narrow_ids ? static_cast<int8_t>(source.byte()) : static_cast<int32_t>(source.word(4));
  }
  const int64_t columns = 1 + shape % 8;
  switch (shape / 8 % 8) {
    case 0:
      break;  // one dimension
    case 1:
      table = table.view({1, 1, count});
      break;
    case 2:
      table = table.to(shape % 2 != 0 ? at::kLong : at::kFloat).view({1, count});
      break;
    case 3:
      table = table.view({1, count}).t();
      break;  // still contiguous
    case 4:
      table = table.narrow(0, 0, count / columns * columns).view({count / columns, columns}).t();
      break;
    case 5:
      table = at::empty({0, columns}, at::kInt);
      break;
    case 6:
      table = at::empty({columns, 0}, at::kInt);
      break;
    default:
      table = table.narrow(0, 0, count / columns * columns).view({count / columns, columns});
  }
  fuzz::check_moe(table, n_experts);
  return 0;
}
