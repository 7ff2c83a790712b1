// Kernels as functions of their work-group.
//
// A kernel is a sequence of phases. A phase runs for every work-item of the group, and its end is the group's barrier:
// on a device a phase is one work-item and a barrier, on the host it is a loop. A barrier can therefore not be half
// met; an item with nothing to do skips its arithmetic inside the phase and never returns early.
//
// Items that act in step are the lanes of one simd value (simd.hpp): such a phase is a plain block in the kernel, its
// lane t being what work-item t of a device would hold.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "platform/sycl/parallel.hpp"

namespace sycl {

template <int D>
struct nd_range {
  std::array<std::size_t, D> global;  // work-items, a multiple of local in each dimension
  std::array<std::size_t, D> local;   // work-items of a group
};

template <int D>
class group {
 public:
  group(const std::array<std::size_t, D>& id, const std::array<std::size_t, D>& count,
        const std::array<std::size_t, D>& local)
      : id_(id), count_(count), local_(local) {}

  std::size_t id(int dimension = 0) const { return id_[dimension]; }         // of this group
  std::size_t count(int dimension = 0) const { return count_[dimension]; }   // groups of the launch
  std::size_t local(int dimension = 0) const { return local_[dimension]; }   // items of a group

  // One phase: phase(t) for every work-item, t its linear local id.
  template <class Phase>
  void for_each_item(const Phase& phase) const {
    std::size_t items = 1;
    for (const std::size_t n : local_) items *= n;
    for (std::uint32_t t = 0; t < items; ++t) phase(t);
  }

  // A phase of work-item 0 alone.
  template <class Phase>
  void single(const Phase& phase) const {
    phase();
  }

 private:
  std::array<std::size_t, D> id_, count_, local_;
};

// Local memory of a group. Its content is undefined until written.
template <class T, std::size_t Size>
class local_array {
 public:
  template <int D>
  explicit local_array(const group<D>&) {}
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  T* data() { return data_; }

 private:
  alignas(64) std::remove_const_t<T> data_[Size];
};

// What every work-item of a group keeps for itself across a barrier.
template <class T, std::size_t Items>
using per_item = local_array<T, Items>;

// sum over the sub-group of `width` items by exchange with lane XOR mask, halving; every item ends with the result.
template <class T, std::size_t Items, class Combine>
void xor_exchange(per_item<T, Items>& value, unsigned width, const Combine& combine) {
  for (unsigned mask = width / 2; mask != 0; mask /= 2) {
    T before[Items];
    std::memcpy(before, value.data(), sizeof(before));
    for (std::size_t t = 0; t < Items; ++t) value[t] = combine(before[t], before[t ^ mask]);
  }
}

// The work-groups of a launch, in pieces over all cores. The last dimension runs fastest.
template <int D, class Kernel>
void run_groups(const nd_range<D>& range, const Kernel& kernel) {
  std::array<std::size_t, D> count;
  std::size_t total = 1;
  for (int d = 0; d < D; ++d) {
    count[d] = range.local[d] == 0 ? 0 : range.global[d] / range.local[d];
    total *= count[d];
  }
  host::run_adaptively(total, [&](std::size_t begin, std::size_t end) {
    for (std::size_t linear = begin; linear < end; ++linear) {
      std::array<std::size_t, D> id;
      std::size_t rest = linear;
      for (int d = D - 1; d > 0; --d) {
        id[d] = rest % count[d];
        rest /= count[d];
      }
      id[0] = rest;
      kernel(group<D>(id, count, range.local));
    }
  });
}

}  // namespace sycl
