// The subset of SYCL that corvane's launches use, on the host's cores: ranges, queue, handler, event, device.
//
// A queue is in order and synchronous: a command group has run when submit() returns. Its event knows when it ran and
// whether the host waited for it; launch_log keeps the records of launches for whoever asks.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/sycl/group.hpp"
#include "platform/sycl/parallel.hpp"

namespace host {

// HOST_XPU_DEVICE_NAME as it stood when the platform library was loaded, else "Cirrus(TM) A host (<processor>)".
std::string device_name();

}  // namespace host

namespace sycl {

namespace info::device {
struct name {};
}  // namespace info::device

class device {
 public:
  template <class Info>
  std::string get_info() const {
    static_assert(std::is_same_v<Info, info::device::name>, "the name is the one device property that is read");
    return host::device_name();
  }
};

namespace detail {

// Where a launch comes from: the stem of the source and the name of the kernel.
struct code_location {
  const char* source = "";
  const char* function = "";
};

}  // namespace detail

// One launch, as a profiler would see it.
struct launch_record {
  std::string kernel;                // function name of the source location
  std::string source;                // its source stem
  std::optional<std::string> label;  // of the profiler, once it was told
  std::vector<std::size_t> global_size;
  std::vector<std::size_t> local_size;  // empty: a basic range
  int sub_group_size = 0;               // 0: none required
  bool waited = false;
  int queue = 0;
  std::uint64_t duration_ns = 0;
};

class event {
 public:
  event() : record_(std::make_shared<launch_record>()) {}
  // The command group ran inside submit(): there is nothing to wait for but the record of it.
  void wait() { record_->waited = true; }
  launch_record& record() { return *record_; }
  const std::shared_ptr<launch_record>& shared_record() const { return record_; }

 private:
  std::shared_ptr<launch_record> record_;
};

// Lists that fill with the records of all launches between begin and end, of any thread and queue.
class launch_log {
 public:
  using list = std::vector<std::shared_ptr<launch_record>>;
  static void begin(std::shared_ptr<list> sink);
  static void end(const std::shared_ptr<list>& sink);
  static list snapshot(const std::shared_ptr<list>& sink);
};

using range3 = std::array<std::size_t, 3>;

// Neighbouring work-items of a basic range: from begin to before end in each dimension.
struct item_box {
  range3 begin, end;
};

// Work-items of a sub-group that a kernel requires; 0 for none.
struct sub_group_size {
  int value = 0;
};

class handler {
 public:
  explicit handler(launch_record& record) : record_(record) {}

  // A kernel is a function of its work-group: see group.hpp.
  template <int D, class Kernel>
  void parallel_for(const nd_range<D>& range, sub_group_size required, const Kernel& kernel) {
    record_.global_size.assign(range.global.begin(), range.global.end());
    record_.local_size.assign(range.local.begin(), range.local.end());
    record_.sub_group_size = required.value;
    run_groups(range, kernel);
  }

  // A range without work-groups of its own: the platform cuts it as it likes, here into boxes of `piece` items (fewer
  // at the ends), and kernel(box) does all items of a box, so that it can hold in registers what they share.
  template <class Kernel>
  void parallel_for(const range3& range, const range3& piece, const Kernel& kernel) {
    record_.global_size.assign(range.begin(), range.end());
    range3 boxes;
    for (int d = 0; d < 3; ++d) boxes[d] = (range[d] + piece[d] - 1) / piece[d];
    const std::size_t total = boxes[0] * boxes[1] * boxes[2];
    const host::launch_order order(total);
    host::run_adaptively(total, [&](std::size_t begin, std::size_t end) {
      for (std::size_t i = begin; i < end; ++i) {
        const std::size_t number = order.start_group(i);
        const range3 id{number / boxes[2] / boxes[1], number / boxes[2] % boxes[1], number % boxes[2]};
        item_box box;
        for (int d = 0; d < 3; ++d) {
          box.begin[d] = id[d] * piece[d];
          box.end[d] = std::min(box.begin[d] + piece[d], range[d]);
        }
        kernel(box);
      }
    });
  }

 private:
  launch_record& record_;
};

class queue {
 public:
  explicit queue(int id) : id_(id) {}
  queue(const queue&) = delete;
  queue& operator=(const queue&) = delete;

  int id() const { return id_; }
  device get_device() const { return {}; }
  void wait() {}

  template <class CommandGroup>
  event submit(const CommandGroup& command_group, const detail::code_location& where) {
    event done;
    launch_record& record = done.record();
    begin(record, where);
    handler h(record);
    command_group(h);
    finish(done);
    return done;
  }

 private:
  void begin(launch_record& record, const detail::code_location& where) const;
  static void finish(event& done);
  int id_;
};

}  // namespace sycl
