"""The XPU device, and what to do when the module that brings it up is missing."""

from __future__ import annotations

import numpy as np
import torch

try:
    import corvane
    import host_xpu
except ImportError as error:
    raise ImportError(
        f"corvane_runtime: cannot import {error.name or error}; run pip install . in the source folder, or scripts/build.sh "
        "there and put build/python and python on PYTHONPATH",
        name=error.name,
    ) from error

DEVICE = torch.device("xpu")


def to_device(array: np.ndarray) -> torch.Tensor:
    """A numpy array as an XPU tensor of its own."""
    return torch.from_numpy(np.require(array, requirements=["C", "W"])).to(DEVICE)


def is_class_with_grid_mlp() -> bool:
    """Whether the device has the fused MLP in iq2_xxs; the other fused operators do not depend on the device."""
    name = host_xpu.device_name()
    return "Stratus Server GPU" in name or ("NBG" in name and "Cirrus(TM)" not in name)


__all__ = ["DEVICE", "corvane", "host_xpu", "is_class_with_grid_mlp", "to_device"]
