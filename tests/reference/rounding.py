"""The four element types of the kernels, and rounding to them.

Arrays of `half`, `float` and `double` are numpy float16, float32 and float64. numpy has no bfloat16: such arrays
are float32 whose low 16 bits are zero, every operation rounds its float32 result to nearest even.
"""

from __future__ import annotations

import numpy as np

DTYPES = ("half", "float", "double", "bfloat16")

STORAGE = {"half": np.float16, "float": np.float32, "double": np.float64, "bfloat16": np.float32}

# Unit roundoff: largest relative error of one rounding to nearest.
UNIT = {"half": 2.0**-11, "float": 2.0**-24, "double": 2.0**-53, "bfloat16": 2.0**-8}

# Largest absolute error of one rounding that ends among the subnormals: half of the smallest number.
UNDERFLOW = {"half": 2.0**-25, "float": 2.0**-150, "double": 0.0, "bfloat16": 2.0**-134}


def round_bf16(x) -> np.ndarray:
    """Round to bfloat16, ties to even, through float32; any not-a-number becomes the pattern 0x7FC0."""
    with np.errstate(over="ignore", invalid="ignore"):
        single = np.array(x, dtype=np.float32)
    bits = single.view(np.uint32).astype(np.uint64)
    rounded = (bits + 0x7FFF + ((bits >> 16) & 1)) & 0xFFFF0000
    rounded = np.where(np.isnan(single), 0x7FC00000, rounded).astype(np.uint32)
    return rounded.view(np.float32).reshape(single.shape)


def round_to(x, dtype: str) -> np.ndarray:
    """Convert to an element type with one rounding (bfloat16: through float32, as the framework's type does)."""
    if dtype == "bfloat16":
        return round_bf16(x)
    with np.errstate(over="ignore", invalid="ignore", under="ignore"):
        return np.asarray(x).astype(STORAGE[dtype])


def multiply(a, b, dtype: str) -> np.ndarray:
    """a * b for operands of `dtype`, rounded to it. A float32 product of two halves or bfloat16 is exact."""
    with np.errstate(over="ignore", invalid="ignore", under="ignore"):
        if dtype == "half":
            return (np.float32(a) * np.float32(b)).astype(np.float16)
        if dtype == "bfloat16":
            return round_bf16(np.float32(a) * np.float32(b))
        return STORAGE[dtype](a) * STORAGE[dtype](b)


def add(a, b, dtype: str) -> np.ndarray:
    """a + b for operands of `dtype`, rounded to it.

    The float32 sum in between does no harm: 24 bits are at least twice 11 bits plus 2, so the second rounding of
    a half never differs from rounding the exact sum; for bfloat16 the float32 step is part of the definition.
    """
    with np.errstate(over="ignore", invalid="ignore", under="ignore"):
        if dtype == "half":
            return (np.float32(a) + np.float32(b)).astype(np.float16)
        if dtype == "bfloat16":
            return round_bf16(np.float32(a) + np.float32(b))
        return STORAGE[dtype](a) + STORAGE[dtype](b)
