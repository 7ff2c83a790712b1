// forward_new, dequant and dequantize_rows against the reference.
#include <algorithm>
#include <cmath>
#include <sstream>

#include "frame/device_class.hpp"
#include "fuzz/surface.hpp"
#include "module/linear_xpu.hpp"

namespace fuzz {
namespace {

bool is_one_of(int32_t qtype, std::initializer_list<int32_t> list) {
  return std::find(list.begin(), list.end(), qtype) != list.end();
}

bool is_float_or_half(at::ScalarType dtype) { return dtype == at::kFloat || dtype == at::kHalf; }

bool takes_systolic_path(int32_t qtype, int64_t rows, int64_t output_size, const environment& set) {
  if (!set.systolic_allowed || rows < 2 || output_size % 16 != 0 || !is_one_of(qtype, {2, 8, 15, 19})) return false;
  switch (corvane::class_at_load.linear) {
    case 0:
      return rows <= 16;
    case 1:
    case 2:
      return rows <= 64 && (qtype == 15 || rows >= 7);
    default:
      return false;
  }
}

// On the systolic path an element type that it does not have ends the process, as documented: there is nothing to
// find in such a call.
bool would_end_process(const at::Tensor& input, const at::Tensor& weight, int32_t qtype, const environment& set) {
  const format* f = format_of(qtype);
  if (f == nullptr || input.dim() < 2 || weight.dim() < 1 || input.size(1) < 1 || weight.size(0) >> 32 != 0)
    return false;
  const int64_t output_size = weight.size(0) / f->block_bytes * f->block_elements / input.size(1);
  const bool has_kernel = is_float_or_half(input.scalar_type()) || input.scalar_type() == at::kBFloat16;
  return !has_kernel && takes_systolic_path(qtype, input.size(0), output_size, set);
}

void check_shape(const char* name, const at::Tensor& t, at::IntArrayRef sizes, at::ScalarType dtype) {
  if (t.sizes() == sizes && t.scalar_type() == dtype && t.is_xpu()) return;
  std::ostringstream text;
  text << t.toString() << t.sizes() << ", not " << sizes;
  wrong("%s returned a %s", name, text.str().c_str());
}

// One element of an expansion: each of at most four operations rounds.
expected expanded(int32_t qtype, const uint8_t* weight, size_t blocks, int64_t index, const precision& p) {
  const element w = decode(qtype, weight, blocks, static_cast<size_t>(index));
  const bool is_nan_code = std::isnan(w.value) && std::isfinite(w.scale);
  return {w.value, 4 * p.unit * w.magnitude + p.smallest * (256 + w.scale),
          is_nan_code || std::max(w.magnitude, w.scale) < p.largest};
}

}  // namespace

void forward_new(byte_source& source, const environment& set) {
  const int32_t qtype = pick_qtype(source);
  const at::ScalarType dtype = source.pick(floating_types);
  const contents c = pick_contents(source);
  const weight_shape shape(source, qtype);
  const int64_t rows = (source.below(42) + 1) % 42;
  const int64_t row_hint = source.count(source.below(2) != 0 ? 200 : rows);
  tensor_maker make(source, source.word(4));
  const at::Tensor weight = make_weight(make, source, qtype, shape);
  const at::Tensor input = make.floats({rows, shape.state_size}, dtype, c);
  if (would_end_process(input, weight, qtype, set)) return;

  const bool systolic = takes_systolic_path(qtype, rows, shape.output_size, set);
  const bool has_expansion = is_float_or_half(dtype)
                                 ? !is_one_of(qtype, {29, 30}) || shape.state_size * shape.output_size % 512 == 0
                                 : !is_one_of(qtype, {15, 29, 30});
  const bool good = !make.distorted() && format_of(qtype) != nullptr && shape.rows_begin_on_blocks() && set.valid &&
                    rows > 0 && shape.output_size > 0 && (rows == 1 || systolic || has_expansion);
  at::Tensor result;
  if (!answers("forward_new", good, make.on_cpu(),
               [&] { result = corvane::linear_forward_new(input, weight, qtype, row_hint); })) {
    return;
  }
  if (make.distorted() || !shape.fits()) return;
  check_shape("forward_new", result, {rows, shape.output_size}, dtype);
  if (make.unusual()) return;

  const bool small_batch =
      !systolic && ((qtype == 2 && corvane::class_at_load.linear != 0 && rows <= 7) || (qtype == 10 && rows <= 14));
  const bool in_half =
      dtype == at::kFloat && rows != 1 && !small_batch;  // the systolic unit and explicit-SIMD expansions
  const precision p = precision_of(in_half ? at::kHalf : dtype);
  const bool quantised = rows == 1 && is_one_of(qtype, {21, 23, 24});
  const std::vector<double> x = values_of(input);
  for_some(rows * shape.output_size, 16, [&](int64_t i) {
    const int64_t r = i / shape.output_size, n = i % shape.output_size;
    const auto first = x.begin() + r * shape.state_size;
    const expected e = dot({first, first + shape.state_size}, qtype, weight.data_ptr<uint8_t>(), shape.blocks(),
                           static_cast<size_t>(n), systolic ? reading::systolic : reading::plain, p, quantised);
    const double answer = value_at(result, i);
    if (!agrees(answer, e)) {
      wrong("forward_new: %s, %s, %ld rows, %ld x %ld: [%ld, %ld] is %.9g, the reference %.9g with a tolerance of %.3g",
            format_of(qtype)->name, c10::toString(dtype), rows, shape.output_size, shape.state_size, r, n, answer,
            e.value, e.tolerance);
    }
  });
}

void dequant(byte_source& source) {
  const int32_t qtype = pick_qtype(source);
  const at::ScalarType dtype = source.pick(floating_types);
  const weight_shape shape(source, qtype);
  tensor_maker make(source, source.word(4));
  const at::Tensor weight = make_weight(make, source, qtype, shape);
  const at::Tensor input = make.floats({source.below(3), shape.state_size}, dtype, contents::any);
  const bool good = !make.distorted() && format_of(qtype) != nullptr && shape.rows_begin_on_blocks();
  at::Tensor result;
  if (!answers("dequant", good, make.on_cpu(), [&] { result = corvane::dequant(input, weight, qtype); }) ||
      make.distorted())
    return;
  if (!shape.fits()) return;
  check_shape("dequant", result, {shape.output_size, shape.state_size}, dtype);
  if (!is_one_of(qtype, {2, 3, 8, 10, 16, 19, 21})) return;  // allocated and not written

  const precision p = precision_of(dtype);
  for_some(static_cast<int64_t>(shape.blocks()) * shape.block_elements, 100, [&](int64_t i) {
    const expected e = expanded(qtype, weight.data_ptr<uint8_t>(), shape.blocks(), i, p);
    const double answer = value_at(result, i);
    if (!agrees(answer, e)) {
      wrong("dequant: %s, %s, %ld x %ld: element %ld is %.9g, the reference %.9g with a tolerance of %.3g",
            format_of(qtype)->name, c10::toString(dtype), shape.output_size, shape.state_size, i, answer, e.value,
            e.tolerance);
    }
  });
}

void dequantize_rows(byte_source& source) {
  const int32_t qtype = source.rarely() ? pick_qtype(source) : source.below(2) != 0 ? 27 : 23;
  const weight_shape shape(source, qtype);
  const int64_t state_size = source.count(shape.state_size), output_size = source.count(shape.output_size);
  tensor_maker make(source, source.word(4));
  const at::Tensor weight = make_weight(make, source, qtype, shape);
  const at::Tensor numbers = make.integers({source.below(4), source.below(4)}, at::kLong, shape.output_size);
  const bool as_made = !make.distorted() && state_size == shape.state_size && output_size == shape.output_size;
  const bool good = as_made && format_of(qtype) != nullptr && shape.rows_begin_on_blocks();
  at::Tensor result;
  if (!answers("dequantize_rows", good, make.on_cpu(),
               [&] { result = corvane::dequantize_rows(numbers, weight, qtype, state_size, output_size); }) ||
      !good) {
    return;
  }
  check_shape("dequantize_rows", result, {numbers.size(0), numbers.size(1), state_size}, at::kFloat);
  if (!is_one_of(qtype, {23, 27})) return;
  for_some(result.numel(), 100, [&](int64_t i) {
    const int64_t row = numbers.data_ptr<int64_t>()[i / state_size];
    const expected e = expanded(qtype, weight.data_ptr<uint8_t>(), shape.blocks(), row * state_size + i % state_size,
                                precision_of(at::kFloat));
    const double answer = value_at(result, i);
    if (!agrees(answer, e)) {
      wrong("dequantize_rows: %s, %ld x %ld: element %ld, of row %ld, is %.9g, the reference %.9g",
            format_of(qtype)->name, output_size, state_size, i, row, answer, e.value);
    }
  });
}

}  // namespace fuzz
