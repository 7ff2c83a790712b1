"""The XPU device that runs on the host's cores: its name, streams and kernel launches.

Importing it makes the device known to PyTorch: tensors move to "xpu".
"""

import torch  # its libraries, which the device's own need

from host_xpu._build_info import build_info
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
    rms_norm,
    row_attention,
    stream,
    synchronize,
)

if hasattr(torch, "xpu"):
    from host_xpu._torch_xpu import complete as _complete
else:
    from host_xpu._serialization import complete as _complete
_complete()
del torch

__all__ = [
    "LaunchList",
    "LaunchRecord",
    "LaunchRecorder",
    "Stream",
    "StreamContext",
    "build_info",
    "current_stream",
    "device_name",
    "empty_cache",
    "max_memory_allocated",
    "memory_allocated",
    "record_launches",
    "reset_peak_memory_stats",
    "rms_norm",
    "row_attention",
    "stream",
    "synchronize",
]
