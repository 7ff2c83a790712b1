// Caching allocator of the XPU device: memory of the host, aligned to a cache line, in huge pages where that pays.
// Fresh memory is several times slower to write first than reused memory, so freed blocks are kept by size class.
#pragma once

#include <c10/core/Allocator.h>

#include <cstddef>

namespace xpu {

constexpr std::size_t alignment = 64;

c10::Allocator* device_allocator();

// The same memory, labelled as the CPU's: what storages of re-labelled tensors grow by.
c10::Allocator* relabelled_allocator();

// A data pointer with the same memory and deleter that says it is on `device`.
c10::DataPtr relabel(c10::DataPtr&& data, c10::Device device);

// Device memory for n values of T, as long as it lives.
template <class T>
class buffer {
 public:
  explicit buffer(std::size_t n) : data_(device_allocator()->allocate(n * sizeof(T))) {}
  T* get() const { return static_cast<T*>(data_.get()); }

 private:
  c10::DataPtr data_;
};

// Gives all cached blocks back to the system.
void empty_cache();

// Bytes of the blocks that tensors hold now, and the most they held since the start or the last reset. A block is at
// most an eighth, or one cache line, larger than what was asked for.
std::size_t memory_allocated();
std::size_t max_memory_allocated();
std::size_t memory_cached();  // of freed blocks that are kept
void reset_peak_memory_stats();

}  // namespace xpu
