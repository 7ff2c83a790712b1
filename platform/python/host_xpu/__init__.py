"""The XPU device that runs on the host's cores: its name, streams and kernel launches.

Importing it makes the device known to PyTorch: tensors move to "xpu".
"""

import torch  # noqa: F401  (its libraries, which the device's own need, and its Python side, which is completed below)

from host_xpu import _serialization
from host_xpu._device import (
    LaunchList,
    LaunchRecord,
    LaunchRecorder,
    Stream,
    StreamContext,
    current_stream,
    device_name,
    empty_cache,
    max_memory_allocated,
    memory_allocated,
    record_launches,
    reset_peak_memory_stats,
    stream,
    synchronize,
)

__all__ = [
    "LaunchList",
    "LaunchRecord",
    "LaunchRecorder",
    "Stream",
    "StreamContext",
    "current_stream",
    "device_name",
    "empty_cache",
    "max_memory_allocated",
    "memory_allocated",
    "record_launches",
    "reset_peak_memory_stats",
    "stream",
    "synchronize",
]

if not hasattr(torch, "xpu"):  # releases that know the device but have no Python side for it
    _serialization.complete()
del torch
