"""The tiled product of few rows with q4_0, q8_0, fp8_e4m3 and fp8_e5m2 weights on the systolic unit.

Eight threads share the 64-element blocks of a row. Within a thread all sums are float; each thread's sum is then
rounded to half (bfloat16 for bfloat16 input), and the eight are added in that type, thread 0 first.
"""

from __future__ import annotations

from itertools import pairwise

import numpy as np

from .formats import decode
from .linear import gamma
from .rounding import UNDERFLOW, UNIT, add, round_to

THREADS = 8
WEIGHTS_WITHOUT_MIDPOINT = ("fp8_e4m3",)  # the half step below the mantissa is left out here
REDUCTION = {"float": "half", "half": "half", "bfloat16": "bfloat16"}


def shares(k: int) -> list:
    """Slices of K, one per thread; the last ones may be empty."""
    blocks = k // 64
    each = (blocks + THREADS - 1) // THREADS
    bounds = [min(t * each, blocks) * 64 for t in range(THREADS + 1)]
    return [slice(a, b) for a, b in pairwise(bounds)]


def systolic(x, name: str, data, n: int, k: int, dtype: str):
    """Result (rows, n) with the stated roundings of the reduction, and its tolerance.

    The only freedom left is the order of the float sums within a thread. It may move a partial sum across a rounding
    boundary, hence the unit of the reduction type for each of the eight sums and eight additions. A partial sum
    beyond the range of half is infinite in the result, as it is to be.
    """
    reduction = REDUCTION[dtype]
    weight = decode(name, data, n, k, scaled=True, midpoint=name not in WEIGHTS_WITHOUT_MIDPOINT)
    x = round_to(x, reduction).astype(np.float64)
    total = round_to(np.zeros((len(x), n)), reduction)
    bound = np.zeros((len(x), n))
    unit = UNIT[reduction]
    for share in shares(k):
        exact = x[:, share] @ weight[:, share].T
        partial = round_to(exact, reduction)
        total = add(total, partial, reduction)
        with np.errstate(invalid="ignore"):
            magnitude = np.abs(x[:, share]) @ np.abs(weight[:, share]).T
            inner = gamma(share.stop - share.start + 4, UNIT["float"]) * magnitude
            outer = 2 * unit * (np.abs(exact) + np.abs(total.astype(np.float64))) + 2 * UNDERFLOW[reduction]
            bound = bound + inner + outer
    return total.astype(np.float64), bound
