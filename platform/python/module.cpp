// The Python module host_xpu._device: what a test, a benchmark or a profiler wants to know of the host device.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/python/row_operators.hpp"
#include "platform/sycl/parallel.hpp"
#include "platform/sycl/queue.hpp"
#include "platform/xpu/allocator.hpp"
#include "platform/xpu/stream.hpp"
#include "platform/xpu/tile_product.hpp"

namespace py = pybind11;

namespace {

using record = sycl::launch_record;
using sink = std::shared_ptr<sycl::launch_log::list>;

py::tuple as_tuple(const std::vector<std::size_t>& sizes) { return py::tuple(py::cast(sizes)); }

std::string describe(const record& launch) {
  return "<launch of " + launch.kernel + " from " + launch.source + ": " +
         py::str(as_tuple(launch.global_size)).cast<std::string>() + ", " + std::to_string(launch.duration_ns) + " ns>";
}

// What record_launches() yields: a sequence over a list that other threads may be adding to.
class launch_sequence {
 public:
  explicit launch_sequence(sink launches) : launches_(std::move(launches)) {}
  py::list copy() const { return py::cast(sycl::launch_log::snapshot(launches_)); }
  std::size_t size() const { return sycl::launch_log::snapshot(launches_).size(); }

 private:
  sink launches_;
};

class launch_recorder {
 public:
  launch_sequence enter() {
    if (launches_) throw py::value_error("this record_launches() is already recording; make another one");
    launches_ = std::make_shared<sycl::launch_log::list>();
    sycl::launch_log::begin(launches_);
    return launch_sequence(launches_);
  }
  void exit() {
    if (launches_) sycl::launch_log::end(launches_);
    launches_.reset();
  }
  ~launch_recorder() { exit(); }

 private:
  sink launches_;
};

// Entering sets the current stream of the calling thread, leaving sets the one before.
class stream_context {
 public:
  explicit stream_context(c10::Stream stream) : stream_(stream) {}
  void enter() { previous_.push_back(xpu::exchange_current_stream(stream_)); }
  void exit() {
    if (previous_.empty()) throw py::value_error("this stream() was not entered");
    xpu::exchange_current_stream(previous_.back());
    previous_.pop_back();
  }

 private:
  c10::Stream stream_;
  std::vector<c10::Stream> previous_;
};

void define_records(py::module_& module) {
  py::class_<record, std::shared_ptr<record>>(module, "LaunchRecord", "One kernel launch.")
      .def_readonly("kernel", &record::kernel, "Function name of the launch's source location: the kernel's name.")
      .def_readonly("source", &record::source, "Stem of the source file that launched it.")
      .def_property_readonly(
          "label", [](const record& r) { return r.label; },
          "Label under which the profiler recorded it; None if it never did.")
      .def_property_readonly(
          "global_size", [](const record& r) { return as_tuple(r.global_size); }, "Work-items in each dimension.")
      .def_property_readonly(
          "local_size",
          [](const record& r) -> py::object {
            if (r.local_size.empty()) return py::none();
            return as_tuple(r.local_size);
          },
          "Work-items of a work-group in each dimension; None for a basic range.")
      .def_property_readonly(
          "sub_group_size",
          [](const record& r) { return r.sub_group_size > 0 ? std::optional<int>(r.sub_group_size) : std::nullopt; },
          "Sub-group size that the kernel requires; None if it requires none.")
      .def_readonly("waited", &record::waited, "Whether the host waited for the launch.")
      .def_readonly("queue", &record::queue, "Number of the queue it was submitted to.")
      .def_readonly("duration_ns", &record::duration_ns, "Time from start to end of the kernel, in nanoseconds.")
      .def("__repr__", &describe);

  py::class_<launch_sequence>(module, "LaunchList", "Records of launches in order of their end; grows while recording.")
      .def("__len__", &launch_sequence::size)
      .def("__getitem__",
           [](const launch_sequence& launches, const py::object& index) { return py::object(launches.copy()[index]); })
      .def("__iter__", [](const launch_sequence& launches) { return py::iter(launches.copy()); })
      .def("__eq__",
           [](const launch_sequence& launches, const py::object& other) {
             return py::isinstance<py::sequence>(other) && launches.copy().equal(py::list(other));
           })
      .def("__repr__", [](const launch_sequence& launches) { return py::repr(launches.copy()); });
  py::module_::import("collections.abc").attr("Sequence").attr("register")(module.attr("LaunchList"));

  py::class_<launch_recorder>(module, "LaunchRecorder", "Context manager of record_launches().")
      .def("__enter__", &launch_recorder::enter)
      .def("__exit__", [](launch_recorder& recorder, const py::args&) { recorder.exit(); });
  module.def(
      "record_launches", [] { return std::make_unique<launch_recorder>(); },
      "Records the kernel launches of all threads and queues between entering and leaving the context, which yields "
      "the\n"
      "list of their records (LaunchRecord). The list fills while the context is open and stays readable after it.\n"
      "Contexts may be nested; each has its own list.\n\n"
      "    with host_xpu.record_launches() as launches:\n"
      "        ...\n"
      "    print([(launch.kernel, launch.duration_ns) for launch in launches])");
}

void define_streams(py::module_& module) {
  py::class_<c10::Stream>(
      module, "Stream",
      "A stream of the XPU device. Work submitted to one stream runs in order. There are 31 beside the\n"
      "default stream; the 32nd Stream() is the first again.")
      .def(py::init(&xpu::get_new_stream))
      .def_property_readonly("id", &c10::Stream::id, "Number of the stream; 0 is the default stream.")
      .def(
          "synchronize", [](const c10::Stream& s) { xpu::get_queue_from_stream(s).wait(); },
          "Waits until the stream has run everything submitted to it.")
      .def(
          "__eq__", [](const c10::Stream& a, const c10::Stream& b) { return a == b; }, py::is_operator())
      .def("__hash__", &c10::Stream::id)
      .def("__repr__", [](const c10::Stream& s) { return "<host_xpu.Stream " + std::to_string(s.id()) + ">"; });

  py::class_<stream_context>(module, "StreamContext", "Context manager of stream().")
      .def("__enter__", &stream_context::enter)
      .def("__exit__", [](stream_context& context, const py::args&) { context.exit(); });
  module.def(
      "stream", [](const c10::Stream& s) { return stream_context(s); }, py::arg("stream"),
      "Context manager: within it `stream` is the current stream of the calling thread.");
  module.def("current_stream", &xpu::current_stream, "The current stream of the calling thread.");
  module.def(
      "set_current_stream",
      [](c10::StreamId id) {
        const c10::Stream stream(c10::Stream::UNSAFE, xpu::device(), id);
        xpu::get_queue_from_stream(stream);  // refuses numbers of no stream
        xpu::exchange_current_stream(stream);
      },
      py::arg("id"), "Makes the stream of this number the current stream of the calling thread.");
}

void define_memory(py::module_& module) {
  module.def("memory_allocated", &xpu::memory_allocated,
             "Bytes of device memory that tensors hold. A block is at most an eighth, or one cache line, larger than "
             "its tensor.");
  module.def("max_memory_allocated", &xpu::max_memory_allocated,
             "The most bytes that tensors held at a time, since the start or the last reset_peak_memory_stats().");
  module.def("reset_peak_memory_stats", &xpu::reset_peak_memory_stats,
             "Sets max_memory_allocated() to memory_allocated().");
  module.def("memory_cached", &xpu::memory_cached, "Bytes of freed blocks that are kept for reuse.");
  module.def("empty_cache", &xpu::empty_cache, "Gives freed blocks, which are kept for reuse, back to the system.");
}

}  // namespace

PYBIND11_MODULE(_device, module) {
  module.def(
      "device_name", [] { return host::device_name(); },
      "Name of the device: HOST_XPU_DEVICE_NAME as it stood when the device's library was loaded, else one of class 1 "
      "with the processor's brand.");
  module.def("product_library", &xpu::product_library, "Name and version of the library that multiplies dense tiles.");
  module.def("pool_library", &host::pool_library, "Name and version of the library behind the thread pool.");
  module.def("instruction_set", &host::instruction_set, "Instructions that the vector code was built for.");
  module.def("concurrency", &host::concurrency, "Threads that a launch runs on.");
  module.def("synchronize", &xpu::synchronize, "Waits until all streams have run everything submitted to them.");
  define_streams(module);
  define_memory(module);
  define_records(module);
  define_row_operators(module);
}
