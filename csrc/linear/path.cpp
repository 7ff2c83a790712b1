#include "linear/path.hpp"

#include "formats/registry.hpp"

namespace corvane {
namespace {

enum class tile_rule : uint8_t { none, low_memory, class_1 };

// How a format treats rows other than 1. The order of the columns is the order of the tests.
struct path_rule {
  int64_t small_batch_rows = 0;  // most rows of the small-batch kernel; 0: the format has none
  bool small_batch_on_class_0 = false;
  tile_rule tile = tile_rule::none;
  int64_t fast_units = 0;      // fast expansion needs float or Half, and this many units to divide the weight; 0: none
  int64_t unit_elements = 64;  // elements of such a unit
  linear_path otherwise = linear_path::direct_expansion;
};

path_rule rule_of(int32_t qtype) {
  constexpr auto general = linear_path::general_expansion;
  constexpr auto direct = linear_path::direct_expansion;
  constexpr auto refused = linear_path::refused;
  switch (qtype) {
    case qtype_q4_0:
      return {7, false, tile_rule::low_memory, 8, 64, general};
    case qtype_q8_0:
    case qtype_fp8_e5m2:
      return {0, false, tile_rule::class_1, 4, 64, general};
    case qtype_q4_1:
    case qtype_fp4:
      return {0, false, tile_rule::none, 8, 64, general};
    case qtype_nf4:
      return {14, true, tile_rule::none, 0, 64, direct};
    case qtype_fp8_e4m3:
      return {0, false, tile_rule::none, 1, 64, refused};
    case qtype_fp6:
    case qtype_fp6_k:
      return {0, false, tile_rule::none, 8, 64, refused};
    case qtype_q4_k:
    case qtype_q6_k:
      return {0, false, tile_rule::none, 2, 256, direct};
    default:
      return {};  // q5_0, q5_1, nf3, q2_k, q5_k and the grid formats: direct expansion alone
  }
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

bool takes_fast_expansion(const path_rule& rule, const linear_call& call) {
  if (rule.fast_units == 0) return false;
  if (call.dtype != c10::ScalarType::Float && call.dtype != c10::ScalarType::Half) return false;
  if (rule.unit_elements > 64 && call.state_size % rule.unit_elements != 0) return false;
  return (call.output_size * call.state_size / rule.unit_elements) % rule.fast_units == 0;
}

}  // namespace

bool takes_systolic_path(const linear_call& call, bool allowed) {
  if (!allowed || call.rows < 2 || call.output_size % 16 != 0) return false;
  if (call.qtype != qtype_q4_0 && call.qtype != qtype_q8_0 && call.qtype != qtype_fp8_e4m3 &&
      call.qtype != qtype_fp8_e5m2) {
    return false;
  }
  if (call.device_class == 0) return call.rows <= 16;
  if (call.device_class > 2) return false;
  return call.rows <= 64 && (call.qtype == qtype_fp8_e4m3 || call.rows >= 7);
}

bool reads_tile_policy(int32_t qtype) { return rule_of(qtype).tile != tile_rule::none; }

linear_path select_path(const linear_call& call, const tile_policy& policy) {
  if (call.rows == 1) return linear_path::matrix_vector;
  const path_rule rule = rule_of(call.qtype);
  const bool has_small_batch = rule.small_batch_rows != 0 && (rule.small_batch_on_class_0 || call.device_class != 0);
  if (has_small_batch && call.rows <= rule.small_batch_rows) return linear_path::small_batch;
  if (takes_tile_path(rule.tile, call, policy)) return linear_path::tile;
  return takes_fast_expansion(rule, call) ? linear_path::fast_expansion : rule.otherwise;
}

}  // namespace corvane
