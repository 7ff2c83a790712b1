#include "linear/path.hpp"

#include "formats/support.hpp"
#include "linear/policy.hpp"

namespace corvane {
namespace {

bool takes_systolic_path(const format_support& offers, const linear_call& call) {
  if (!systolic_allowed() || !offers.systolic || call.rows < 2 || call.output_size % 16 != 0) return false;
  if (call.device_class == 0) return call.rows <= 16;
  if (call.device_class > 2) return false;
  return call.rows <= 64 && (call.qtype == qtype_fp8_e4m3 || call.rows >= 7);
}

bool takes_small_batch(const small_batch_support& offers, const linear_call& call) {
  if (offers.kernel == nullptr || (call.device_class == 0 && !offers.on_class_0)) return false;
  return call.rows <= offers.most_rows;
}

bool takes_tile_path(tile_rule rule, const linear_call& call, const tile_policy& policy) {
  switch (rule) {
    case tile_rule::none:
      return false;
    case tile_rule::low_memory:
      return (call.device_class == 4 || policy.low_memory) && policy.threshold < call.output_size &&
             call.row_hint >= 129;
    case tile_rule::class_1:
      return call.device_class == 1 && policy.threshold <= call.output_size;
  }
  return false;
}

// float or Half, and as many whole units of 64 elements (of super-blocks, for some) as make whole threads.
bool takes_explicit_simd(const explicit_simd_support& offers, const linear_call& call) {
  if (offers.kernel == nullptr) return false;
  if (call.dtype != c10::ScalarType::Float && call.dtype != c10::ScalarType::Half) return false;
  if (offers.rules.any_blocks) return true;
  const int64_t block = registry[call.qtype].block_elements, elements = call.output_size * call.state_size;
  if (offers.rules.whole_rows) return call.state_size % block == 0 && elements / block % offers.blocks == 0;
  return elements / unit_elements % (offers.blocks * block / unit_elements) == 0;
}

}  // namespace

path_choice select_path(const linear_call& call) {
  const format_support& offers = support[call.qtype];
  if (takes_systolic_path(offers, call)) return {linear_path::systolic};
  // Before the rows are looked at: a malformed variable fails a call of one row too.
  const tile_policy tiles = offers.tile.rule == tile_rule::none ? tile_policy{} : read_tile_policy(call.qtype);
  if (call.rows == 1) return {linear_path::matrix_vector};
  if (takes_small_batch(offers.small_batch, call)) return {linear_path::small_batch};
  if (takes_tile_path(offers.tile.rule, call, tiles)) return {linear_path::tile, tiles.tile_rows};
  if (takes_explicit_simd(offers.explicit_simd, call)) return {linear_path::explicit_simd_expansion};
  const bool has_general = offers.general.cut != expansion_cut::none;
  return {has_general ? linear_path::general_expansion : linear_path::refused};
}

}  // namespace corvane
