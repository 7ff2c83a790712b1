"""Names, ids and sizes of the packed formats, the planes of their bytes, and the value of a small float code."""

from __future__ import annotations

from typing import NamedTuple

import numpy as np


class Format(NamedTuple):
    name: str
    qtype: int
    block_elements: int
    block_bytes: int
    planes: tuple[int, ...]  # bytes that a block has in each plane, in plane order; one entry: whole blocks in a row


FORMATS = {
    f.name: f
    for f in (
        Format("q4_0", 2, 64, 34, (32, 2)),  # codes, half d
        Format("q4_1", 3, 64, 36, (32, 4)),  # codes, half d and m
        Format("q5_0", 6, 64, 44, (44,)),
        Format("q5_1", 7, 64, 44, (44,)),
        Format("q8_0", 8, 64, 68, (64, 4)),  # codes, float d
        Format("nf4", 10, 64, 34, (32, 2)),
        Format("nf3", 11, 64, 26, (24, 2)),
        Format("fp8_e4m3", 15, 64, 68, (64, 4)),
        Format("fp4", 16, 64, 34, (32, 2)),
        Format("fp8_e5m2", 19, 64, 68, (64, 4)),
        Format("iq2_xxs", 21, 256, 66, (66,)),
        Format("q2_k", 23, 256, 84, (84,)),
        Format("iq1_s", 24, 256, 50, (50,)),
        Format("q6_k", 26, 256, 210, (64, 128, 16, 2)),  # 2-bit plane, 4-bit plane, sub-block scales, half d
        Format("q4_k", 27, 256, 148, (128, 16, 4)),  # codes, scale and minimum pairs, half d and dmin
        Format("q5_k", 28, 256, 176, (176,)),
        Format("fp6", 29, 64, 50, (32, 16, 2)),  # 4-bit plane, 2-bit plane, half d
        Format("fp6_k", 30, 256, 210, (128, 64, 16, 2)),  # 4-bit plane, 2-bit plane, sub-block scales, half d
    )
}


def block_count(name: str, n: int, k: int) -> int:
    return n * k // FORMATS[name].block_elements


def packed_bytes(name: str, n: int, k: int) -> int:
    return block_count(name, n, k) * FORMATS[name].block_bytes


def plane_views(name: str, data: np.ndarray, nb: int) -> list[np.ndarray]:
    """The planes of a packed weight as writable (nb, bytes) views, in plane order."""
    data = np.asarray(data)
    assert data.dtype == np.uint8 and data.ndim == 1 and data.size >= nb * FORMATS[name].block_bytes
    views, start = [], 0
    for width in FORMATS[name].planes:
        views.append(data[start : start + nb * width].reshape(nb, width))
        start += nb * width
    return views


def small_float(codes, exponent_bits: int, mantissa_bits: int, midpoint: bool = True) -> np.ndarray:
    """Value in float64 of codes sign | exponent | mantissa that stand uncorrected in the top bits of a half.

    The exponent therefore has the half's bias of 15 however few bits it has, and `midpoint` is the bit set below
    the mantissa, half a step of it. A five-bit exponent of 31 is not a number, the mantissa never being zero.
    """
    codes = np.asarray(codes, dtype=np.int64)
    steps = 1 << mantissa_bits
    mantissa = (codes & (steps - 1)) / steps + (0.5 / steps if midpoint else 0.0)
    exponent = (codes >> mantissa_bits) & ((1 << exponent_bits) - 1)
    value = np.where(exponent == 0, mantissa * 2.0**-14, (1.0 + mantissa) * 2.0 ** (exponent - 15.0))
    value = np.where(exponent == 31, np.nan if midpoint else np.inf, value)
    return np.where((codes >> (mantissa_bits + exponent_bits)) & 1, -value, value)
