// The product is cut into tiles of columns (rows of the weight) and blocks of rows. Each tile is one call of oneDNN's
// matrix product on one thread of our own pool: with a pool of its own beside ours the two would spin against each
// other.
#include "platform/xpu/product.hpp"

#include <omp.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <dnnl.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <type_traits>
#include <unordered_map>

#include "platform/sycl/parallel.hpp"
#include "platform/sycl/simd.hpp"
#include "platform/xpu/allocator.hpp"

namespace xpu {
namespace {

using dnnl::memory;
using sycl::BFloat16;
using sycl::Half;

// oneDNN forks as many threads as OpenMP allows to the thread that calls it.
class single_threaded {
 public:
  single_threaded() : before_(omp_get_max_threads()) { omp_set_num_threads(1); }
  ~single_threaded() { omp_set_num_threads(before_); }
  single_threaded(const single_threaded&) = delete;
  single_threaded& operator=(const single_threaded&) = delete;

 private:
  int before_;
};

const dnnl::engine& engine() {
  static const auto* cpu = new dnnl::engine(dnnl::engine::kind::cpu, 0);
  return *cpu;
}

dnnl::stream& stream() {
  thread_local dnnl::stream own(engine());
  return own;
}

template <class T>
constexpr memory::data_type data_type = std::is_same_v<T, float> ? memory::data_type::f32 : memory::data_type::bf16;

// One call's shape: x (rows, depth), w (columns, depth), y (rows, columns), each with the distance of its rows.
struct call_shape {
  memory::dim rows, columns, depth, x_stride, w_stride, y_stride;
  bool bias;
  memory::data_type type;

  memory::desc x() const { return {{rows, depth}, type, memory::dims{x_stride, 1}}; }
  memory::desc w() const { return {{depth, columns}, type, memory::dims{1, w_stride}}; }
  memory::desc y() const { return {{rows, columns}, type, memory::dims{y_stride, 1}}; }
  memory::desc b() const { return bias ? memory::desc({1, columns}, type, memory::dims{columns, 1}) : memory::desc(); }

  friend bool operator<(const call_shape& l, const call_shape& r) { return l.key() < r.key(); }

 private:
  std::array<memory::dim, 8> key() const {
    return {rows, columns, depth, x_stride, w_stride, y_stride, bias, static_cast<memory::dim>(type)};
  }
};

struct primitive {
  dnnl::matmul run;
  memory::desc scratch;
};

std::shared_ptr<const primitive> make_primitive(const call_shape& shape) {
  dnnl::primitive_attr attributes;
  // The library's own scratchpad belongs to the thread that makes the primitive; other threads run it too.
  attributes.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  const dnnl::matmul::desc description = shape.bias ? dnnl::matmul::desc(shape.x(), shape.w(), shape.b(), shape.y())
                                                    : dnnl::matmul::desc(shape.x(), shape.w(), shape.y());
  const dnnl::matmul::primitive_desc made(description, attributes, engine());
  return std::make_shared<const primitive>(primitive{dnnl::matmul(made), made.scratchpad_desc()});
}

std::shared_ptr<const primitive> primitive_of(const call_shape& shape) {
  constexpr std::size_t capacity = 1024;  // shapes; a program has a few dozen
  static auto* lock = new std::shared_mutex;
  static auto* known = new std::map<call_shape, std::shared_ptr<const primitive>>;
  {
    const std::shared_lock<std::shared_mutex> reading(*lock);
    const auto found = known->find(shape);
    if (found != known->end()) return found->second;
  }
  auto made = make_primitive(shape);
  const std::unique_lock<std::shared_mutex> writing(*lock);
  if (known->size() >= capacity) known->clear();
  return known->emplace(shape, std::move(made)).first->second;
}

void run_call(const call_shape& shape, const void* x, const void* w, const void* bias, void* y) {
  const auto p = primitive_of(shape);
  const auto memory_of = [](const memory::desc& d, const void* data) {
    return memory(d, engine(), const_cast<void*>(data));
  };
  const c10::DataPtr scratch = device_allocator()->allocate(p->scratch.get_size());
  std::unordered_map<int, memory> arguments = {{DNNL_ARG_SRC, memory_of(shape.x(), x)},
                                               {DNNL_ARG_WEIGHTS, memory_of(shape.w(), w)},
                                               {DNNL_ARG_DST, memory_of(shape.y(), y)}};
  if (shape.bias) arguments.emplace(DNNL_ARG_BIAS, memory_of(shape.b(), bias));
  if (scratch.get() != nullptr) arguments.emplace(DNNL_ARG_SCRATCHPAD, memory_of(p->scratch, scratch.get()));
  p->run.execute(stream(), arguments);
}

// Whether the processor has the BFloat16 product.
bool has_bfloat16_product() {
  static const bool has = [] {
    try {
      make_primitive({8, 16, 32, 32, 32, 16, false, memory::data_type::bf16});
      return true;
    } catch (const dnnl::error&) {
      return false;
    }
  }();
  return has;
}

// From this many rows on, oneDNN packs its operands if there are at least some 100 columns, and is several times slower
// if there are fewer.
constexpr std::size_t packed_rows = 16;

// Whether oneDNN reads the caller's memory itself. It does not know Half; and where it packs a weight from memory it
// walks 100 and more rows at once, which takes twice as long as reading them one after the other into the cache first.
template <class T>
bool is_direct(const product_arguments<T>& p) {
  if constexpr (std::is_same_v<T, BFloat16>) return has_bfloat16_product();
  return std::is_same_v<T, float> && p.rows < packed_rows;
}

// --- staging: a tile of the weight is brought to the cache as floats, row by row, before its product
// ------------------

template <class T>
void widen(const T* from, float* to, std::size_t n) {
  if constexpr (std::is_same_v<T, float>) {
    std::memcpy(to, from, n * sizeof(float));
    return;
  }
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const sycl::f32x16 lanes = sycl::simd<T, 16>::load(from + i).r[0];
    std::memcpy(to + i, &lanes, sizeof(lanes));
  }
  for (; i < n; ++i) to[i] = static_cast<float>(from[i]);
}

// One row of a tile: adds the bias and rounds.
template <class T>
void narrow(const float* from, const T* bias, T* to, std::size_t n) {
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    auto lanes = sycl::load_bytes<sycl::f32x16>(from + i);
    if (bias != nullptr) lanes += sycl::simd<T, 16>::load(bias + i).r[0];
    sycl::simd<T, 16>::from_float(lanes).store(to + i);
  }
  for (; i < n; ++i) to[i] = static_cast<T>(from[i] + (bias != nullptr ? static_cast<float>(bias[i]) : 0.0F));
}

class float_buffer {
 public:
  explicit float_buffer(std::size_t n) : data_(device_allocator()->allocate(n * sizeof(float))) {}
  float* get() const { return static_cast<float*>(data_.get()); }

 private:
  c10::DataPtr data_;
};

// --- tiles ----------------------------------------------------------------------------------------------------------

struct tiling {
  std::size_t columns;  // of a tile
  std::size_t tiles;
  std::size_t block_rows;  // rows of a call
  std::size_t row_parts;   // parts that the rows of a tile are divided into, when there are too few tiles
  std::size_t grain;       // pieces (tile, part) worth a fork
};

constexpr std::size_t rows_of_a_block = 128;  // beyond, the packed operands of a call leave the second-level cache

std::size_t divide_up(std::size_t a, std::size_t b) { return (a + b - 1) / b; }

// Tiles of products that pack are 128 to 255 columns. Few rows stream the weight: 64 columns are enough.
template <class T>
tiling tile(const product_arguments<T>& p) {
  const auto workers = static_cast<std::size_t>(host::concurrency());
  const std::size_t least = p.rows < packed_rows ? 64 : 128;
  tiling t{};
  t.tiles = std::max<std::size_t>(1, p.columns / least);
  if (t.tiles > workers) t.tiles -= t.tiles % workers;
  t.columns = divide_up(divide_up(p.columns, t.tiles), 16) * 16;
  t.tiles = divide_up(p.columns, t.columns);
  t.block_rows = std::min(p.rows, rows_of_a_block);
  t.row_parts = 1;
  if (t.tiles < workers) t.row_parts = std::min(divide_up(p.rows, 32), divide_up(workers, t.tiles));
  constexpr double floats_per_ns = 50, bytes_per_ns = 15, worth_a_fork_ns = 10'000;  // of one core, in rough figures
  const double piece = static_cast<double>(t.columns * p.depth) / static_cast<double>(t.row_parts);
  const double piece_ns =
      piece * std::max(static_cast<double>(p.rows) / floats_per_ns, static_cast<double>(sizeof(T)) / bytes_per_ns);
  t.grain = static_cast<std::size_t>(std::max(1.0, worth_a_fork_ns / piece_ns));
  return t;
}

struct tile_part {
  std::size_t first_column, columns, first_row, end_row;
};

template <class T>
void direct_part(const product_arguments<T>& p, const tiling& t, const tile_part& part) {
  // A product of one row reads the weight once and well; in BFloat16 a few of them beat one product of a few rows.
  const bool row_by_row = std::is_same_v<T, BFloat16> && p.rows <= 4;
  const std::size_t step = row_by_row ? 1 : t.block_rows;
  for (std::size_t row = part.first_row; row < part.end_row; row += step) {
    const std::size_t rows = std::min(step, part.end_row - row);
    const auto dim = [](std::size_t n) { return static_cast<memory::dim>(n); };
    const call_shape shape{dim(rows),       dim(part.columns), dim(p.depth),      dim(p.depth),
                           dim(p.w_stride), dim(p.columns),    p.bias != nullptr, data_type<T>};
    run_call(shape, p.x + row * p.depth, p.w + part.first_column * p.w_stride,
             p.bias != nullptr ? p.bias + part.first_column : nullptr, p.y + row * p.columns + part.first_column);
  }
}

template <class T>
void staged_part(const product_arguments<T>& p, const tiling& t, const tile_part& part, const float* x) {
  const float_buffer w(part.columns * p.depth), y(t.block_rows * part.columns);
  for (std::size_t column = 0; column < part.columns; ++column) {
    widen(p.w + (part.first_column + column) * p.w_stride, w.get() + column * p.depth, p.depth);
  }
  for (std::size_t row = part.first_row; row < part.end_row; row += t.block_rows) {
    const std::size_t rows = std::min(t.block_rows, part.end_row - row);
    const auto dim = [](std::size_t n) { return static_cast<memory::dim>(n); };
    const call_shape shape{dim(rows),    dim(part.columns), dim(p.depth), dim(p.depth),
                           dim(p.depth), dim(part.columns), false,        memory::data_type::f32};
    run_call(shape, x + row * p.depth, w.get(), nullptr, y.get());
    for (std::size_t i = 0; i < rows; ++i) {
      narrow(y.get() + i * part.columns, p.bias != nullptr ? p.bias + part.first_column : nullptr,
             p.y + (row + i) * p.columns + part.first_column, part.columns);
    }
  }
}

}  // namespace

template <class T>
void product(const product_arguments<T>& p) {
  const tiling t = tile(p);
  const bool direct = is_direct(p);
  const bool widens = !direct && !std::is_same_v<T, float>;
  const float_buffer wide(widens ? p.rows * p.depth : 0);
  if (widens) widen(p.x, wide.get(), p.rows * p.depth);
  const std::size_t part_rows = divide_up(p.rows, t.row_parts);
  host::parallel_for(t.tiles * t.row_parts, t.grain, [&](std::size_t begin, std::size_t end) {
    const single_threaded within;
    for (std::size_t i = begin; i < end; ++i) {
      tile_part part{};
      part.first_column = i / t.row_parts * t.columns;
      part.columns = std::min(t.columns, p.columns - part.first_column);
      part.first_row = std::min(p.rows, i % t.row_parts * part_rows);
      part.end_row = std::min(p.rows, part.first_row + part_rows);
      if constexpr (!std::is_same_v<T, Half>) {
        if (direct) {
          direct_part(p, t, part);
          continue;
        }
      }
      if constexpr (std::is_same_v<T, float>) {
        staged_part(p, t, part, p.x);
      } else {
        staged_part(p, t, part, wide.get());
      }
    }
  });
}

template void product(const product_arguments<float>&);
template void product(const product_arguments<Half>&);
template void product(const product_arguments<BFloat16>&);

}  // namespace xpu
