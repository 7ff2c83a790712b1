"""What torch.xpu and torch._C offer in a PyTorch that was built with an XPU device, for one that was not.

torch.xpu is PyTorch's own Python; it calls functions torch._C._xpu_*, which a build without such a device lacks. Here
they are, over the host's device: one device, current streams, memory statistics, properties, events.
"""

import dataclasses
import os

import torch

from host_xpu import _attention, _device

DEVICE_TYPE = torch._C._autograd.DeviceType.XPU.value


@dataclasses.dataclass(frozen=True)
class DeviceProperties:
    """What torch.xpu.get_device_properties() gives: those of torch.xpu's own documentation that the host knows."""

    name: str
    total_memory: int  # bytes, of the machine
    max_compute_units: int  # threads that a launch runs on
    platform_name: str = "host"
    vendor: str = "host"
    driver_version: str = ""
    version: str = ""
    type: str = "cpu"
    device_id: int = 0
    architecture: int = 0
    uuid: bytes = bytes(16)
    gpu_eu_count: int = 1
    gpu_subslice_count: int = 1
    max_work_group_size: int = 1024
    max_num_sub_groups: int = 64
    sub_group_sizes: tuple[int, ...] = (8, 16, 32)
    local_mem_size: int = 64 * 1024
    is_integrated_gpu: bool = True
    has_fp16: bool = True
    has_fp64: bool = True
    has_atomic64: bool = True
    has_bfloat16_conversions: bool = True
    has_subgroup_matrix_multiply_accumulate: bool = False
    has_subgroup_matrix_multiply_accumulate_tensor_float32: bool = False
    has_subgroup_2d_block_io: bool = False


class Stream(torch.Stream):
    """A stream of the XPU device: torch.xpu.Stream. Priorities make no difference."""

    def __new__(cls, device=None, priority=0, **parts):
        if "stream_id" in parts:
            return super().__new__(cls, **parts)
        return super().__new__(cls, device="xpu" if device is None else device, priority=priority)

    def wait_event(self, event) -> None:
        """Work submitted later waits for the event."""
        event.wait(self)

    def wait_stream(self, stream) -> None:
        """Work submitted later waits for what the other stream was given before."""
        self.wait_event(stream.record_event())


class Event(torch.Event):
    """A point in the order of a stream: torch.xpu.Event. Makes a torch.Event, since PyTorch compares no others."""

    def __new__(cls, enable_timing=False):
        return torch.Event("xpu", enable_timing=enable_timing)


def total_memory() -> int:
    return os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")


def check_index(index: int) -> int:
    if index >= 1:
        raise RuntimeError(f"XPU device {index} does not exist: there is 1")
    return 0


def get_device_properties(_index=None) -> DeviceProperties:
    return DeviceProperties(
        name=_device.device_name(), total_memory=total_memory(), max_compute_units=_device.concurrency()
    )


def memory_stats(_index) -> dict:
    used, peak = _device.memory_allocated(), _device.max_memory_allocated()
    reserved = used + _device.memory_cached()

    def statistic(current, most):
        # All blocks are of one pool; totals since the start are not counted.
        counted = {"current": current, "peak": most, "allocated": 0, "freed": 0}
        return {"all": counted, "large_pool": counted, "small_pool": dict.fromkeys(counted, 0)}

    in_use = {name: statistic(used, peak) for name in ("allocated_bytes", "active_bytes", "requested_bytes")}
    return {**in_use, "reserved_bytes": statistic(reserved, max(reserved, peak))}


def memory_info(_index) -> tuple[int, int]:
    """Bytes that are free, and all there are."""
    free = os.sysconf("SC_AVPHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") + _device.memory_cached()
    return min(free, total_memory()), total_memory()


FUNCTIONS = {
    "init": lambda: None,
    "isInBadFork": lambda: False,
    "getDeviceCount": lambda: 1,
    "getDevice": lambda: 0,
    "setDevice": check_index,
    "exchangeDevice": check_index,
    "maybeExchangeDevice": lambda _index: 0,
    "canDeviceAccessPeer": lambda _device, _peer: False,
    "getArchFlags": lambda: None,
    "synchronize": lambda _index: _device.synchronize(),
    "emptyCache": _device.empty_cache,
    "memoryStats": memory_stats,
    "resetPeakMemoryStats": lambda _index: _device.reset_peak_memory_stats(),
    "resetAccumulatedMemoryStats": lambda _index: None,
    "getMemoryInfo": memory_info,
    "getCurrentStream": lambda _index: (_device.current_stream().id, 0, DEVICE_TYPE),
    "getCurrentRawStream": lambda _index: _device.current_stream().id,
    "setStream": lambda stream_id, device_index, device_type: _device.set_current_stream(stream_id),  # noqa: ARG005
}


def complete() -> None:
    """Gives torch.xpu all this. Does nothing a second time."""
    if torch._C._has_xpu:
        raise ImportError(
            "this PyTorch was built with an XPU device of its own, beside which there is no room for another"
        )
    if hasattr(torch._C, "_xpu_init"):
        return
    for name, function in FUNCTIONS.items():
        setattr(torch._C, f"_xpu_{name}", function)
    # Not torch._C._has_xpu: PyTorch takes it for the one accelerator that it was built with, and most are built with CUDA.
    torch.xpu._initialized = True
    for module in (torch.xpu, torch.xpu.random):
        module.device_count = FUNCTIONS["getDeviceCount"]
    torch.xpu._get_device_properties = get_device_properties
    torch.xpu._exchange_device = check_index
    torch.xpu._maybe_exchange_device = FUNCTIONS["maybeExchangeDevice"]
    torch.xpu.default_generators = (torch.default_generator,)  # random numbers come from the CPU's kernels
    for module in (torch.xpu, torch.xpu.streams):
        module.Stream, module.Event = Stream, Event
    _attention.complete()
