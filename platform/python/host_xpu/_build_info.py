"""What a bug report should say."""

import platform

import torch

from host_xpu import _device

try:
    from host_xpu import _levels
except ImportError:  # built for one processor: of another build it is loaded before this
    _levels = None


def build_info() -> dict[str, str | int]:
    """Versions, processor and device: what a report of a fault or of a speed needs.

    Keys: corvane, python, torch, product (the library that multiplies dense tiles), pool (that of the threads), instruction_set
    (that the kernels were built for), threads (of a launch), device_name, device_class (0 to 5). Of a portable build
    also level (the one taken) and levels (those that it has for this machine, lowest first, separated by spaces).
    """
    import corvane  # not above: it imports this package

    facts = {
        "corvane": corvane.__version__,
        "python": platform.python_version(),
        "torch": torch.__version__,
        "product": _device.product_library(),
        "pool": _device.pool_library(),
        "instruction_set": _device.instruction_set(),
        "threads": _device.concurrency(),
        "device_name": _device.device_name(),
        "device_class": corvane._device_class,
    }
    if _levels is not None:
        facts |= {"level": _levels.taken, "levels": " ".join(_levels.offered)}
    return facts
