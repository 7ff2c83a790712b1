"""The fused operators on one row: projections with rotary embedding and cache write, and the gated MLP.

Results are float64 with a tolerance array of the same shape. Weights come as packed bytes with their format name.
"""

from __future__ import annotations

import numpy as np

from .linear import matrix_vector, sum_tolerance
from .q8_1 import group_dots, matrix_vector_q8_1, quantize_q8_1
from .registry import FORMATS, block_count, plane_views
from .rounding import UNDERFLOW, UNIT

TANH_FACTOR = float(np.uint32(0x3F4C422A).view(np.float32))  # sqrt(2 / pi)
TANH_CUBIC = float(np.uint32(0x3D372713).view(np.float32))  # 0.044715


def _row_product(name: str, data, n: int, k: int, x, dtype: str):
    """One row times a packed weight, (n,) and its tolerance; the stored scale of fp8_e5m2 counts."""
    if name in ("iq2_xxs", "q2_k"):
        return matrix_vector_q8_1(name, data, n, k, np.asarray(x).reshape(-1), dtype)
    y, bound = matrix_vector(name, data, n, k, np.asarray(x).reshape(1, -1), dtype, scaled=True)
    return y[0], bound[0]


def _rounded_dots(name: str, data, n: int, k: int, x, dtype: str):
    """(n,) what it adds to the tolerance that a projection sums the dot products of the groups in `dtype`.

    Minimums count apart: which of them meet which codes in a partial sum is free.
    """
    activations = quantize_q8_1(np.asarray(x).reshape(-1), dtype)
    parts = [group_dots(name, data, n, k, activations)]
    if name == "q2_k":
        without = np.array(data)
        plane_views(name, without, block_count(name, n, k))[0][:, 82:84] = 0  # dmin
        codes = group_dots(name, without, n, k, activations)
        parts = [codes, codes - parts[0]]
    depth = k // 256 + 5  # blocks of a lane, then a tree over 32 lanes
    sums = sum_tolerance([p.reshape(n, -1) for p in parts], dtype, depth, roundings=1)
    return sums + parts[0][0].size * UNDERFLOW[dtype]


def rotate(heads, bound, position: int, rope_base: float, dtype: str):
    """Rotary embedding of (heads, head_size): element e turns with element e + head_size / 2 of its head.

    Angles are float: the base's power is one float, its e-th power and the product with the position follow. The
    relative error of a power grows with its exponent, hence 2 e + 4 roundings on the angle.
    """
    head_size = heads.shape[1]
    half = head_size // 2
    theta = float(np.float32(np.power(np.float64(np.float32(rope_base)), -2.0 / head_size)))
    e = np.arange(half)
    angle = theta**e * float(np.float32(position))
    angle_error = np.abs(angle) * (2 * e + 4) * UNIT["float"] + 4 * UNIT["float"]
    c, s = np.cos(angle), np.sin(angle)
    a, b = heads[:, :half], heads[:, half:]
    result = np.concatenate([c * a - s * b, c * b + s * a], axis=1)
    inherited = np.concatenate([np.abs(c) * bound[:, :half] + np.abs(s) * bound[:, half:],
                                np.abs(c) * bound[:, half:] + np.abs(s) * bound[:, :half]], axis=1)  # fmt: skip
    turned = np.tile((angle_error + 4 * UNIT["float"]) * (np.abs(a) + np.abs(b)), 2)
    unit = max(UNIT[dtype], UNIT["float"])  # double passes through float here
    return result, inherited + turned + unit * np.abs(result) + UNDERFLOW[dtype]


def projections(
    x, weights, names, k: int, dtype: str, position: int, head_size: int, rope_base: float = 10000.0, biases=None
):
    """Query, key and, with three weights, value: list of (result, tolerance), each (heads, head_size).

    `weights` are packed bytes, `names` their formats (iq2_xxs takes q2_k for the value and ignores biases), the row
    counts follow from the byte counts. Key and value belong at one sequence position of the caches.
    """
    out = []
    for m, (data, name) in enumerate(zip(weights, names, strict=True)):
        f = FORMATS[name]
        n = data.size // f.block_bytes * f.block_elements // k
        y, bound = _row_product(name, data, n, k, x, dtype)
        if names[0] == "iq2_xxs":
            bound = bound + _rounded_dots(name, data, n, k, x, dtype)
        if biases is not None and names[0] != "iq2_xxs":
            y = y + np.asarray(biases[m], dtype=np.float64)
            bound = bound + UNIT[dtype] * np.abs(y)
        y, bound = y.reshape(-1, head_size), bound.reshape(-1, head_size)
        out.append((y, bound) if m == 2 else rotate(y, bound, position, rope_base, dtype))
    return out


def activation(g: np.ndarray, form: int) -> np.ndarray:
    """The SiLU form for 0, the tanh form for any other number."""
    with np.errstate(over="ignore"):
        if form == 0:
            return g / (1.0 + np.exp(-g))
        return 0.5 * g * (1.0 + np.tanh(TANH_FACTOR * (g + TANH_CUBIC * g**3)))


def gated_mlp(x, first, second, name: str, n: int, k: int, form: int, dtype: str):
    """activation(first x) times (second x): (n,) and its tolerance.

    Either activation's slope stays below 1.13. The activation is float for every dtype; near its tail the tanh form
    cancels, which costs a few units of g itself.
    """
    g, g_bound = _row_product(name, first, n, k, x, dtype)
    u, u_bound = _row_product(name, second, n, k, x, dtype)
    act = activation(g, form)
    act_bound = 1.13 * g_bound + 16 * UNIT["float"] * (1 + np.abs(g)) * np.abs(g) + UNIT["float"]
    result = act * u
    bound = np.abs(u) * act_bound + np.abs(act) * u_bound + act_bound * u_bound
    return result, bound + UNIT[dtype] * np.abs(result) + UNDERFLOW[dtype]
