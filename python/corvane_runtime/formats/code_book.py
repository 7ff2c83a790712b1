"""Packers of the table formats nf4, nf3 and fp4: 64-element blocks of codes that name entries of a fixed table.

The scale of a block is searched for the least squared error.
"""

from __future__ import annotations

import numpy as np

from .common import (
    Bytes,
    Float,
    Format,
    from_half,
    half_bytes,
    midpoints,
    nearest_index,
    reciprocal,
    search_scale,
    to_half,
)
from .integer import pack_nibbles, unpack_nibbles

# The published 4-bit NormalFloat code.
NF4 = np.array(
    [
        -1.0, -0.6961928009986877, -0.5250730514526367, -0.39491748809814453,
        -0.28444138169288635, -0.18477343022823334, -0.09105003625154495, 0.0,
        0.07958029955625534, 0.16093020141124725, 0.24611230194568634, 0.33791524171829224,
        0.44070982933044434, 0.5626170039176941, 0.7229568362236023, 1.0,
    ],
    dtype=np.float32,
)  # fmt: skip

# Its 3-bit form: four entries of NF4 above zero, three of their own below.
NF3 = np.array(
    [-1.0, -0.4786292016506195, -0.217141792178154, 0.0, *NF4[[9, 11, 13, 15]]],
    dtype=np.float32,
)

# Magnitudes of fp4: E2M1, with 2^-5 in the place of zero.
FP4_MAGNITUDES = np.array([0.03125, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0], dtype=np.float32)

# The block's extreme as a part of the table's end: clipping it a little often lowers the total error.
CLIPS = (0.7, 0.775, 0.85, 0.925, 1.0)


def table_codes(x: Float, importance: Float | None, table: Float) -> tuple[Bytes, Float]:
    """Nearest codes of an ascending table that ends in -1 and 1, and the Half scales d (n,)."""
    boundaries = midpoints(table)
    extreme = np.abs(x).max(axis=1)
    candidates = (extreme * np.float32(clip) for clip in CLIPS)
    d = to_half(search_scale(x, importance, candidates, lambda y: table[nearest_index(y, boundaries)]))
    return nearest_index(x * reciprocal(d)[:, None], boundaries), d


def encode_nf4(x: Float, importance: Float | None) -> tuple[Bytes, Bytes]:
    codes, d = table_codes(x, importance, NF4)
    # Element j is the high nibble of byte j, element j + 32 the low one: the reverse of q4_0 and fp4.
    return pack_nibbles(np.roll(codes, 32, axis=1)), half_bytes(d)


def decode_nf4(codes: Bytes, scales: Bytes) -> Float:
    return NF4[np.roll(unpack_nibbles(codes), 32, axis=1)] * from_half(scales)


NF3_SHIFTS = np.array([6, 4, 2, 0], dtype=np.uint8)  # of the low two bits of four neighbouring elements in their byte


def encode_nf3(x: Float, importance: Float | None) -> tuple[Bytes, Bytes]:
    codes, d = table_codes(x, importance, NF3)
    top_bits = np.packbits(codes >> 2, axis=1, bitorder="little")
    low_bits = np.bitwise_or.reduce((codes & 3).reshape(-1, 16, 4) << NF3_SHIFTS, axis=2)
    return np.concatenate([top_bits, low_bits], axis=1), half_bytes(d)


def decode_nf3(codes: Bytes, scales: Bytes) -> Float:
    top_bits = np.unpackbits(codes[:, :8], axis=1, bitorder="little")
    low_bits = (codes[:, 8:, None] >> NF3_SHIFTS & 3).reshape(-1, 64)
    return NF3[top_bits << 2 | low_bits] * from_half(scales)


FP4_BOUNDARIES = midpoints(FP4_MAGNITUDES)


def fp4_values(x: Float) -> Float:
    """The nearest magnitudes for x >= 0."""
    return FP4_MAGNITUDES[nearest_index(x, FP4_BOUNDARIES)]


def encode_fp4(x: Float, importance: Float | None) -> tuple[Bytes, Bytes]:
    # The scale is positive, so a code's sign is the sign of its element, and magnitudes alone decide the rest.
    magnitude = np.abs(x)
    extreme = magnitude.max(axis=1) / FP4_MAGNITUDES[-1]
    candidates = (extreme * np.float32(clip) for clip in CLIPS)
    d = to_half(search_scale(magnitude, importance, candidates, fp4_values))
    codes = nearest_index(magnitude * reciprocal(d)[:, None], FP4_BOUNDARIES)
    return pack_nibbles(codes | (x < 0).astype(np.uint8) << 3), half_bytes(d)


def decode_fp4(codes: Bytes, scales: Bytes) -> Float:
    nibbles = unpack_nibbles(codes)
    values = np.concatenate([FP4_MAGNITUDES, -FP4_MAGNITUDES])[nibbles]
    return values * from_half(scales)


FORMATS = (
    Format("nf4", 10, 64, (32, 2), encode_nf4, decode_nf4),
    Format("nf3", 11, 64, (24, 2), encode_nf3, decode_nf3),
    Format("fp4", 16, 64, (32, 2), encode_fp4, decode_fp4),
)
