"""The packed formats: `FORMATS` by name, and how dense weights become their bytes and come back.

    packed = pack(weight, "q4_0")                  # (N, K) floating to uint8 (bytes,)
    values = unpack(packed, "q4_0", *weight.shape)   # float32 (N, K)

One module per family of formats holds the conversions of whole blocks.
"""

from __future__ import annotations

import numpy as np
import torch

from . import code_book, grid, integer, k_block, small_float
from .common import Format, Progress
from .grid import PUBLIC_BLOCKS, take_over

FORMATS: dict[str, Format] = {
    format_.name: format_ for family in (integer, code_book, small_float, k_block, grid) for format_ in family.FORMATS
}

# What a weight gets whose rows are no whole number of 256-element super-blocks, or that cannot be packed into the grid
# formats: a format with blocks of 64 elements and of similar size.
NEIGHBOURS = {
    "q2_k": "nf3",
    "q4_k": "q4_1",
    "q5_k": "q5_1",
    "q6_k": "q8_0",
    "fp6_k": "fp6",
    "iq2_xxs": "nf3",
    "iq1_s": "nf3",
}


def format_of(name: str) -> Format:
    """The format of a name; ValueError with the names that there are for another one."""
    try:
        return FORMATS[name]
    except KeyError:
        raise ValueError(f"there is no format {name!r}; the formats are {', '.join(FORMATS)}") from None


def as_floats(values: torch.Tensor | np.ndarray) -> np.ndarray:
    """A tensor of any floating dtype and device, or an array, as a float32 array; without a copy where it is one."""
    if isinstance(values, torch.Tensor):
        if not values.is_floating_point():
            raise TypeError(f"the values must be floating, not {values.dtype}")
        values = values.detach().to(device="cpu", dtype=torch.float32).numpy()
    return np.asarray(values, dtype=np.float32)


def pack(
    weight: torch.Tensor | np.ndarray,
    format: str,
    importance: torch.Tensor | np.ndarray | None = None,
    progress: Progress | None = None,
) -> torch.Tensor:
    """Pack a dense weight (N, K) of any floating dtype into the bytes of a format: uint8 (bytes,), on the CPU.

    `importance`, floating (K,), weighs the squared error of each column. `progress` is told the number of elements of
    each piece that is packed. ValueError: an unknown format or one that cannot be packed, a K that is no whole number
    of blocks, 2^31 elements or more, values that are not finite or beyond the format's scales.
    """
    columns = None if importance is None else as_floats(importance)
    return torch.from_numpy(format_of(format).pack(as_floats(weight), columns, progress))


def unpack(packed: torch.Tensor, format: str, n: int, k: int) -> torch.Tensor:
    """The values of packed bytes, uint8 (bytes,) on any device: float32 (n, k) on the CPU.

    ValueError: an unknown format, a k that is no whole number of blocks, or bytes that are not those of (n, k).
    """
    return torch.from_numpy(format_of(format).unpack(packed.detach().cpu().numpy(), n, k))


__all__ = [
    "FORMATS",
    "NEIGHBOURS",
    "PUBLIC_BLOCKS",
    "Format",
    "Progress",
    "as_floats",
    "format_of",
    "pack",
    "take_over",
    "unpack",
]
