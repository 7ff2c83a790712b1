"""The 18 packed weight formats, read element by element from their bytes, and random packed weights.

A packed weight is one uint8 array; its matrix has n rows of k elements, row-major, and block numbering runs on
across row ends. `fields` splits the bytes into element codes and block scales, `terms` turns those into factors,
`decode` multiplies and adds the factors in float64.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from . import grids
from .random_weights import blank_weight, random_weight
from .registry import FORMATS, block_count, packed_bytes, plane_views, small_float

__all__ = [
    "FORMATS", "Fields", "blank_weight", "block_count", "decode", "fields", "packed_bytes", "plane_views",
    "random_weight", "small_float", "terms", "values",
]  # fmt: skip

NF4 = np.array(
    [
        -1.0, -0.6961928009986877, -0.5250730514526367, -0.39491748809814453,
        -0.28444138169288635, -0.18477343022823334, -0.09105003625154495, 0.0,
        0.07958029955625534, 0.16093020141124725, 0.24611230194568634, 0.33791524171829224,
        0.44070982933044434, 0.5626170039176941, 0.7229568362236023, 1.0,
    ],
    dtype=np.float32,
)  # fmt: skip
NF3 = np.array([-1.0, -0.4786292016506195, -0.217141792178154, 0.0, *NF4[[9, 11, 13, 15]]], dtype=np.float32)
FP4_MAGNITUDE = np.array([0.03125, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0])


@dataclass
class Fields:
    """What the bytes of nb blocks say: codes in element order, scales with as many columns as a block has units."""

    code: np.ndarray  # (nb, block_elements) int64; iq2_xxs: signed grid value; iq1_s: grid value 0 to 2
    d: np.ndarray  # (nb, 1) float64, scale of the block
    m: np.ndarray | None = None  # (nb, 1) float64, offset (q4_1, q5_1) or minimum scale dmin (q2_k, q4_k, q5_k)
    sub: np.ndarray | None = None  # (nb, units) int64, scales of the sub-blocks or groups
    sub_min: np.ndarray | None = None  # (nb, units) int64, minimums of the sub-blocks
    delta: np.ndarray | None = None  # (nb, 8) float64, offset of an iq1_s group

    def spread(self, per_unit: np.ndarray) -> np.ndarray:
        """A scale array repeated to one column per element."""
        return np.repeat(per_unit, self.code.shape[1] // per_unit.shape[1], axis=1)


def _halves(raw: np.ndarray) -> np.ndarray:
    return np.ascontiguousarray(raw).view("<f2").astype(np.float64)


def _floats(raw: np.ndarray) -> np.ndarray:
    return np.ascontiguousarray(raw).view("<f4").astype(np.float64)


def _nibbles(raw: np.ndarray, high_first: bool = False) -> np.ndarray:
    """Codes of a plane row: element j in one nibble of byte j, the elements of the other nibble behind all those."""
    low, high = raw & 15, raw >> 4
    return np.concatenate([high, low] if high_first else [low, high], axis=-1).astype(np.int64)


def _bits(raw: np.ndarray) -> np.ndarray:
    """Bits of each row of bytes as one little-endian number, lowest first."""
    return np.unpackbits(np.ascontiguousarray(raw), axis=-1, bitorder="little").astype(np.int64)


def _q5(raw: np.ndarray) -> Fields:
    # d, m: 2 bytes each; qh: 8 bytes, bit e extends element e; qs: 32 bytes
    code = _nibbles(raw[:, 12:44]) | (_bits(raw[:, 4:12]) << 4)
    return Fields(code, d=_halves(raw[:, 0:2]), m=_halves(raw[:, 2:4]))


def _nf3(codes: np.ndarray, scales: np.ndarray) -> Fields:
    # 8 bytes of top bits, then 16 bytes with four two-bit codes each, the first in bits 7 and 6
    low = (codes[:, 8:24, None] >> np.array([6, 4, 2, 0])) & 3
    code = (_bits(codes[:, 0:8]) << 2) | low.reshape(len(codes), 64)
    return Fields(code.astype(np.int64), d=_halves(scales))


def _word_code(low_plane: np.ndarray, high_plane: np.ndarray, byte_of: list[int], elements: int) -> np.ndarray:
    """Six-bit codes of fp6, fp6_k and q6_k: 8 codes share a word of the 4-bit plane, 16 a word of the 2-bit plane.

    `byte_of` is the byte of either word in which element p of a run of four stands. Runs take the high nibble
    first, then the low one; in the 2-bit plane bits 7 and 6, then 5 and 4, and so on.
    """
    e = np.arange(elements)
    byte, run = np.array(byte_of)[e % 4], e // 4
    low = low_plane[:, 4 * (e // 8) + byte] >> np.where(run % 2 == 0, 4, 0) & 15
    high = high_plane[:, 4 * (e // 16) + byte] >> (6 - 2 * (run % 4)) & 3
    return (high.astype(np.int64) << 4) | low.astype(np.int64)


def _q2_k(raw: np.ndarray) -> Fields:
    e = np.arange(256)
    half, plane, lane = e // 128, e % 128 // 32, e % 32
    code = (raw[:, 16 + 32 * half + lane].astype(np.int64) >> (2 * plane)) & 3
    sub = raw[:, 0:16].astype(np.int64)  # unit u covers the elements 16u to 16u + 15
    return Fields(code, d=_halves(raw[:, 80:82]), m=_halves(raw[:, 82:84]), sub=sub & 15, sub_min=sub >> 4)


def _q4_k(codes: np.ndarray, pairs: np.ndarray, scales: np.ndarray) -> Fields:
    nb = len(codes)
    code = _nibbles(codes.reshape(nb, 8, 16)).reshape(nb, 256)  # 16 bytes hold a sub-block of 32
    d = _halves(scales)
    pairs = pairs.astype(np.int64)
    return Fields(code, d=d[:, 0:1], m=d[:, 1:2], sub=pairs[:, 0::2], sub_min=pairs[:, 1::2])


def _q5_k(raw: np.ndarray) -> Fields:
    nb = len(raw)
    s = raw[:, 4:16].astype(np.int64)
    first, second, third = s[:, 0:4], s[:, 4:8], s[:, 8:12]
    sub = np.concatenate([first & 63, (third & 15) | (first >> 6 << 4)], axis=1)
    sub_min = np.concatenate([second & 63, (third >> 4) | (second >> 6 << 4)], axis=1)
    low = _nibbles(raw[:, 48:176].reshape(nb, 4, 32)).reshape(nb, 8, 32)  # a run of 32 bytes: two sub-blocks
    fifth = (raw[:, None, 16:48].astype(np.int64) >> np.arange(8)[None, :, None]) & 1  # bit i of qh[l]: sub-block i
    code = (low | (fifth << 4)).reshape(nb, 256)
    return Fields(code, d=_halves(raw[:, 0:2]), m=_halves(raw[:, 2:4]), sub=sub, sub_min=sub_min)


def _iq2_xxs(raw: np.ndarray) -> Fields:
    nb = len(raw)
    groups = raw[:, 2:66].reshape(nb, 8, 8)  # 4 grid indices, then a word of 4 sign indices and a scale
    word = np.ascontiguousarray(groups[:, :, 4:8]).view("<u4").astype(np.int64)
    signs = grids.iq2xxs_signs()[(word >> (7 * np.arange(4))) & 127]  # (nb, 8, 4, 8)
    code = grids.iq2xxs_grid()[groups[:, :, 0:4]] * signs
    return Fields(code.reshape(nb, 256), d=_halves(raw[:, 0:2]), sub=(word >> 28).reshape(nb, 8))


def _iq1_s(raw: np.ndarray) -> Fields:
    nb = len(raw)
    low = raw[:, 2:34].reshape(nb, 8, 4).astype(np.int64)
    word = np.ascontiguousarray(raw[:, 34:50]).view("<u2").astype(np.int64)
    row = low | (((word[:, :, None] >> (3 * np.arange(4))) & 7) << 8)
    delta = np.where(word >> 15, -1.125, -0.875)
    code = grids.iq1s_grid()[row].reshape(nb, 256)
    return Fields(code, d=_halves(raw[:, 0:2]), sub=(word >> 12) & 7, delta=delta)


def fields(name: str, data: np.ndarray, nb: int) -> Fields:
    """Codes and scales of the first nb blocks of a weight that has nb blocks."""
    planes = plane_views(name, data, nb)
    if name in ("q5_0", "q5_1"):
        result = _q5(*planes)
        return result if name == "q5_1" else Fields(result.code, d=result.d)
    if name in ("q4_0", "fp4"):
        return Fields(_nibbles(planes[0]), d=_halves(planes[1]))
    if name == "q4_1":
        pair = _halves(planes[1])
        return Fields(_nibbles(planes[0]), d=pair[:, 0:1], m=pair[:, 1:2])
    if name == "nf4":
        return Fields(_nibbles(planes[0], high_first=True), d=_halves(planes[1]))
    if name == "nf3":
        return _nf3(*planes)
    if name == "q8_0":
        return Fields(planes[0].view(np.int8).astype(np.int64), d=_floats(planes[1]))
    if name in ("fp8_e4m3", "fp8_e5m2"):
        return Fields(planes[0].astype(np.int64), d=_floats(planes[1]))
    if name == "fp6":
        return Fields(_word_code(planes[0], planes[1], [1, 3, 0, 2], 64), d=_halves(planes[2]))
    if name == "fp6_k":
        code = _word_code(planes[0], planes[1], [1, 3, 0, 2], 256)
        return Fields(code, d=_halves(planes[3]), sub=planes[2].view(np.int8).astype(np.int64))
    if name == "q6_k":
        code = _word_code(planes[1], planes[0], [0, 1, 2, 3], 256)
        return Fields(code, d=_halves(planes[3]), sub=planes[2].view(np.int8).astype(np.int64))
    return {"q2_k": _q2_k, "q4_k": _q4_k, "q5_k": _q5_k, "iq2_xxs": _iq2_xxs, "iq1_s": _iq1_s}[name](*planes)


def values(name: str, codes: np.ndarray, midpoint: bool = True) -> np.ndarray:
    """What a code stands for before any scale, in float64. `midpoint` matters to the small floats alone."""
    if name in ("q4_0", "q5_0", "q6_k"):
        return codes - {"q4_0": 8.0, "q5_0": 16.0, "q6_k": 32.0}[name]
    if name in ("nf4", "nf3"):
        return {"nf4": NF4, "nf3": NF3}[name].astype(np.float64)[codes]
    if name == "fp4":
        return np.where(codes & 8, -1.0, 1.0) * FP4_MAGNITUDE[codes & 7]
    if name in ("fp6", "fp6_k"):
        return small_float(codes, 3, 2, midpoint)
    if name == "fp8_e4m3":
        return small_float(codes, 4, 3, midpoint)
    if name == "fp8_e5m2":
        return small_float(codes, 5, 2, midpoint)
    return codes.astype(np.float64)


def terms(name: str, f: Fields, scaled: bool | None = None, midpoint: bool = True, half_factor: bool = False) -> list:
    """The weight as a sum of products: pairs (scale, value), each (nb, block_elements) float64.

    `scaled` says whether the block scale counts; left out it does, but for fp8_e5m2, whose expansions and one-row
    kernel leave it aside. The second pair of a format is its offset or minimum, with the value 1 (iq1_s: delta).
    `half_factor` rounds the two-level scale of fp6_k to half, as its one-row kernel does whatever it computes in.
    """
    if scaled is None:
        scaled = name != "fp8_e5m2"
    v = values(name, f.code, midpoint)
    one = np.ones_like(v)
    if not scaled:
        return [(one, v)]
    d = f.spread(f.d)
    if name in ("q4_1", "q5_1"):
        return [(d, v), (f.spread(f.m), one)]
    if name in ("q2_k", "q4_k", "q5_k"):
        return [(d * f.spread(f.sub), v), (-f.spread(f.m) * f.spread(f.sub_min), one)]
    if name in ("q6_k", "fp6_k"):
        factor = d * f.spread(f.sub)
        return [(factor.astype(np.float16).astype(np.float64) if half_factor and name == "fp6_k" else factor, v)]
    if name == "iq2_xxs":
        return [(d * (f.spread(f.sub) + 0.5) * 0.25, v)]
    if name == "iq1_s":
        dl = d * (2 * f.spread(f.sub) + 1)
        return [(dl, v), (dl, f.spread(f.delta))]
    return [(d, v)]


def to_matrix(blocks: np.ndarray, n: int, k: int) -> np.ndarray:
    """Block-wise elements as an (n, k) matrix; elements behind the last whole block are not-a-number."""
    flat = np.full(n * k, np.nan, dtype=blocks.dtype)
    flat[: blocks.size] = blocks.reshape(-1)
    return flat.reshape(n, k)


def decode(name: str, data: np.ndarray, n: int, k: int, *, scaled=None, midpoint=True, half_factor=False):
    """The (n, k) weight matrix in float64. The options are those of `terms`.

    fp8_e5m2: scaled=True applies the stored scale (projections, MLP, systolic). fp8_e4m3: midpoint=False leaves out
    the half step below the mantissa (systolic).
    """
    f = fields(name, data, block_count(name, n, k))
    with np.errstate(invalid="ignore"):
        total = sum(scale * value for scale, value in terms(name, f, scaled, midpoint, half_factor))
    return to_matrix(total, n, k)
