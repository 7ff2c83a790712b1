// The fused projections and the gated MLP against the reference; caches keep what a call has no business with.
#include <array>
#include <cmath>
#include <optional>

#include "frame/device_class.hpp"
#include "fused/mlp.hpp"
#include "fuzz/surface.hpp"
#include "module/linear_xpu.hpp"

namespace fuzz {
namespace {

constexpr int32_t fused_formats[] = {2, 16, 19, 21, 29};

int32_t pick_fused_qtype(byte_source& source) {
  const int32_t usual = source.pick(fused_formats);
  return source.rarely() ? pick_qtype(source) : usual;
}

bool has_kernel(int32_t qtype) {
  for (const int32_t f : fused_formats) {
    if (f == qtype) return true;
  }
  return false;
}

// A cache (1, heads, length, head_size), a view into a buffer of `room` positions.
struct cache {
  at::Tensor tensor;
  std::vector<uint8_t> before;

  cache(tensor_maker& make, int64_t heads, int64_t length, int64_t room, int64_t head_size, at::ScalarType dtype) {
    const at::Tensor buffer = make.floats({1, heads, room, head_size}, dtype, contents::dense);
    tensor = make.distorted() ? buffer : buffer.narrow(2, 0, length);
    before = bytes_of(tensor);
  }
  int64_t element(int64_t head, int64_t position, int64_t e) const {  // from the tensor's first on
    return head * tensor.stride(1) + position * tensor.stride(2) + e;
  }
  // Nothing but the heads at `position` is other than before; with no position, nothing at all.
  void check_untouched(const char* name, int64_t heads, int64_t head_size, std::optional<int64_t> position) const {
    std::vector<uint8_t> now = bytes_of(tensor);
    if (position.has_value()) {
      const auto item = static_cast<int64_t>(tensor.itemsize());
      for (int64_t h = 0; h < heads; ++h) {
        const int64_t at = (tensor.storage_offset() + element(h, *position, 0)) * item;
        std::copy_n(before.begin() + at, head_size * item, now.begin() + at);
      }
    }
    if (now != before) wrong("%s wrote elsewhere in a cache", name);
  }
};

// Elements e and e + half of a head, turned to a position.
std::array<expected, 2> rotated(const expected& a, const expected& b, double angle, double angle_error,
                                const precision& p) {
  const double c = std::cos(angle), s = std::sin(angle);
  const double both = std::abs(a.value) + std::abs(b.value) + a.tolerance + b.tolerance;
  const double error = both * (angle_error + p.unit) + p.smallest;
  const bool known = a.known && b.known;
  return {expected{c * a.value - s * b.value, std::abs(c) * a.tolerance + std::abs(s) * b.tolerance + error, known},
          expected{c * b.value + s * a.value, std::abs(c) * b.tolerance + std::abs(s) * a.tolerance + error, known}};
}

// `matrices`: 3, or 2 for forward_qk.
void project(byte_source& source, const char* name, unsigned matrices, bool with_bias) {
  const int32_t qtype = matrices == 3 ? pick_fused_qtype(source) : source.rarely() ? pick_qtype(source) : 21;
  const int32_t value_qtype = qtype == 21 ? 23 : qtype;
  const auto vtype = static_cast<int32_t>(source.count(value_qtype));
  const at::ScalarType dtype = source.pick(floating_types);
  weight_shape shape(source, qtype);
  constexpr int64_t head_sizes[] = {8, 2, 16, 32, 6};
  const int64_t head_size = source.pick(head_sizes), heads = 1 + source.below(3), kv_heads = 1 + source.below(3);
  const int64_t length = source.below(5), room = length + 1 + source.below(3);
  const int64_t position = source.count(source.below(2) != 0 ? length : source.below(8));
  const int64_t said_head_size = source.count(head_size);
  constexpr float bases[] = {10000.0f, 500000.0f, 1.0f, 0.0f, -10000.0f};
  const float base = source.pick(bases);

  tensor_maker make(source, source.word(4));
  const int64_t rows[] = {heads * head_size, kv_heads * head_size, kv_heads * head_size};
  const contents c = pick_contents(source);
  const at::Tensor input = make.floats({1, shape.state_size}, dtype, c);
  std::array<weight_shape, 3> shapes{shape, shape, shape};
  std::vector<at::Tensor> weights, biases;
  const int32_t qtypes[] = {qtype, qtype, value_qtype};
  for (unsigned m = 0; m < matrices; ++m) {
    shapes[m].output_size = rows[m];
    if (const format* f = format_of(qtypes[m])) {
      shapes[m].block_elements = f->block_elements;
      shapes[m].block_bytes = f->block_bytes;
    }
    weights.push_back(make_weight(make, source, qtypes[m], shapes[m]));
    if (with_bias) biases.push_back(make.floats({rows[m]}, dtype, contents::dense));
  }
  const at::Tensor ids = make.integers({1, 1 + source.below(2)}, at::kLong, 50);
  std::vector<cache> caches;  // of the key, and of the value where there is one
  for (unsigned m = 1; m < matrices; ++m) caches.emplace_back(make, kv_heads, length, room, head_size, dtype);

  const bool good = !make.distorted() && has_kernel(qtype) && (matrices == 3 || qtype == 21) && vtype == value_qtype &&
                    shape.rows_begin_on_blocks() && position >= 0 && position < room && said_head_size == head_size;
  std::vector<at::Tensor> result;
  const bool answered = answers(name, good, make.on_cpu() && !(with_bias && qtype == 21), [&] {
    if (matrices == 2) {
      result = corvane::linear_xpu_qk(input, weights[0], weights[1], ids, caches[0].tensor, qtype, position,
                                      said_head_size, base);
    } else if (with_bias) {
      result = corvane::linear_xpu_qkv_bias(input, weights[0], weights[1], weights[2], biases[0], biases[1], biases[2],
                                            ids, caches[0].tensor, caches[1].tensor, qtype, vtype, position,
                                            said_head_size, base);
    } else {
      result = corvane::linear_xpu_qkv(input, weights[0], weights[1], weights[2], ids, caches[0].tensor,
                                       caches[1].tensor, qtype, vtype, position, said_head_size, base);
    }
  });
  if (!answered || good) {
    const auto written = answered ? std::optional(position) : std::nullopt;
    for (const cache& one : caches) one.check_untouched(name, kv_heads, head_size, written);
  }
  if (!answered || !good || make.unusual()) return;

  const precision p = precision_of(dtype);
  const std::vector<double> x = values_of(input);
  const auto token = static_cast<double>(ids.data_ptr<int64_t>()[0]);
  const int64_t half = head_size / 2;
  for (unsigned m = 0; m < matrices; ++m) {
    const auto projected = [&](int64_t row) {
      expected e = dot(x, qtypes[m], weights[m].data_ptr<uint8_t>(), shapes[m].blocks(), static_cast<size_t>(row),
                       reading::fused, p, qtype == 21);
      if (with_bias && qtype != 21) {
        const double bias = value_at(biases[m], row);
        e.tolerance += p.unit * (std::abs(e.value) + e.tolerance + std::abs(bias));
        e.value += bias;
      }
      return e;
    };
    const at::Tensor& output = m == 0 ? result[0] : caches[m - 1].tensor;
    for_some(rows[m] / 2, 16, [&](int64_t pair_number) {
      const int64_t head = pair_number / half, e = pair_number % half, row = head * head_size + e;
      std::array<expected, 2> pair{projected(row), projected(row + half)};
      if (m != 2) {
        if (base <= 0) return;
        // The frequency is a float power of a float power: each of its e factors brings an error or two.
        const double angle =
            token * std::pow(double{base}, -2.0 * static_cast<double>(e) / static_cast<double>(head_size));
        pair = rotated(pair[0], pair[1], angle, angle * static_cast<double>(2 * e + 4) * 0x1p-23 + 0x1p-21, p);
      }
      for (int64_t i = 0; i < 2; ++i) {
        const int64_t at = e + i * half;
        const double answer =
            value_at(output, m == 0 ? head * head_size + at : caches[m - 1].element(head, position, at));
        if (!agrees(answer, pair[static_cast<size_t>(i)])) {
          wrong(
              "%s: %s, %s, K %ld, heads of %ld: matrix %u, head %ld, element %ld is %.9g, the reference %.9g with a "
              "tolerance of %.3g",
              name, format_of(qtypes[m])->name, c10::toString(dtype), shape.state_size, head_size, m, head, at, answer,
              pair[static_cast<size_t>(i)].value, pair[static_cast<size_t>(i)].tolerance);
        }
      }
    });
  }
}

}  // namespace

void qkv(byte_source& source) { project(source, "forward_qkv", 3, false); }
void qkv_bias(byte_source& source) { project(source, "forward_qkv_bias", 3, true); }
void qk(byte_source& source) { project(source, "forward_qk", 2, false); }

void mlp(byte_source& source) {
  const int32_t qtype = pick_fused_qtype(source);
  const at::ScalarType dtype = source.pick(floating_types);
  const contents c = pick_contents(source);
  const weight_shape shape(source, qtype);
  const int64_t batch = source.count(1), activation = source.count(source.below(2));
  const int64_t state_size = source.count(shape.state_size), output_size = source.count(shape.output_size);
  tensor_maker make(source, source.word(4));
  const at::Tensor input = make.floats({1, shape.state_size}, dtype, c);
  const at::Tensor first = make_weight(make, source, qtype, shape), second = make_weight(make, source, qtype, shape);

  const uint8_t device_class = corvane::class_at_load.mlp;
  const bool good = !make.distorted() && has_kernel(qtype) && (qtype != 21 || device_class == 0 || device_class == 5) &&
                    batch == 1 && state_size == shape.state_size && output_size == shape.output_size &&
                    output_size % 8 == 0 && shape.rows_begin_on_blocks();
  at::Tensor result;
  const bool answered = answers("mlp_forward_xpu", good, make.on_cpu(), [&] {
    result = corvane::mlp_forward_xpu(input, first, second, batch, state_size, output_size, activation, qtype);
  });
  if (!answered || make.distorted() || state_size != shape.state_size || make.unusual()) return;

  const precision p = precision_of(dtype);
  const std::vector<double> x = values_of(input);
  for_some(std::min(output_size, shape.output_size), 16, [&](int64_t n) {
    // Planes lie where output_size says.
    const size_t blocks = static_cast<size_t>(output_size * state_size) / shape.block_elements;
    const auto product = [&](const at::Tensor& weight) {
      return dot(x, qtype, weight.data_ptr<uint8_t>(), blocks, static_cast<size_t>(n), reading::fused, p, qtype == 21);
    };
    const expected g = product(first), u = product(second);
    const double z = 0.7978845834732056 * (g.value + 0.044714998453855515 * g.value * g.value * g.value);
    const double gate = activation == 0 ? g.value / (1 + std::exp(-g.value)) : 0.5 * g.value * (1 + std::tanh(z));
    // Neither activation is steeper than 1.2, and both run in float, with a cubic, an exponential and a quotient.
    const double gate_error = 1.2 * g.tolerance + 32 * 0x1p-24 * (1 + std::abs(g.value));
    expected e{gate * u.value, 0, g.known && u.known};
    e.tolerance = gate_error * (std::abs(u.value) + u.tolerance) + std::abs(gate) * u.tolerance + p.smallest +
                  2 * p.unit * (std::abs(e.value) + gate_error * std::abs(u.value));
    e.known = e.known && std::abs(e.value) + e.tolerance < p.largest;
    const double answer = value_at(result, n);
    if (!agrees(answer, e)) {
      wrong(
          "mlp_forward_xpu: %s, %s, %ld x %ld, activation %ld: element %ld is %.9g, the reference %.9g with a "
          "tolerance "
          "of %.3g",
          format_of(qtype)->name, c10::toString(dtype), output_size, state_size, activation, n, answer, e.value,
          e.tolerance);
    }
  });
}

}  // namespace fuzz
