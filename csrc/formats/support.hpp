// What the system offers for each format: one row a format. Every list of formats elsewhere is made from this table.
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "formats/registry.hpp"

namespace corvane {

// Sizes of a launch. They describe the launch and its record; rows may be taken together in other numbers.
struct launch_sizes {
  int sub_group;        // required sub-group size; 0: none
  unsigned work_group;  // work-items of a group, along dimension 0
  unsigned rows;        // output rows that a group makes; a divisor of 16
};

// A kernel whose sizes follow the device class, of which 0 and 5 may have their own.
struct sized_kernel {
  const char* name = nullptr;  // null: the format has no such kernel
  launch_sizes on_class_0{32, 64, 2}, on_class_5{16, 32, 2}, elsewhere{16, 32, 2};
  bool on_other_classes = true;  // classes 1 to 4 have it too

  constexpr bool on(uint8_t device_class) const {
    return name != nullptr && (on_other_classes || device_class == 0 || device_class == 5);
  }
  constexpr const launch_sizes& sizes(uint8_t device_class) const {
    return device_class == 0 ? on_class_0 : device_class == 5 ? on_class_5 : elsewhere;
  }
};

// How the kernel of one input row reads a weight row.
enum class row_scheme : uint8_t {
  units,      // 64 elements at a time, lanes over neighbouring elements
  chunks,     // a super-block at a time, a lane for each 16 elements
  eight_bit,  // super-blocks against the input as 8-bit blocks: integer dot products
};

struct row_support {
  sized_kernel kernel = {};
  row_scheme scheme = row_scheme::units;
  unsigned multiple = 16;  // the launch refuses a state_size that is no multiple of it
};

struct small_batch_support {
  const char* kernel = nullptr;
  int64_t most_rows = 0;
  bool on_class_0 = false;
};

// --- expansion: the general family, its tile kernels, and the explicit-SIMD family ----------------------------------

struct expansion_kernel {
  const char* name = nullptr;
  unsigned items = 0;  // by rows: elements of a work-item in one pass; else work-items of a group
  bool waits = false;  // the host waits for its event
};

// What a work-group of a general kernel expands.
enum class expansion_cut : uint8_t { none, row, elements, super_block };

struct general_support {
  expansion_cut cut = expansion_cut::none;
  bool in_float = true;  // the arithmetic is in float whatever the output's type, else in that type
  expansion_kernel on_class_0 = {}, elsewhere = {};
};

enum class tile_rule : uint8_t { none, low_memory, class_1 };

struct tile_support {
  tile_rule rule = tile_rule::none;
  expansion_kernel on_class_0 = {}, elsewhere = {};
};

struct explicit_simd_rules {
  bool in_float = false;    // the arithmetic is in float, else in Half
  bool waits = false;       // the host waits for its event
  bool whole_rows = false;  // forward_new takes it only where state_size is a multiple of the block
  bool any_blocks = false;  // a last thread with fewer blocks is allowed: the format has no other expansion
};

struct explicit_simd_support {
  const char* kernel = nullptr;
  const char* label = nullptr;  // of the profiler's record
  unsigned blocks = 0;          // that a thread expands
  explicit_simd_rules rules = {};
};

// --- fused operators ------------------------------------------------------------------------------------------------

struct projection_support {
  sized_kernel kernel = {};
  unsigned multiple = 16;
  bool adds_bias = true;     // else biases are ignored
  int32_t value_format = 0;  // by which the value weight is read; 0: the same
};

struct mlp_support {
  sized_kernel kernel = {};
  const char* dispatch_label = nullptr;
  unsigned multiple = 16;
};

struct row_lookup_support {
  const char* kernel = nullptr;
  unsigned items = 0;           // of a work-group, which expands a super-block
  bool needs_all_rows = false;  // planes lie where output_size puts them: the whole weight has to be there
};

struct format_support {
  row_support one_row = {};
  small_batch_support small_batch = {};
  bool systolic = false;
  tile_support tile = {};
  explicit_simd_support explicit_simd = {};
  general_support general = {};
  bool dequant = false;  // the operator of that name expands it
  row_lookup_support row_lookup = {};
  projection_support qkv = {}, qk = {};
  mlp_support mlp = {};
};

namespace detail {

constexpr sized_kernel one_size(const char* name, launch_sizes sizes, bool on_other_classes = true) {
  return {name, sizes, sizes, sizes, on_other_classes};
}

// Two kernels that a group expands a row with.
constexpr general_support by_row(expansion_kernel on_class_0, expansion_kernel elsewhere, bool in_float = false) {
  return {expansion_cut::row, in_float, on_class_0, elsewhere};
}
constexpr general_support by(expansion_cut cut, expansion_kernel kernel) { return {cut, true, kernel, kernel}; }

constexpr std::array<format_support, 32> make_support() {
  using enum expansion_cut;
  constexpr launch_sizes eight_rows{16, 32, 8};
  std::array<format_support, 32> t{};
  t[qtype_q4_0] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_q4_0_2x16", .on_class_5 = eight_rows}},
      .small_batch = {"qlinear_xpu_kernel_q4_0_2x16_by_batch", 7, false},
      .systolic = true,
      .tile = {tile_rule::low_memory,
               {"qlinear_xpu_tile_dequantize_kernel_q4_0_1x4", 4, false},
               {"qlinear_xpu_tile_dequantize_kernel_q4_0_1x2", 2, true}},
      .explicit_simd = {"dequantize_q4_0_kernel", "dequantize q4_0", 8},
      .general = by_row({"qlinear_xpu_dequantize_kernel_q4_0_1x4", 4}, {"qlinear_xpu_dequantize_kernel_q4_0_1x2", 2}),
      .dequant = true,
      .qkv = {.kernel = {.name = "qlinear_xpu_kernel_q4_0_2x16_qkv"}},
      .mlp = {{.name = "mlp_forward_q4_0_kernel", .on_class_5 = eight_rows}, "mlp_forward_q4_0_xpu_t"},
  };
  t[qtype_q4_1] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_q4_1_2x16"}},
      .explicit_simd = {"dequantize_q4_1_kernel", "dequantize q4_1", 8},
      .general = by_row({"qlinear_xpu_dequantize_kernel_q4_1_1x4", 4}, {"qlinear_xpu_dequantize_kernel_q4_1_1x2", 2}),
      .dequant = true,
  };
  t[qtype_q5_0] = {
      .one_row = {.kernel = {"qlinear_xpu_kernel_q5_0", {32, 64, 1}, {16, 32, 1}, {16, 32, 1}}, .multiple = 1},
      .general = by(elements, {"qlinear_xpu_dequantize_kernel_q5_0", 256, true}),
  };
  t[qtype_q5_1] = {
      .one_row = {.kernel = {"qlinear_xpu_kernel_q5_1", {32, 64, 1}, {16, 32, 1}, {16, 32, 1}}, .multiple = 1},
      .general = by(elements, {"qlinear_xpu_dequantize_kernel_q5_1", 256, false}),
  };
  t[qtype_q8_0] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_q8_0_2x8"}, .multiple = 8},
      .systolic = true,
      .tile = {tile_rule::class_1, {}, {"qlinear_xpu_tile_dequantize_kernel_q8_0_1x1", 1, true}},
      .explicit_simd = {"dequantize_q8_0_kernel", "dequantize q8_0", 4},
      .general = by_row({"qlinear_xpu_dequantize_kernel_q8_0_1x2", 2}, {"qlinear_xpu_dequantize_kernel_q8_0_1x1", 1}),
      .dequant = true,
  };
  t[qtype_nf4] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_nf4_2x16"}},
      .small_batch = {"qlinear_xpu_kernel_nf4_2x16_batch", 14, true},
      .general = by_row({"qlinear_xpu_dequantize_kernel_nf4_1x4", 4, true},
                        {"qlinear_xpu_dequantize_kernel_nf4_1x2", 2, true}),
      .dequant = true,
  };
  t[qtype_nf3] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_nf3_2x16"}},
      .general = by(elements, {"qlinear_xpu_dequantize_kernel_nf3_new", 256, true}),
  };
  t[qtype_fp8_e4m3] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_fp8_e4m3_2x8"}, .multiple = 8},
      .systolic = true,
      .explicit_simd = {"dequantize_fp8_e4m3_kernel", "dequantize fp8 e4m3", 4, {.any_blocks = true}},
  };
  t[qtype_fp4] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_fp4_2x16"}},
      .explicit_simd = {"dequantize_fp4_kernel", "dequantize fp4", 8},
      .general = by_row({"qlinear_xpu_dequantize_kernel_fp4_1x4", 4}, {"qlinear_xpu_dequantize_kernel_fp4_1x2", 2}),
      .dequant = true,
      .qkv = {.kernel = {.name = "qlinear_xpu_kernel_fp4_2x16_qkv"}},
      .mlp = {{.name = "mlp_forward_fp4_kernel"}, "mlp_forward_fp4_xpu_t"},
  };
  t[qtype_fp8_e5m2] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_fp8_e5m2_2x8"}, .multiple = 8},
      .systolic = true,
      .tile = {tile_rule::class_1, {}, {"qlinear_xpu_tile_dequantize_kernel_fp8_e5m2_1x1", 1, true}},
      // The values are Halfs without any arithmetic: float holds them on their way to another type.
      .explicit_simd = {"dequantize_fp8_e5m2_kernel", "dequantize fp8 e5m2", 4, {.in_float = true}},
      .general = by_row({"qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2", 2},
                        {"qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1", 1}, true),
      .dequant = true,
      .qkv = {.kernel = {.name = "qlinear_xpu_kernel_fp8_e5m2_2x8_qkv"}, .multiple = 8},
      .mlp = {{.name = "mlp_forward_fp8_e5m2_kernel"}, "mlp_forward_fp8_e5m2_xpu_t", 8},
  };
  t[qtype_iq2_xxs] = {
      .one_row = {one_size("qlinear_xpu_kernel_iq2_xxs_q8_1", {32, 32, 2}), row_scheme::eight_bit, 1},
      .general = by(super_block, {"qlinear_xpu_dequantize_kernel_iq2_xxs", 32, true}),
      .dequant = true,
      .qkv = {one_size("qlinear_xpu_kernel_iq2_xxs_qkv", {32, 32, 2}), 1, false, qtype_q2_k},
      .qk = {one_size("qlinear_xpu_kernel_iq2_xxs_qk", {32, 32, 2}), 1, false},
      .mlp = {one_size("mlp_forward_iq2_xxs_kernel", {32, 32, 2}, false), "mlp_forward_iq2_xxs_xpu", 1},
  };
  t[qtype_q2_k] = {
      .one_row = {one_size("qlinear_xpu_kernel_q2_k_q8_1", {0, 32, 1}), row_scheme::eight_bit, 1},
      .general = by(super_block, {"qlinear_xpu_dequantize_kernel_q2_k", 64, true}),
      .row_lookup = {"xpu_dequantize_rows_kernel_q2_k", 64},
  };
  t[qtype_iq1_s] = {
      .one_row = {one_size("qlinear_xpu_kernel_iq1_s_q8_1", {32, 32, 1}), row_scheme::eight_bit, 1},
      .general = by(super_block, {"qlinear_xpu_dequantize_kernel_iq1_s", 32, true}),
  };
  t[qtype_q6_k] = {
      .one_row = {{.name = "qlinear_xpu_kernel_q6_k_2x16"}, row_scheme::chunks},
      .explicit_simd = {"dequantize_q6_k_kernel", "dequantize q6_k", 2, {.in_float = true, .whole_rows = true}},
      .general = by(super_block, {"qlinear_xpu_dequantize_kernel_q6_k", 64, false}),
  };
  t[qtype_q4_k] = {
      .one_row = {{.name = "qlinear_xpu_kernel_q4_k_2x16"}, row_scheme::chunks},
      .explicit_simd = {"dequantize_q4_k_kernel", "dequantize q4_k", 2, {.in_float = true, .whole_rows = true}},
      .general = by(super_block, {"qlinear_xpu_dequantize_kernel_q4_k", 32, false}),
      .row_lookup = {"xpu_dequantize_rows_kernel_q4_k", 32, true},
  };
  t[qtype_q5_k] = {
      .one_row = {one_size("qlinear_xpu_kernel_q5_k", {8, 32, 2}), row_scheme::chunks, 64},
      .general = by(super_block, {"qlinear_xpu_dequantize_kernel_q5_k", 64, false}),
  };
  t[qtype_fp6] = {
      .one_row = {.kernel = {.name = "qlinear_xpu_kernel_fp6_2x16"}},
      .explicit_simd = {"dequantize_fp6_kernel", "dequantize fp6", 8},
      .qkv = {one_size("qlinear_xpu_kernel_fp6_qkv", {32, 64, 2})},
      .mlp = {{.name = "mlp_forward_fp6_kernel", .on_class_5 = eight_rows}, "mlp_forward_fp6_xpu_t"},
  };
  t[qtype_fp6_k] = {
      .one_row = {{.name = "qlinear_xpu_kernel_fp6_k_2x16"}, row_scheme::chunks},
      .explicit_simd = {"dequantize_fp6_k_kernel", "dequantize fp6_k", 2, {.waits = true}},
  };
  return t;
}

// Ends the compilation if it does not hold; the compiler shows the sentence.
constexpr void require(bool holds, const char* sentence) {
  if (!holds) throw sentence;
}

constexpr void require_sizes(const sized_kernel& kernel, unsigned multiple) {
  if (kernel.name == nullptr) return;
  for (const launch_sizes& s : {kernel.on_class_0, kernel.on_class_5, kernel.elsewhere}) {
    require(s.work_group != 0 && s.rows != 0 && 16 % s.rows == 0, "a launch has work-items and a divisor of 16 rows");
  }
  require(multiple != 0, "a state_size is held against a multiple above 0");
}

constexpr void require_expansion(const format_support& s, bool super_blocks) {
  const bool by_general = s.general.cut != expansion_cut::none, by_rows = s.general.cut == expansion_cut::row;
  const bool by_tiles = s.tile.rule != tile_rule::none;
  const auto whole = [](const expansion_kernel& k) { return k.name != nullptr && k.items != 0; };
  require(by_general || s.explicit_simd.kernel != nullptr, "a format has an expansion, for several rows");
  require(by_general || (!s.dequant && !by_tiles && s.row_lookup.kernel == nullptr),
          "dequant, tiles and row look-up are the general family's");
  require(!by_general || whole(s.general.elsewhere), "a general expansion has a name and items");
  require(!by_rows || (whole(s.general.on_class_0) && !super_blocks), "a row is cut in blocks of 64, on every class");
  require(!by_tiles || (whole(s.tile.elsewhere) && by_rows), "tiles are rows");
  require(s.tile.rule != tile_rule::low_memory || whole(s.tile.on_class_0), "low memory is a rule of every class");
  require(s.explicit_simd.kernel == nullptr || (s.explicit_simd.label != nullptr && s.explicit_simd.blocks != 0),
          "an explicit-SIMD kernel has a label and blocks of a thread");
  require(s.row_lookup.kernel == nullptr || (super_blocks && s.row_lookup.items != 0),
          "row look-up is by super-blocks");
}

// A row has what the code that reads it calls, names and divides by. What is no format has no row.
constexpr bool rows_are_complete(const std::array<format_support, 32>& t) {
  for (int32_t id = 0; id < 32; ++id) {
    const format_support& s = t[id];
    const bool super_blocks = registry[id].block_elements == 256;
    require((s.one_row.kernel.name != nullptr) == is_format(id), "exactly the formats have a kernel for one row");
    if (!is_format(id)) continue;
    require(super_blocks == (s.one_row.scheme != row_scheme::units), "super-blocks are read by chunks or in 8 bits");
    require_sizes(s.one_row.kernel, s.one_row.multiple);
    require_sizes(s.qkv.kernel, s.qkv.multiple);
    require_sizes(s.qk.kernel, s.qk.multiple);
    require_sizes(s.mlp.kernel, s.mlp.multiple);
    require(s.small_batch.kernel == nullptr || s.small_batch.most_rows > 1, "a small batch has several rows");
    require(s.mlp.kernel.name == nullptr || s.mlp.dispatch_label != nullptr, "the MLP's dispatch has a label");
    require_expansion(s, super_blocks);
  }
  return true;
}

}  // namespace detail

inline constexpr std::array<format_support, 32> support = detail::make_support();
static_assert(detail::rows_are_complete(support));

// How many formats have a thing: what lists of kernels by name are held against.
template <class Has>
constexpr unsigned count_formats(const Has& has) {
  unsigned count = 0;
  for (int32_t id = 0; id < 32; ++id) count += is_format(id) && has(support[id]);
  return count;
}

template <int32_t Id>
using format_constant = std::integral_constant<int32_t, Id>;

// Calls f(format_constant<id>) if `has` holds for the id's support row; returns whether it did. What f does is compiled
// for those formats alone.
template <auto has, class F>
bool with_format(int32_t id, const F& f) {
  return [&]<std::size_t... N>(std::index_sequence<N...>) {
    const auto try_one = [&]<int32_t Id>(format_constant<Id> constant) {
      if constexpr (is_format(Id) && has(support[Id])) {
        if (id == Id) return f(constant), true;
      }
      return false;
    };
    return (try_one(format_constant<static_cast<int32_t>(N)>{}) || ...);
  }
  (std::make_index_sequence<32>{});
}

}  // namespace corvane
