"""Packers of the integer formats q4_0, q4_1, q5_0, q5_1 and q8_0: 64-element blocks with one scale, some an offset too.

The scale of a block is searched for the least squared error.
"""

from __future__ import annotations

import numpy as np

from .common import (
    Bytes,
    Float,
    Format,
    float_bytes,
    from_float,
    from_half,
    half_bytes,
    largest_magnitude,
    reciprocal,
    rounded,
    search_affine,
    search_scale,
    to_half,
)

# Steps laid over a block's range beyond its codes: a little clipping of the extreme often lowers the total error.
STRETCHES = (-1.0, -0.6, -0.2, 0.2, 0.6, 1.0)


def pack_nibbles(codes: Bytes) -> Bytes:
    """Codes (n, 64) to bytes (n, 32): byte j holds element j in its low nibble and element j + 32 in its high one."""
    return codes[:, :32] | codes[:, 32:] << 4


def unpack_nibbles(packed: Bytes) -> Bytes:
    """The inverse of pack_nibbles."""
    return np.concatenate([packed & 15, packed >> 4], axis=1)


def signed_codes(x: Float, importance: Float | None, top: int) -> tuple[Bytes, Float]:
    """Codes from 0 to 2 * top - 1 for y = d * (code - top), and the Half scales d (n,).

    The extreme of a block goes to the end of the codes that has one more step, -top, so d may be negative.
    """
    extreme = largest_magnitude(x)
    candidates = (extreme / np.float32(-(top + stretch)) for stretch in STRETCHES)
    d = to_half(search_scale(x, importance, candidates, lambda y: rounded(y, -top, top - 1)))
    codes = rounded(x * reciprocal(d)[:, None], -top, top - 1) + top
    return codes.astype(np.uint8), d


def unsigned_codes(x: Float, importance: Float | None, levels: int) -> tuple[Bytes, Float, Float]:
    """Codes from 0 to `levels` for y = d * code + m, and the Half scales and offsets, each (n,)."""
    d, m = (to_half(value) for value in search_affine(x, importance, levels, STRETCHES, False))
    codes = rounded((x - m[:, None]) * reciprocal(d)[:, None], 0, levels)
    return codes.astype(np.uint8), d, m


def encode_q4_0(x: Float, importance: Float | None) -> tuple[Bytes, Bytes]:
    codes, d = signed_codes(x, importance, 8)
    return pack_nibbles(codes), half_bytes(d)


def decode_q4_0(codes: Bytes, scales: Bytes) -> Float:
    return from_half(scales) * (unpack_nibbles(codes).astype(np.float32) - 8)


def encode_q4_1(x: Float, importance: Float | None) -> tuple[Bytes, Bytes]:
    codes, d, m = unsigned_codes(x, importance, 15)
    return pack_nibbles(codes), half_bytes(d, m)


def decode_q4_1(codes: Bytes, scales: Bytes) -> Float:
    pair = from_half(scales)
    return pair[:, :1] * unpack_nibbles(codes).astype(np.float32) + pair[:, 1:]


def pack_five_bits(codes: Bytes, d: Float, m: Float) -> Bytes:
    """Blocks of 44 bytes: d, m, eight bytes with the top bit of element e as bit e, 32 bytes of nibbles."""
    top_bits = np.packbits(codes >> 4, axis=1, bitorder="little")
    return np.concatenate([half_bytes(d, m), top_bits, pack_nibbles(codes & 15)], axis=1)


def unpack_five_bits(block: Bytes) -> tuple[Float, Float, Float]:
    """Codes as float32 (n, 64), scales and offsets, each (n, 1)."""
    pair = from_half(block[:, :4])
    codes = unpack_nibbles(block[:, 12:]) | np.unpackbits(block[:, 4:12], axis=1, bitorder="little") << 4
    return codes.astype(np.float32), pair[:, :1], pair[:, 1:]


def encode_q5_0(x: Float, importance: Float | None) -> tuple[Bytes]:
    codes, d = signed_codes(x, importance, 16)
    return (pack_five_bits(codes, d, np.zeros_like(d)),)  # the field m exists and is not read


def decode_q5_0(block: Bytes) -> Float:
    codes, d, _ = unpack_five_bits(block)
    return d * (codes - 16)


def encode_q5_1(x: Float, importance: Float | None) -> tuple[Bytes]:
    return (pack_five_bits(*unsigned_codes(x, importance, 31)),)


def decode_q5_1(block: Bytes) -> Float:
    codes, d, m = unpack_five_bits(block)
    return d * codes + m


def encode_q8_0(x: Float, importance: Float | None) -> tuple[Bytes, Bytes]:
    del importance
    # With 127 steps either side a search gains nothing worth its time.
    d = np.abs(x).max(axis=1) / np.float32(127)
    codes = rounded(x * reciprocal(d)[:, None], -127, 127).astype(np.int8)
    return codes.view(np.uint8), float_bytes(d)


def decode_q8_0(codes: Bytes, scales: Bytes) -> Float:
    return from_float(scales) * np.ascontiguousarray(codes).view(np.int8).astype(np.float32)


FORMATS = (
    Format("q4_0", 2, 64, (32, 2), encode_q4_0, decode_q4_0),
    Format("q4_1", 3, 64, (32, 4), encode_q4_1, decode_q4_1),
    Format("q5_0", 6, 64, (44,), encode_q5_0, decode_q5_0),
    Format("q5_1", 7, 64, (44,), encode_q5_1, decode_q5_1),
    Format("q8_0", 8, 64, (64, 4), encode_q8_0, decode_q8_0),
)
