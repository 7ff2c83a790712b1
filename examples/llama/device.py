"""The XPU device and what the built module offers on it, and what to do when the module is missing."""

from __future__ import annotations

import numpy as np

try:
    import torch

    import corvane  # noqa: F401  (brings up the device)
    import host_xpu
except ImportError as error:
    raise SystemExit(
        f"cannot import {error.name or error}: run scripts/setup.sh and scripts/build.sh, "
        "then start with PYTHONPATH=build/python"
    ) from error

DEVICE = torch.device("xpu")

BLOCK_FORMATS_FUSED = frozenset({"q4_0", "fp4", "fp6", "fp8_e5m2"})  # with a fused kernel on every device class
# The fused projection takes iq2_xxs as well, with the value weight in q2_k.
FUSED_QKV_FORMATS = BLOCK_FORMATS_FUSED | {"iq2_xxs"}


def fused_mlp_formats() -> frozenset[str]:
    """Formats for which one launch makes the gated half of the MLP; iq2_xxs only on two of the device classes."""
    name = host_xpu.device_name()
    has_grid_kernel = "Stratus Server GPU" in name or ("NBG" in name and "Cirrus(TM)" not in name)
    return BLOCK_FORMATS_FUSED | {"iq2_xxs"} if has_grid_kernel else BLOCK_FORMATS_FUSED


def to_device(array: np.ndarray) -> torch.Tensor:
    """A numpy array as an XPU tensor of its own."""
    return torch.from_numpy(np.require(array, requirements=["C", "W"])).to(DEVICE)
