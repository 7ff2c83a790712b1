"""The published grids of iq2_xxs and iq1_s, taken from the PyPI package `gguf`, and the sign table of iq2_xxs."""

from __future__ import annotations

from functools import cache

import numpy as np


def _published(name: str) -> np.ndarray:
    """Grid of one of the package's formats as float32 rows of eight values, element 0 first."""
    try:
        import gguf.quants
    except ImportError as error:
        raise ImportError("the reference needs the PyPI package 'gguf' for the published grids") from error
    quantiser = getattr(gguf.quants, name)
    quantiser.init_grid()
    return np.asarray(quantiser.grid, dtype=np.float64).reshape(-1, 8)


@cache
def iq2xxs_grid() -> np.ndarray:
    """(256, 8) int64, values 8, 25 or 43."""
    grid = _published("IQ2_XXS").astype(np.int64)
    assert grid.shape == (256, 8) and set(np.unique(grid)) == {8, 25, 43}
    return grid


@cache
def iq1s_grid() -> np.ndarray:
    """(2048, 8) int64, values 0, 1 or 2. The package stores them as -1, 0, 1."""
    grid = _published("IQ1_S").astype(np.int64) + 1
    assert grid.shape == (2048, 8) and set(np.unique(grid)) == {0, 1, 2}
    return grid


@cache
def iq2xxs_signs() -> np.ndarray:
    """(128, 8) of +1 and -1: bits 0 to 6 of the sign index, and an eighth that makes the count of -1 even."""
    bits = (np.arange(128)[:, None] >> np.arange(7)) & 1
    parity = bits.sum(axis=1, keepdims=True) & 1
    return 1 - 2 * np.concatenate([bits, parity], axis=1)
