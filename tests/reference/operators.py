"""Row lookup in packed tables, the batch product and the grouping of expert choices."""

from __future__ import annotations

import numpy as np

from .expand import expand_general
from .linear import gamma
from .registry import FORMATS
from .rounding import UNIT


def dequantize_rows(name: str, data, rows, state_size: int) -> np.ndarray:
    """float32 (batch, sequence, state_size): row r of a q2_k or q4_k table for each entry r of `rows`.

    Only whole super-blocks of a row are expanded and they are written without a gap; what stays unwritten at the end
    is not-a-number here. `data` must hold a whole number of rows of state_size / 256 super-blocks.
    """
    f = FORMATS[name]
    nb = data.size // f.block_bytes
    table = expand_general(name, data, nb, f.block_elements, "float")
    per_row = state_size // 256
    rows = np.asarray(rows, dtype=np.int64)
    blocks = (rows.reshape(-1, 1) * per_row + np.arange(per_row)).reshape(-1)
    result = np.full(rows.size * state_size, np.nan, dtype=np.float32)
    result[: blocks.size * 256] = table[blocks].reshape(-1)
    return result.reshape(*rows.shape, state_size)


def batch_product(a, b):
    """(batch, M, N) in float64, and its tolerance for sums in float."""
    a, b = np.asarray(a, np.float64), np.asarray(b, np.float64)
    return a @ b, gamma(a.shape[2] + 1, UNIT["float"]) * (np.abs(a) @ np.abs(b))


def moe_indexes(selected, n_experts: int) -> list:
    """For each expert the positions at which it was selected, and the token rows, in the order of the selections."""
    selected = np.asarray(selected)
    positions, tokens = [], []
    for expert in range(n_experts):
        token, position = np.nonzero(selected == expert)
        positions.append(position.tolist())
        tokens.append(token.tolist())
    return [positions, tokens]
