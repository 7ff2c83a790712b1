"""The result of a linear call by the path that it takes: what its kernels are to give, and the tolerance for it."""

from __future__ import annotations

import numpy as np

from .expand import expand_general, expand_simd
from .linear import dense_tolerance, linear, matrix_vector
from .paths import ACCEPTED, QUANTISED, Outcome
from .q8_1 import matrix_vector_q8_1
from .systolic import systolic


def expanded(outcome: Outcome, name: str, data, n: int, k: int, dtype: str) -> np.ndarray:
    """The dense matrix that the expansion or tile kernels of an outcome write, in the storage type of `dtype`."""
    if any(kernel.startswith("dequantize_") for kernel, _ in outcome.launches):
        return expand_simd(name, data, n, k, dtype)
    return expand_general(name, data, n, k, dtype)


def forward(outcome: Outcome, qtype: int, x, data, n: int, k: int, dtype: str):
    """Result (rows, n) in float64 and its tolerance for an outcome of paths.select that is no refusal."""
    name = ACCEPTED[qtype]
    if outcome.path == "systolic":
        return systolic(x, name, data, n, k, dtype)
    if outcome.path == "matrix_vector" and qtype in QUANTISED:
        y, bound = matrix_vector_q8_1(name, data, n, k, np.asarray(x)[0], dtype)
        return y[None], bound[None]
    if outcome.path in ("matrix_vector", "small_batch"):
        return matrix_vector(name, data, n, k, x, dtype)
    assert outcome.path in ("tile", "expansion"), outcome
    weight = expanded(outcome, name, data, n, k, dtype)
    return linear(x, weight), dense_tolerance(x, weight, dtype)
