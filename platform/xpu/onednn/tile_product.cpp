// Tiles by oneDNN's matrix product.
#include "platform/xpu/tile_product.hpp"

#include <array>
#include <atomic>
#include <dnnl.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <type_traits>
#include <unordered_map>

#include "platform/sycl/fork.hpp"
#include "platform/sycl/vector_types.hpp"
#include "platform/xpu/allocator.hpp"
#include "platform/xpu/program_room.hpp"

namespace xpu {
namespace {

using dnnl::memory;
using sycl::BFloat16;
using sycl::Half;

const auto& engine = *new dnnl::engine(dnnl::engine::kind::cpu, 0);  // leaked: products may come at interpreter exit

dnnl::stream& stream() {
  thread_local dnnl::stream own(engine);
  return own;
}

template <class T>
constexpr memory::data_type data_type = std::is_same_v<T, float>  ? memory::data_type::f32
                                        : std::is_same_v<T, Half> ? memory::data_type::f16
                                                                  : memory::data_type::bf16;

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
  mutable std::atomic<bool> has_run{false};
};

// oneDNN keeps what it has made: a thread waits for the one that makes the same, and in a forked process for ever.
std::mutex& making = host::held_while_forking(new std::mutex);

std::shared_mutex& primitives_lock = host::held_while_forking(new std::shared_mutex);
auto& known_primitives = *new std::map<call_shape, std::shared_ptr<const primitive>>;  // leaked, as the engine

std::shared_ptr<const primitive> make_primitive(const call_shape& shape) {
  const std::lock_guard<std::mutex> alone(making);
  check_room_for_a_program();
  dnnl::primitive_attr attributes;
  // The library's own scratchpad belongs to the thread that makes the primitive; other threads run it too.
  attributes.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  const dnnl::matmul::desc description = shape.bias ? dnnl::matmul::desc(shape.x(), shape.w(), shape.b(), shape.y())
                                                    : dnnl::matmul::desc(shape.x(), shape.w(), shape.y());
  const dnnl::matmul::primitive_desc made(description, attributes, engine);
  return std::shared_ptr<const primitive>(new primitive{dnnl::matmul(made), made.scratchpad_desc()});
}

std::shared_ptr<const primitive> primitive_of(const call_shape& shape) {
  constexpr std::size_t capacity = 1024;  // shapes; a program has a few dozen
  {
    const std::shared_lock<std::shared_mutex> reading(primitives_lock);
    const auto found = known_primitives.find(shape);
    if (found != known_primitives.end()) return found->second;
  }
  auto made = make_primitive(shape);
  const std::unique_lock<std::shared_mutex> writing(primitives_lock);
  if (known_primitives.size() >= capacity) known_primitives.clear();
  return known_primitives.emplace(shape, std::move(made)).first->second;
}

void run_call(const call_shape& shape, const void* x, const void* w, const void* bias, void* y) {
  const auto p = primitive_of(shape);
  const auto memory_of = [](const memory::desc& d, const void* data) {
    return memory(d, engine, const_cast<void*>(data));
  };
  const c10::DataPtr scratch = device_allocator()->allocate(p->scratch.get_size());
  std::unordered_map<int, memory> arguments = {{DNNL_ARG_SRC, memory_of(shape.x(), x)},
                                               {DNNL_ARG_WEIGHTS, memory_of(shape.w(), w)},
                                               {DNNL_ARG_DST, memory_of(shape.y(), y)}};
  if (shape.bias) arguments.emplace(DNNL_ARG_BIAS, memory_of(shape.b(), bias));
  if (scratch.get() != nullptr) arguments.emplace(DNNL_ARG_SCRATCHPAD, memory_of(p->scratch, scratch.get()));
  if (!p->has_run.load(std::memory_order_relaxed)) check_room_for_a_program();
  p->run.execute(stream(), arguments);
  p->has_run.store(true, std::memory_order_relaxed);
}

// Whether the processor has the BFloat16 product.
bool has_bfloat16_product() {
  enum class answer { unknown, yes, no };
  static std::atomic<answer> known{answer::unknown};
  if (known == answer::unknown) {
    try {
      make_primitive({8, 16, 32, 32, 32, 16, false, memory::data_type::bf16});
      known = answer::yes;
    } catch (const dnnl::error&) {
      known = answer::no;
    }
  }
  return known == answer::yes;
}

}  // namespace

// oneDNN has no Half on most processors; and where it packs a weight from memory it walks 100 and more rows at once,
// which takes twice as long as reading them one after the other into the cache first. Few rows stream the weight: 64
// columns are enough.
template <>
tile_rule tile_rule_of<float>(std::size_t rows) {
  return rows <= few_rows ? tile_rule{true, 64, rows} : tile_rule{false, 128, rows_of_a_block};
}
template <>
tile_rule tile_rule_of<Half>(std::size_t rows) {
  return {false, rows <= few_rows ? std::size_t{64} : std::size_t{128}, rows_of_a_block};
}
// A product of one row reads the weight once and well; in BFloat16 a few of them beat one product of a few rows.
template <>
tile_rule tile_rule_of<BFloat16>(std::size_t rows) {
  return {has_bfloat16_product(), rows <= few_rows ? std::size_t{64} : std::size_t{128},
          rows <= 4 ? 1 : rows_of_a_block};
}

template <class T>
void tile_product(const product_tile<T>& tile) {
  const auto dim = [](std::size_t n) { return static_cast<memory::dim>(n); };
  const call_shape shape{dim(tile.rows),     dim(tile.columns),  dim(tile.depth),      dim(tile.depth),
                         dim(tile.w_stride), dim(tile.y_stride), tile.bias != nullptr, data_type<T>};
  run_call(shape, tile.x, tile.w, tile.bias, tile.y);
}

std::string product_library() {
  const dnnl_version_t* version = dnnl_version();
  return "oneDNN " + std::to_string(version->major) + "." + std::to_string(version->minor) + "." +
         std::to_string(version->patch);
}

template void tile_product(const product_tile<float>&);
template void tile_product(const product_tile<Half>&);
template void tile_product(const product_tile<BFloat16>&);

}  // namespace xpu
