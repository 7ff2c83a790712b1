#include "formats/registry.hpp"

#include <limits>
#include <string>

namespace corvane {

void check_format(int64_t id, const origin& where) {
  if (!is_format(id)) fail(where, "qtype " + std::to_string(id) + " does not name a weight format");
}

void check_elements(int64_t rows, int64_t state_size, const origin& where) {
  if (state_size != 0 && rows > std::numeric_limits<int32_t>::max() / state_size) {
    fail(where, "a packed weight holds fewer than 2147483648 elements, found " + std::to_string(rows) + " x " +
                    std::to_string(state_size));
  }
}

int64_t derive_output_size(int64_t bytes, int64_t state_size, int32_t id, const origin& where) {
  check_format(id, where);
  if (state_size < 1) fail(where, "state_size must be at least 1, found " + std::to_string(state_size));
  const format_info& format = registry[id];
  const auto blocks = static_cast<int64_t>(bytes / format.block_bytes);
  check_elements(blocks, format.block_elements, where);
  return blocks * format.block_elements / state_size;
}

}  // namespace corvane
