// Kernels as functions of their work-group.
//
// A kernel is a sequence of phases. A phase runs for every work-item of the group, and its end is the group's barrier:
// on a device a phase is one work-item and a barrier, on the host it is a loop. A barrier can therefore not be half
// met; an item with nothing to do skips its arithmetic inside the phase and never returns early.
//
// Items that act in step are the lanes of one simd value (simd.hpp): such a phase is a plain block in the kernel, its
// lane t being what work-item t of a device would hold.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "platform/sycl/check_order.hpp"
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

  std::size_t id(int dimension = 0) const { return id_[dimension]; }        // of this group
  std::size_t count(int dimension = 0) const { return count_[dimension]; }  // groups of the launch
  std::size_t local(int dimension = 0) const { return local_[dimension]; }  // items of a group

  // One phase: phase(t) for every work-item, t its linear local id. In no order that a kernel may rely on.
  template <class Phase>
  void for_each_item(const Phase& phase) const {
    std::size_t items = 1;
    for (const std::size_t n : local_) items *= n;
    const std::uint32_t* order = host::order_check() ? host::item_order(items) : nullptr;
    for (std::uint32_t t = 0; t < items; ++t) phase(order == nullptr ? t : order[t]);
  }

  // A phase of work-item 0 alone.
  template <class Phase>
  void single(const Phase& phase) const {
    phase();
  }

 private:
  std::array<std::size_t, D> id_, count_, local_;
};

template <int D>
class group_cluster;

// Local memory of a group, or of all groups of a cluster together. Its content is undefined until written.
template <class T, std::size_t Size>
class local_array {
 public:
  template <int D>
  explicit local_array(const group<D>&) : local_array() {}
  template <int D>
  explicit local_array(const group_cluster<D>&) : local_array() {}
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  T* data() { return data_; }

 private:
  static_assert(std::is_trivially_copyable_v<T>, "local memory is bytes");
  local_array() {
    if (host::order_check()) std::memset(static_cast<void*>(data_), 0xFF, sizeof(data_));
  }
  alignas(64) std::remove_const_t<T> data_[Size];
};

// What every work-item of a group keeps for itself across a barrier.
template <class T, std::size_t Items>
using per_item = local_array<T, Items>;

// The work-groups of a launch, in pieces over all cores. The last dimension runs fastest, which is good for the caches
// and nothing that a kernel may rely on.
template <int D, class Kernel>
void run_groups(const nd_range<D>& range, const Kernel& kernel) {
  std::array<std::size_t, D> count;
  std::size_t total = 1;
  for (int d = 0; d < D; ++d) {
    count[d] = range.local[d] == 0 ? 0 : range.global[d] / range.local[d];
    total *= count[d];
  }
  const host::launch_order order(total);
  host::run_adaptively(total, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      std::array<std::size_t, D> id;
      std::size_t rest = order.start_group(i);
      for (int d = D - 1; d > 0; --d) {
        id[d] = rest % count[d];
        rest /= count[d];
      }
      id[0] = rest;
      kernel(group<D>(id, count, range.local));
    }
  });
}

// A kernel whose work-groups would all begin by making the same local data of the arguments, a rearranged copy of the
// input say: prepare() makes it once a launch, before the first group. On a device it is the first phase of each group.
template <class Prepare, class Kernel>
struct prepared_kernel {
  Prepare prepare;
  Kernel kernel;
};
template <class Prepare, class Kernel>
prepared_kernel(Prepare, Kernel) -> prepared_kernel<Prepare, Kernel>;

template <int D, class Prepare, class Kernel>
void run_groups(const nd_range<D>& range, const prepared_kernel<Prepare, Kernel>& prepared) {
  prepared.prepare();
  if (host::order_check()) prepared.prepare();  // as each group would: again has to change nothing
  run_groups(range, prepared.kernel);
}

// A cluster: neighbouring work-groups of a launch, taken together by a kernel whose groups read the same data: what
// each of them would fetch and expand for itself is then made once. On a device a cluster is one group.
template <int D>
class group_cluster {
 public:
  group_cluster(const std::array<std::size_t, D>& first, const std::array<std::size_t, D>& count,
                const std::array<std::size_t, D>& total, const std::array<std::size_t, D>& local)
      : first_(first), count_(count), total_(total), local_(local) {}

  std::size_t first(int dimension) const { return first_[dimension]; }  // id of the first group of this cluster
  std::size_t count(int dimension) const { return count_[dimension]; }  // groups of this cluster
  std::size_t total(int dimension) const { return total_[dimension]; }  // groups of the launch

  // One phase: phase(t) does the share of work-item t of every group of the cluster.
  template <class Phase>
  void for_each_item(const Phase& phase) const {
    group<D>(first_, total_, local_).for_each_item(phase);
  }

 private:
  std::array<std::size_t, D> first_, count_, total_, local_;
};

// A kernel that takes work-groups in clusters of up to `groups` in each dimension.
template <int D, class Kernel>
struct cluster_kernel {
  std::array<std::size_t, D> groups;
  Kernel kernel;
};

// The clusters of a launch, in pieces over all cores. The last dimension runs fastest.
template <int D, class Kernel>
void run_groups(const nd_range<D>& range, const cluster_kernel<D, Kernel>& clustered) {
  std::array<std::size_t, D> total;
  nd_range<D> clusters;  // one item a cluster
  for (int d = 0; d < D; ++d) {
    total[d] = range.local[d] == 0 ? 0 : range.global[d] / range.local[d];
    clusters.global[d] = (total[d] + clustered.groups[d] - 1) / clustered.groups[d];
    clusters.local[d] = 1;
  }
  run_groups(clusters, [&](const group<D>& cluster) {
    std::array<std::size_t, D> first, count;
    for (int d = 0; d < D; ++d) {
      first[d] = cluster.id(d) * clustered.groups[d];
      count[d] = std::min(clustered.groups[d], total[d] - first[d]);
    }
    clustered.kernel(group_cluster<D>(first, count, total, range.local));
  });
}

// A launch that the host does in another way than by its groups, with the same effect: run() once.
template <class Run>
struct whole_launch {
  Run run;
};

template <int D, class Run>
void run_groups(const nd_range<D>&, const whole_launch<Run>& launch) {
  launch.run();
}

}  // namespace sycl
