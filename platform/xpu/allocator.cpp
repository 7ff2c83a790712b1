#include "platform/xpu/allocator.hpp"

#include <c10/util/Exception.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/sycl/check_order.hpp"
#include "platform/sycl/fork.hpp"
#include "platform/xpu/stream.hpp"

namespace xpu {
namespace {

constexpr std::size_t huge_page = std::size_t{2} << 20;

std::size_t physical_memory() {
  static const std::size_t bytes =
      static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return bytes;
}

[[noreturn]] void out_of_memory(std::size_t bytes) {
  TORCH_CHECK_WITH(OutOfMemoryError, false, "XPU out of memory: tried to allocate ", bytes, " bytes; the device has ",
                   physical_memory(), " bytes in all");
}

// Bytes of the blocks in use, and the most there were.
std::atomic<std::size_t> used_bytes{0}, peak_bytes{0};

void count_acquired(std::size_t bytes) {
  const std::size_t used = used_bytes += bytes;
  std::size_t peak = peak_bytes;
  while (peak < used && !peak_bytes.compare_exchange_weak(peak, used)) {
  }
}

#ifdef CORVANE_GUARDED_ALLOCATOR

// Each block is an allocation of its own and of exactly the size asked for, so that a sanitizer sees an overrun by one
// byte.
void* acquire(std::size_t bytes) {
  void* block = nullptr;
  if (bytes > physical_memory() || posix_memalign(&block, alignment, bytes) != 0) out_of_memory(bytes);
  count_acquired(malloc_usable_size(block));
  return block;
}

void release(void* block) {
  used_bytes -= malloc_usable_size(block);
  std::free(block);
}

void drop_cached_blocks() {}

std::size_t cached_bytes() { return 0; }

#else

// Eight classes to each doubling, so a block is at most an eighth larger than asked for; small ones are whole cache
// lines.
struct size_class {
  std::size_t index;
  std::size_t bytes;
};

constexpr unsigned smallest_log2 = 6, largest_log2 = 47, steps = 8;
constexpr std::size_t class_count = (largest_log2 - smallest_log2 + 1) * steps;
static_assert(std::size_t{1} << smallest_log2 == alignment);

size_class class_of(std::size_t bytes) {
  if (bytes < alignment * steps) {  // below 512 bytes an eighth of a doubling is less than a line
    const std::size_t lines = (bytes + alignment - 1) / alignment;
    return {lines - 1, lines * alignment};
  }
  const auto log2 = static_cast<unsigned>(63 - __builtin_clzll(bytes));
  const std::size_t base = std::size_t{1} << log2, step = base / steps;
  const std::size_t above = (bytes - base + step - 1) / step;
  const std::size_t first = (log2 - smallest_log2 - 3 + 1) * steps - 1;  // index of size 512 is 7
  return {first + above, base + above * step};
}

class block_cache {
 public:
  void* acquire(std::size_t bytes) {
    if (bytes > physical_memory()) out_of_memory(bytes);
    const size_class wanted = class_of(bytes);
    const std::lock_guard<std::mutex> lock(mutex_);
    auto& blocks = free_[wanted.index];
    if (!blocks.empty()) {
      void* block = blocks.back();
      blocks.pop_back();
      cached_bytes_ -= wanted.bytes;
      count_acquired(wanted.bytes);
      return block;
    }
    void* block = from_system(wanted.bytes);
    if (block == nullptr) {
      drop_cached();
      block = from_system(wanted.bytes);
    }
    if (block == nullptr) out_of_memory(bytes);
    try {
      home_.emplace(block, wanted);
    } catch (...) {
      std::free(block);
      throw;
    }
    count_acquired(wanted.bytes);
    return block;
  }

  void release(void* block) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto home = home_.find(block);
    const size_class kind = home->second;
    used_bytes -= kind.bytes;
    if (cached_bytes_ + kind.bytes <= physical_memory() / 4 && keep(kind, block)) return;
    home_.erase(home);
    std::free(block);
  }

  std::size_t bytes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return cached_bytes_;
  }

  void drop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    drop_cached();
  }

 private:
  // Memory beyond the machine's would be promised all the same, and the process killed when it is touched.
  void* from_system(std::size_t bytes) const {
    if (used_bytes + cached_bytes_ + bytes > physical_memory()) return nullptr;
    const bool huge = bytes >= huge_page;
    void* block = nullptr;
    if (posix_memalign(&block, huge ? huge_page : alignment, bytes) != 0) return nullptr;
    if (huge) madvise(block, bytes, MADV_HUGEPAGE);
    return block;
  }

  // A tensor's end must not throw, however short memory is.
  bool keep(const size_class& kind, void* block) try {
    free_[kind.index].push_back(block);
    cached_bytes_ += kind.bytes;
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }

  void drop_cached() {
    for (auto& blocks : free_) {
      for (void* block : blocks) {
        home_.erase(block);
        std::free(block);
      }
      blocks.clear();
    }
    cached_bytes_ = 0;
  }

  std::mutex& mutex_ = host::held_while_forking(new std::mutex);
  std::unordered_map<void*, size_class> home_;  // of every block, in use or cached
  std::array<std::vector<void*>, class_count> free_;
  std::size_t cached_bytes_ = 0;
};

block_cache& cache = *new block_cache;  // leaked: tensors may die as late as interpreter exit

void* acquire(std::size_t bytes) { return cache.acquire(bytes); }

void release(void* block) { cache.release(block); }

void drop_cached_blocks() { cache.drop(); }

std::size_t cached_bytes() { return cache.bytes(); }

#endif

class allocator final : public c10::Allocator {
 public:
  explicit allocator(c10::Device label) : label_(label) {}

  // allocate() is const in older releases of the framework and not so in newer ones: one of the two overrides it.
  // NOLINTBEGIN(modernize-use-override): which one is for the release to say
  c10::DataPtr allocate(std::size_t bytes) { return std::as_const(*this).allocate(bytes); }
  c10::DataPtr allocate(std::size_t bytes) const {
    if (bytes == 0) return {nullptr, label_};
    void* block = acquire(bytes);
    if (host::order_check()) std::memset(block, 0xFF, bytes);
    return {block, block, &release, label_};
  }
  // NOLINTEND(modernize-use-override)
  c10::DeleterFnPtr raw_deleter() const override { return &release; }
  // Overrides in newer releases.
  void copy_data(void* target, const void* source, std::size_t bytes) const { std::memcpy(target, source, bytes); }

 private:
  c10::Device label_;
};

struct registration {
  registration() { c10::SetAllocator(c10::DeviceType::XPU, device_allocator()); }
} registered;

}  // namespace

c10::Allocator* device_allocator() {
  static auto* blocks = new allocator(device());
  return blocks;
}

c10::Allocator* relabelled_allocator() {
  static auto* blocks = new allocator(c10::Device(c10::DeviceType::CPU));
  return blocks;
}

c10::DataPtr relabel(c10::DataPtr&& data, c10::Device device) {
  void* memory = data.get();
  const c10::DeleterFnPtr deleter = data.get_deleter();
  return {memory, data.release_context(), deleter, device};
}

void empty_cache() { drop_cached_blocks(); }

std::size_t memory_cached() { return cached_bytes(); }
std::size_t memory_allocated() { return used_bytes; }
std::size_t max_memory_allocated() { return peak_bytes; }
void reset_peak_memory_stats() { peak_bytes = used_bytes.load(); }

}  // namespace xpu
