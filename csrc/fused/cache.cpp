#include "fused/cache.hpp"

#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace corvane {
namespace {

using wide = __int128;  // products of any two 64-bit numbers

[[noreturn]] void fail_for(const argument& cache, const origin& where, const std::string& problem) {
  std::ostringstream text;
  text << cache.name << " " << problem << ": sizes " << cache.tensor.sizes() << ", strides " << cache.tensor.strides();
  fail(where, text.str());
}

}  // namespace

at::Tensor longer_view(const argument& cache, const origin& where) {
  const at::Tensor& tensor = cache.tensor;
  if (tensor.dim() != 4) {
    fail(where, std::string(cache.name) + " must have four dimensions, found " + std::to_string(tensor.dim()));
  }
  std::vector<int64_t> sizes = tensor.sizes().vec();
  ++sizes[2];
  return tensor.as_strided(sizes, tensor.strides());
}

void check_room(const argument& cache, int64_t heads, int64_t head_size, int64_t kv_seq_len, const origin& where) {
  const at::Tensor& tensor = cache.tensor;
  if (kv_seq_len < 0) fail(where, "kv_seq_len must not be negative, found " + std::to_string(kv_seq_len));
  if (tensor.size(0) != 1 || tensor.size(1) < heads || tensor.size(3) < head_size) {
    fail_for(cache, where,
             "must have room for one row of " + std::to_string(heads) + " heads of " + std::to_string(head_size) +
                 " elements");
  }
  if (tensor.stride(3) != 1) fail_for(cache, where, "must be dense in its last dimension");
  if (heads == 0) return;

  // The first elements of a head and of a position are as far apart as the strides say. Vectors do not meet if the
  // smaller stride steps over one, and the larger over all of the smaller's steps and one. Positions behind the one
  // that is written are not asked: heads may lie so close that those of the longer view meet the next head.
  const wide positions = wide{kv_seq_len} + 1;
  struct axis {
    wide stride, count;
  } inner{tensor.stride(1), heads}, outer{tensor.stride(2), positions};
  if (outer.stride < inner.stride) std::swap(inner, outer);
  const bool inner_apart = inner.count == 1 || inner.stride >= head_size;
  const bool outer_apart = outer.count == 1 || outer.stride >= (inner.count - 1) * inner.stride + head_size;
  if (!inner_apart || !outer_apart) {
    fail_for(cache, where, "must keep heads and positions apart, up to position " + std::to_string(kv_seq_len));
  }

  const auto behind_last = wide{tensor.storage_offset()} + wide{heads - 1} * tensor.stride(1) +
                           wide{kv_seq_len} * tensor.stride(2) + head_size;
  const auto stored = static_cast<int64_t>(tensor.storage().nbytes() / tensor.itemsize());
  if (behind_last > stored) {
    fail_for(cache, where,
             "must have room at position " + std::to_string(kv_seq_len) + " in its storage of " +
                 std::to_string(stored) + " elements");
  }
}

}  // namespace corvane
