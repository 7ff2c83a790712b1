"""Activations in 8-bit blocks of 32 elements, and the dot products of iq2_xxs, iq1_s and q2_k weights with them.

The blocks are computed to the bit, by the rounding steps of the quantising kernel; the dot products take those
blocks as they are and are exact integers until the scales come in, in float64.
"""

from __future__ import annotations

from typing import NamedTuple

import numpy as np

from .formats import fields
from .linear import gamma
from .registry import block_count
from .rounding import UNDERFLOW, UNIT

BLOCK_ELEMENTS = 32
RECIPROCAL_127 = np.uint32(0x3C010204).view(np.float32)  # the float nearest 1/127

# Lanes that share a super-block, and super-blocks that the 32 lanes of a row work on at once.
LANES = {"iq2_xxs": (8, 4), "iq1_s": (8, 4), "q2_k": (16, 2)}


class Blocks(NamedTuple):
    d: np.ndarray  # (blocks,) float16, scale
    s: np.ndarray  # (blocks,) float16, sum of the inputs before quantising
    qs: np.ndarray  # (blocks, 32) int8


def quantize_q8_1(x, dtype: str) -> Blocks:
    """Quantise one row (K a multiple of 32) of values exact in `dtype`."""
    wide = np.asarray(x, dtype=np.float64).reshape(-1, BLOCK_ELEMENTS)
    single = wide.astype(np.float32)
    total, lane = single, np.arange(BLOCK_ELEMENTS)
    for mask in (16, 8, 4, 2, 1):  # every lane adds its partner's sum: each step one float addition
        total = total + total[:, lane ^ mask]
    d = np.abs(single).max(axis=1) * RECIPROCAL_127
    divisor = np.where(d == 0, np.float32(1), d)[:, None]
    if dtype == "double":
        quotient = (wide / divisor.astype(np.float64)).astype(np.float32)
    else:
        quotient = single / divisor
    assert quotient.dtype == np.float32
    magnitude = np.floor(np.abs(quotient.astype(np.float64)) + 0.5)  # halves away from zero
    codes = np.where(single.any(axis=1, keepdims=True), np.copysign(magnitude, quotient), 0)
    return Blocks(d.astype(np.float16), total[:, 0].astype(np.float16), codes.astype(np.int8))


def group_dots(name: str, data, n: int, k: int, activations: Blocks, size: bool = False) -> np.ndarray:
    """(n, k / 256, groups) float64: what the vector dot gives for each row, super-block and group number.

    A group is 32 elements (8 to a super-block), for q2_k four codes of each of four 32-element runs (16 of them).
    `size` takes every number by its magnitude, also the two halves of a result (scales, minimums or delta).
    """
    blocks = k // 256
    f = fields(name, data, block_count(name, n, k))
    d8, s8, q = (part.astype(np.float64) for part in activations)
    code, d, m, delta = f.code, f.d, f.m, f.delta
    if size:
        d8, s8, q, code, d, delta = (None if part is None else np.abs(part) for part in (d8, s8, q, code, d, delta))
        m = None if m is None else -np.abs(m)
    d8, s8, q = d8.reshape(blocks, 8), s8.reshape(blocks, 8), q.reshape(blocks, 8, 32)
    d = d.reshape(n, blocks, 1)
    if name == "q2_k":
        code = code.reshape(n, blocks, 2, 4, 8, 4)  # half, run of 32, four-element cut of the run, element
        u = q.reshape(blocks, 2, 4, 8, 4)
        dot, su = (code * u).sum(axis=-1), u.sum(axis=-1)  # (n, blocks, 2, 4, 8), (blocks, 2, 4, 8)
        sub = np.repeat(f.sub.reshape(n, blocks, 2, 4, 2), 4, axis=-1)  # 16 elements, four cuts, share a scale
        sub_min = np.repeat(f.sub_min.reshape(n, blocks, 2, 4, 2), 4, axis=-1)
        scale = d8.reshape(blocks, 2, 4, 1)
        plus, minus = (scale * dot * sub).sum(axis=3), (scale * su * sub_min).sum(axis=3)
        return plus.reshape(n, blocks, 16) * d - minus.reshape(n, blocks, 16) * m.reshape(n, blocks, 1)
    sumi = (code.reshape(n, blocks, 8, 32) * q).sum(axis=-1)
    sub = f.sub.reshape(n, blocks, 8)
    if name == "iq2_xxs":
        return (sub + 0.5) * d * d8 * 0.25 * sumi
    dl = d * (2 * sub + 1)
    return dl * d8 * sumi + dl * s8 * delta.reshape(n, blocks, 8)


def matrix_vector_q8_1(name: str, data, n: int, k: int, x, dtype: str):
    """Result (n,) in float64 and its tolerance, of one input row against packed rows by way of 8-bit activations.

    The error comes from float arithmetic inside a lane and, but for iq1_s, from a tree over 32 lanes in `dtype`.
    """
    activations = quantize_q8_1(x, dtype)
    dots = group_dots(name, data, n, k, activations)
    result = dots.sum(axis=(1, 2))
    magnitude = group_dots(name, data, n, k, activations, size=True).sum(axis=(1, 2))
    bound = gamma(16 + k / 256, UNIT["float"]) * magnitude
    if name != "iq1_s":
        lanes, flight = LANES[name]
        blocks = k // 256
        padded = np.concatenate([dots, np.zeros((n, -blocks % flight, lanes))], axis=1)
        per_lane = np.abs(padded.reshape(n, -1, flight * lanes).sum(axis=1)).sum(axis=1)
        bound = bound + gamma(6, UNIT[dtype]) * per_lane + 64 * UNDERFLOW[dtype]
    return result, bound + UNIT[dtype] * np.abs(result) + UNDERFLOW[dtype]
