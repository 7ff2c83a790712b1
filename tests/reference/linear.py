"""One linear layer in float64, and how far kernels of each element type may be away from it.

A kernel that works in T rounds after every operation, in an order that is free. Two bounds hold for its error, and
`tolerance` takes the smaller: the classical one (operations times unit roundoff times the sum of magnitudes), which
no order can exceed, and a statistical one, six standard deviations of independent roundings, which knows that sums
of terms with mixed signs stay small. Both count the factored form that the kernels use (sum of code times input,
then the scale; offsets apart), since that is where cancellation costs accuracy.
"""

from __future__ import annotations

import numpy as np

from .formats import decode, fields, terms, to_matrix
from .registry import block_count
from .rounding import UNDERFLOW, UNIT, round_to

# Roundings that a term meets before it is summed, counted generously: code to T, scale to T, product of two scales
# (two conversions and one product), code times input, sum times scale.
TERM_ROUNDINGS = 6


def linear(x: np.ndarray, w: np.ndarray) -> np.ndarray:
    """x (rows, K) times the transpose of w (N, K) in float64."""
    with np.errstate(invalid="ignore", over="ignore"):
        return np.asarray(x, dtype=np.float64) @ np.asarray(w, dtype=np.float64).T


def gamma(steps: float, unit: float) -> float:
    """Classical factor of an error after `steps` roundings; infinite where it stops saying anything."""
    return steps * unit / (1.0 - steps * unit) if steps * unit < 0.5 else np.inf


def sum_depth(k: int) -> float:
    """Additions that a product may pass through in a row of K terms, for any sensible order of the kernels.

    A chunk of at most 16 terms, then a lane's chunks one after another (no lane sees more than every 64th
    element's chunk), then a reduction tree of at most eight levels and eight more for lanes of a vector.
    """
    return min(k, 32 + k / 64)


def coherent_power(products: np.ndarray) -> np.ndarray:
    """Largest sum of squared partial sums over all levels of a binary tree above the last axis (K).

    It is the sum of squares for terms of random signs and the square of the sum for terms of one sign: what the
    rounding errors of a summation grow with, whatever its order.
    """
    level = np.asarray(products, dtype=np.float64)
    largest = np.sum(level**2, axis=-1)
    while level.shape[-1] > 1:
        if level.shape[-1] % 2:
            level = np.concatenate([level, np.zeros_like(level[..., :1])], axis=-1)
        level = level[..., 0::2] + level[..., 1::2]
        largest = np.maximum(largest, np.sum(level**2, axis=-1))
    return largest


def sum_tolerance(products: list, dtype: str, depth: float, roundings: float = TERM_ROUNDINGS) -> np.ndarray:
    """Bound for a sum over the last axis of each array of `products`, rounded to `dtype` at every step."""
    unit = UNIT[dtype]
    magnitude = sum(np.abs(p).sum(axis=-1) for p in products)
    power = sum(coherent_power(p) for p in products)
    worst = gamma(depth + roundings, unit) * magnitude
    likely = 6.0 * unit * np.sqrt((depth + roundings) / 3.0 * power)
    result = sum(p.sum(axis=-1) for p in products)
    return np.minimum(worst, likely) + unit * np.abs(result)


def tolerance(name, data, n: int, k: int, x, dtype: str, scaled=None) -> np.ndarray:
    """(rows, N) bound on the error of a kernel that multiplies x (rows, K) with packed rows in arithmetic of `dtype`.

    Half adds absolute errors where products are subnormal: the unscaled values of the small floats are as little as
    2^-18. The weights of q5_0, q5_1 and q5_k are formed in float, and q5_k is summed in float, also for double.
    """
    x = np.asarray(x, dtype=np.float64)
    depth = sum_depth(k)
    if name == "q5_k" and dtype == "double":
        dtype = "float"
    f = fields(name, data, block_count(name, n, k))
    pairs = [(to_matrix(s, n, k), to_matrix(v, n, k)) for s, v in terms(name, f, scaled)]
    eta = UNDERFLOW[dtype]
    result = np.empty((len(x), n))
    for i, row in enumerate(x):
        bound = sum_tolerance([s * v * row for s, v in pairs], dtype, depth)
        for s, v in pairs:
            # before the scale: one product and one addition an element; the scale itself; after it: as many chunks
            bound = bound + eta * (2 * np.abs(s).sum(axis=-1) + 2 * np.abs(v * row).sum(axis=-1) + k / 8 + depth)
            if name == "q5_1" and dtype == "double":
                bound = bound + UNIT["float"] * np.abs(s * v * row).sum(axis=-1)
        result[i] = bound
    return result


def matrix_vector(name, data, n: int, k: int, x, dtype: str, scaled=None):
    """Result (rows, N) in float64 of the kernels that read packed weights in place, and its tolerance in `dtype`.

    For the formats multiplied in floating point: one row or small batches, and with scaled=True the projections and
    the MLP, which apply the stored scale of fp8_e5m2 where the one-row kernel does not.
    """
    weight = decode(name, data, n, k, scaled=scaled, half_factor=True)
    return linear(x, weight), tolerance(name, data, n, k, x, dtype, scaled)


def dense_tolerance(x, w, dtype: str) -> np.ndarray:
    """(rows, N) bound for a dense product of x and w in `dtype`: half and bfloat16 accumulate in float, round once."""
    x, w = np.asarray(x, dtype=np.float64), np.asarray(w, dtype=np.float64)
    k = x.shape[1]
    inner = "double" if dtype == "double" else "float"
    magnitude, result = np.abs(x) @ np.abs(w).T, np.abs(x @ w.T)
    bound = gamma(k + 2, UNIT[inner]) * magnitude
    if dtype != inner:
        bound = bound + UNIT[dtype] * result + UNDERFLOW[dtype]
    return bound


def random_input(rows: int, k: int, dtype: str, seed: int) -> np.ndarray:
    """Normal inputs whose magnitudes vary along K (smooth data hides mistakes), in the storage type of `dtype`."""
    rng = np.random.default_rng([seed, rows, k])
    return round_to(rng.standard_normal((rows, k)) * rng.uniform(0.25, 1.5, k), dtype)
