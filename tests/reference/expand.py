"""Expansion of a whole weight into a dense matrix, with every rounding that the kernels are to make.

Two families of kernels do it. The general family works in the output's type or in float, whichever its format
says; the explicit-SIMD family works in half for either output type, but for q4_k and q6_k, which it does in float.
Results are float16, float32 or float64 arrays; bfloat16 comes as float32 that is bfloat16 already. Elements behind
the last whole block, which no kernel writes, are not-a-number. Which not-a-number an fp8_e5m2 code gives is fixed for
bfloat16 alone (0x7FC0).
"""

from __future__ import annotations

import numpy as np

from .formats import Fields, fields, to_matrix, values
from .registry import block_count
from .rounding import add, multiply, round_to


def _in_float(name: str, f: Fields) -> np.ndarray:
    """Formats whose expansion is in float whatever the output is: the order of the operations is the kernels'."""
    one = np.float32(1.0)
    code, d = f.code.astype(np.float32), f.spread(f.d).astype(np.float32)
    if name == "q5_0":
        return (code - np.float32(16)) * d
    if name == "q5_1":
        return d * code + f.spread(f.m).astype(np.float32)
    if name == "nf3":
        return values(name, f.code).astype(np.float32) * d
    sub = f.spread(f.sub).astype(np.float32)
    if name in ("q2_k", "q4_k", "q5_k"):
        minimum = f.spread(f.m).astype(np.float32) * f.spread(f.sub_min).astype(np.float32)
        return (d * sub) * code - minimum
    if name == "q6_k":
        return (d * sub) * (code - np.float32(32))
    if name == "iq2_xxs":
        return (sub + np.float32(0.5)) * d * np.float32(0.25) * code
    if name == "iq1_s":
        return (d * (sub + sub + one)) * (code + f.spread(f.delta).astype(np.float32))
    raise ValueError(f"{name} is not expanded in float")


def _in_type(name: str, f: Fields, dtype: str) -> np.ndarray:
    """Formats expanded in an element type: operands converted to it first, then each operation rounded to it."""
    value = round_to(values(name, f.code), dtype)
    if name == "fp8_e5m2":  # the stored scale is not applied
        return value
    d = round_to(f.spread(f.d), dtype)
    if name == "fp6_k":
        d = multiply(d, round_to(f.spread(f.sub), dtype), dtype)
    product = multiply(d, value, dtype)
    return add(product, round_to(f.spread(f.m), dtype), dtype) if name == "q4_1" else product


_FLOAT_FORMATS = ("q5_0", "q5_1", "nf3", "q2_k", "q4_k", "q5_k", "q6_k", "iq2_xxs", "iq1_s")


def expand_general(name: str, data: np.ndarray, n: int, k: int, dtype: str) -> np.ndarray:
    """The (n, k) matrix that the general expansion kernels write, `dtype` one of rounding.DTYPES."""
    f = fields(name, data, block_count(name, n, k))
    if name in _FLOAT_FORMATS:
        with np.errstate(over="ignore", under="ignore", invalid="ignore"):
            return to_matrix(round_to(_in_float(name, f), dtype), n, k)
    return to_matrix(_in_type(name, f, dtype), n, k)


def expand_simd(name: str, data: np.ndarray, n: int, k: int, out_dtype: str) -> np.ndarray:
    """The (n, k) matrix that the explicit-SIMD expansion kernels write, for an output of half or float."""
    f = fields(name, data, block_count(name, n, k))
    blocks = _in_float(name, f) if name in ("q4_k", "q6_k") else _in_type(name, f, "half")
    return to_matrix(round_to(blocks, out_dtype), n, k)
