#include "platform/xpu/row_operators.hpp"

#include <ATen/ops/empty.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "platform/sycl/math.hpp"
#include "platform/sycl/parallel.hpp"
#include "platform/sycl/simd.hpp"

namespace xpu {
namespace {

using std::size_t;
using sycl::BFloat16;
using sycl::f32x16;
using sycl::Half;

// f(T{}) for the element type.
template <class F>
void with_type(at::ScalarType type, const char* what, const F& f) {
  if (type == at::kFloat) return f(float{});
  if (type == at::kHalf) return f(Half{});
  if (type == at::kBFloat16) return f(BFloat16{});
  TORCH_CHECK(false, what, " must be float, half or bfloat16, found ", c10::toString(type));
}

void check_rows(const at::Tensor& tensor, const char* what) {
  TORCH_CHECK(tensor.is_xpu(), what, " must be on XPU, found on ", tensor.device());
  TORCH_CHECK(tensor.is_contiguous(), what, " must be contiguous");
}

template <class T>
f32x16 load(const T* from) {
  return sycl::simd<T, 16>::load(from).to_float();
}

float sum(f32x16 x) { return sycl::sum_tree(sycl::simd<float, 16>::exact(x)); }

// --- norm -----------------------------------------------------------------------------------------------------------

template <class T>
void add_row(float* x, const T* delta, size_t size) {
  size_t i = 0;
  for (; i + 16 <= size; i += 16) {
    sycl::simd<float, 16>::exact(load(x + i) + load(delta + i)).store(x + i);
  }
  for (; i < size; ++i) x[i] += static_cast<float>(delta[i]);
}

template <class T>
void norm_row(const float* x, const float* weight, float epsilon, T* y, size_t size) {
  const size_t whole = size / 16 * 16;
  f32x16 sums[4] = {};
  for (size_t i = 0; i < whole; i += 16) {
    f32x16& part = sums[i / 16 % 4];
    part = sycl::fused_multiply_add(load(x + i), load(x + i), part);
  }
  float squares = sum((sums[0] + sums[1]) + (sums[2] + sums[3]));
  for (size_t i = whole; i < size; ++i) squares += x[i] * x[i];
  const float scale = 1.0f / std::sqrt(squares / static_cast<float>(size) + epsilon);
  for (size_t i = 0; i < whole; i += 16) {
    sycl::simd<T, 16>::from_float(load(x + i) * scale * load(weight + i)).store(y + i);
  }
  for (size_t i = whole; i < size; ++i) y[i] = static_cast<T>(x[i] * scale * weight[i]);
}

// --- attention ------------------------------------------------------------------------------------------------------

constexpr size_t piece = 128;  // positions that a thread takes at a time
constexpr unsigned group = 4;  // query heads whose sums are kept in registers together

// Sums of values over positions, of one to four query heads: 16 * Regs elements from `values` on.
template <unsigned Heads, unsigned Regs, class T>
void mix(const T* values, size_t stride, const float* weights, size_t count, float* to, size_t head_size) {
  f32x16 sums[Heads][Regs] = {};
  for (size_t t = 0; t < count; ++t) {
    f32x16 row[Regs];
    for (unsigned r = 0; r < Regs; ++r) row[r] = load(values + t * stride + 16 * r);
    for (unsigned h = 0; h < Heads; ++h) {
      const f32x16 weight = sycl::splat(weights[h * piece + t]);
      for (unsigned r = 0; r < Regs; ++r) sums[h][r] = sycl::fused_multiply_add(weight, row[r], sums[h][r]);
    }
  }
  for (unsigned h = 0; h < Heads; ++h) {
    for (unsigned r = 0; r < Regs; ++r) {
      sycl::simd<float, 16>::exact(sums[h][r]).store(to + h * head_size + 16 * r);
    }
  }
}

template <unsigned Heads, class T>
void mix_heads(const T* values, size_t stride, const float* weights, size_t count, float* to, size_t head_size) {
  size_t i = 0;
  for (; i + 64 <= head_size; i += 64) mix<Heads, 4>(values + i, stride, weights, count, to + i, head_size);
  for (; i < head_size; i += 16) mix<Heads, 1>(values + i, stride, weights, count, to + i, head_size);
}

// A query head's part of a softmax over some of the positions: sums of e^(score - most), and of it times the values.
struct partial {
  float most, sum;
};

template <class T>
struct attention {
  const T *query, *keys, *values;
  size_t heads, kv_heads, length, head_size;
  size_t key_head, key_row, value_head, value_row;  // strides

  size_t pieces() const { return (length + piece - 1) / piece; }
  size_t shared() const { return heads / kv_heads; }  // query heads of one key and value head

  // Positions from `first` on for the query heads of key and value head `kv`: their partial sums, and their mixed
  // values, (heads, head_size).
  void run(size_t kv, size_t first, partial* parts, float* mixed) const {
    const size_t count = std::min(piece, length - first);
    const T* key = keys + kv * key_head + first * key_row;
    const T* value = values + kv * value_head + first * value_row;
    alignas(64) float weights[group * piece];
    for (size_t h = 0; h < shared(); h += group) {
      const size_t some = std::min<size_t>(group, shared() - h);
      for (size_t i = 0; i < some; ++i) {
        parts[h + i] = weigh(query + (kv * shared() + h + i) * head_size, key, count, weights + i * piece);
      }
      float* to = mixed + h * head_size;
      if (some == 4) mix_heads<4>(value, value_row, weights, count, to, head_size);
      if (some == 3) mix_heads<3>(value, value_row, weights, count, to, head_size);
      if (some == 2) mix_heads<2>(value, value_row, weights, count, to, head_size);
      if (some == 1) mix_heads<1>(value, value_row, weights, count, to, head_size);
    }
  }

  // e^(score - most) of each position, and what belongs to their sum.
  partial weigh(const T* q, const T* key, size_t count, float* weights) const {
    const float scale = 1.0f / std::sqrt(static_cast<float>(head_size));
    const float lowest = -std::numeric_limits<float>::infinity();
    f32x16 highest = sycl::splat(lowest);
    for (size_t t = 0; t < count; t += 16) {
      sycl::simd<float, 16> rows[16];
      for (size_t i = 0; i < 16; ++i) {
        const T* row = key + std::min(t + i, count - 1) * key_row;
        f32x16 dots = {};
        for (size_t e = 0; e < head_size; e += 16) dots = sycl::fused_multiply_add(load(q + e), load(row + e), dots);
        rows[i].r[0] = dots;
      }
      f32x16 scores = sycl::sum_trees(rows).r[0] * scale;
      for (size_t i = count - t; i < 16; ++i) scores[i] = lowest;
      highest = scores > highest || scores != scores ? scores : highest;
      sycl::simd<float, 16>::exact(scores).store(weights + t);
    }
    float most = highest[0];
    for (unsigned i = 1; i < 16; ++i) most = highest[i] > most || std::isnan(highest[i]) ? highest[i] : most;
    f32x16 sums = {};
    for (size_t t = 0; t < count; t += 16) {
      const f32x16 powers = sycl::exp(load(weights + t) - most);
      sums += powers;
      sycl::simd<float, 16>::exact(powers).store(weights + t);
    }
    return {most, sum(sums)};
  }

  // One query head's values out of its pieces.
  void join(const partial* parts, const float* mixed, size_t stride, T* y) const {
    float most = parts[0].most, sum = 0.0f;
    for (size_t p = 1; p < pieces(); ++p) most = std::fmax(most, parts[p * heads].most);
    std::vector<float> factors(pieces());
    for (size_t p = 0; p < pieces(); ++p) {
      factors[p] = std::exp(parts[p * heads].most - most);
      sum += factors[p] * parts[p * heads].sum;
    }
    for (size_t e = 0; e < head_size; e += 16) {
      f32x16 values = {};
      for (size_t p = 0; p < pieces(); ++p) values += load(mixed + p * stride + e) * factors[p];
      sycl::simd<T, 16>::from_float(values / sum).store(y + e);
    }
  }

  void operator()(T* y) const {
    const size_t of_piece = heads * head_size;
    static thread_local std::vector<float> mixed;
    static thread_local std::vector<partial> parts;
    if (mixed.size() < pieces() * of_piece) mixed.resize(pieces() * of_piece);
    if (parts.size() < pieces() * heads) parts.resize(pieces() * heads);
    float* const to = mixed.data();
    partial* const sums = parts.data();
    host::run_adaptively(kv_heads * pieces(), [&](size_t begin, size_t end) {
      for (size_t i = begin; i < end; ++i) {
        const size_t p = i / kv_heads, kv = i % kv_heads;
        const size_t h = kv * shared();
        run(kv, p * piece, sums + p * heads + h, to + p * of_piece + h * head_size);
      }
    });
    for (size_t h = 0; h < heads; ++h) join(sums + h, to + h * head_size, of_piece, y + h * head_size);
  }
};

}  // namespace

at::Tensor rms_norm(const at::Tensor& x, const at::Tensor& weight, double epsilon, at::ScalarType dtype,
                    const c10::optional<at::Tensor>& delta) {
  check_rows(x, "x");
  check_rows(weight, "weight");
  TORCH_CHECK(x.scalar_type() == at::kFloat && weight.scalar_type() == at::kFloat, "x and weight must be float, found ",
              c10::toString(x.scalar_type()), " and ", c10::toString(weight.scalar_type()));
  TORCH_CHECK(x.dim() >= 1 && weight.dim() == 1 && x.size(-1) == weight.size(0),
              "x must end in the weight's size, found ", x.sizes(), " and ", weight.sizes());
  const auto size = static_cast<size_t>(weight.size(0));
  const size_t rows = size == 0 ? 0 : static_cast<size_t>(x.numel()) / size;
  auto* const values = x.data_ptr<float>();
  constexpr size_t grain = size_t{1} << 15;  // elements of a piece that is worth another core
  const size_t some_rows = std::max<size_t>(1, grain / std::max<size_t>(size, 1));
  if (delta) {
    check_rows(*delta, "delta");
    TORCH_CHECK(delta->sizes() == x.sizes(), "delta must have x's shape ", x.sizes(), ", found ", delta->sizes());
    with_type(delta->scalar_type(), "delta", [&]<class T>(T) {
      const T* const added = delta->data_ptr<T>();
      host::parallel_for(rows, some_rows, [&](size_t begin, size_t end) {
        add_row(values + begin * size, added + begin * size, (end - begin) * size);
      });
    });
  }
  at::Tensor y = at::empty(x.sizes(), x.options().dtype(dtype));
  with_type(dtype, "dtype", [&]<class T>(T) {
    T* const to = y.data_ptr<T>();
    const float* const factors = weight.data_ptr<float>();
    host::parallel_for(rows, some_rows, [&](size_t begin, size_t end) {
      for (size_t r = begin; r < end; ++r) {
        norm_row(values + r * size, factors, static_cast<float>(epsilon), to + r * size, size);
      }
    });
  });
  return y;
}

at::Tensor row_attention(const at::Tensor& query, const at::Tensor& keys, const at::Tensor& values) {
  check_rows(query, "query");
  for (const at::Tensor& cache : {keys, values}) {
    TORCH_CHECK(cache.is_xpu() && cache.scalar_type() == query.scalar_type(), "keys and values must be ",
                c10::toString(query.scalar_type()), " on XPU as query is, found ", c10::toString(cache.scalar_type()),
                " on ", cache.device());
    TORCH_CHECK(cache.dim() == 4 && cache.size(0) == 1 && cache.sizes() == keys.sizes(),
                "keys and values must be of one shape (1, kv_heads, length, head_size), found ", keys.sizes(), " and ",
                values.sizes());
    TORCH_CHECK(cache.stride(3) == 1 && cache.stride(2) >= 0 && cache.stride(1) >= 0,
                "keys and values must have contiguous rows");
  }
  const int64_t kv_heads = keys.size(1), length = keys.size(2), head_size = keys.size(3);
  TORCH_CHECK(query.dim() == 4 && query.size(0) == 1 && query.size(2) == 1 && query.size(3) == head_size &&
                  kv_heads > 0 && query.size(1) > 0 && query.size(1) % kv_heads == 0,
              "query must be (1, heads, 1, ", head_size, ") with a multiple of ", kv_heads, " heads, found ",
              query.sizes());
  TORCH_CHECK(length > 0, "there are no positions to attend to");
  TORCH_CHECK(head_size > 0 && head_size % 16 == 0, "head_size must be a multiple of 16, found ", head_size);
  at::Tensor y = at::empty({1, query.size(1) * head_size}, query.options());
  with_type(query.scalar_type(), "query", [&]<class T>(T) {
    const auto as_size = [](int64_t value) { return static_cast<size_t>(value); };
    attention<T>{query.data_ptr<T>(),     keys.data_ptr<T>(),        values.data_ptr<T>(),     as_size(query.size(1)),
                 as_size(kv_heads),       as_size(length),           as_size(head_size),       as_size(keys.stride(1)),
                 as_size(keys.stride(2)), as_size(values.stride(1)), as_size(values.stride(2))}(y.data_ptr<T>());
  });
  return y;
}

}  // namespace xpu
