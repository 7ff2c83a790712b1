"""What a bug report should say."""

import platform

import torch

from host_xpu import _device


def build_info() -> dict[str, str | int]:
    """Versions, processor and device: what a report of a fault or of a speed needs.

    Keys: python, torch, product (the library that multiplies dense tiles), pool (that of the threads), instruction_set
    (that the kernels were built for), threads (of a launch), device_name, device_class (0 to 5).
    """
    import corvane  # not above: it imports this package

    return {
        "python": platform.python_version(),
        "torch": torch.__version__,
        "product": _device.product_library(),
        "pool": _device.pool_library(),
        "instruction_set": _device.instruction_set(),
        "threads": _device.concurrency(),
        "device_name": _device.device_name(),
        "device_class": corvane._device_class,
    }
