"""Packers of the super-block formats q2_k, q4_k, q5_k, q6_k and fp6_k: 256 elements with a small scale per sub-block.

Sub-block scales are searched for the least squared error, then quantised under
the super-block's Half, and the codes are picked again for the scales that a reader will see.
"""

from __future__ import annotations

import numpy as np

from .common import (
    Bytes,
    Float,
    Format,
    from_half,
    half_bytes,
    in_pieces,
    largest_magnitude,
    reciprocal,
    rounded,
    search_affine,
    search_scale,
    to_half,
)
from .small_float import FP6_BYTE_ORDER, fp6_codes, fp6_decode, fp6_scale, join_six_bits, split_six_bits

STRETCHES = (-0.9, -0.6, -0.3, 0.0, 0.3, 0.6, 0.9)
PLAIN_BYTE_ORDER = (0, 1, 2, 3)  # of q6_k, where fp6_k takes FP6_BYTE_ORDER


def affine_super_blocks(
    x: Float, importance: Float | None, sub: int, levels: int, top: int
) -> tuple[Bytes, Bytes, Bytes, Float, Float]:
    """Fit y = d * sc * q - dmin * m over sub-blocks of `sub` elements, q from 0 to levels, sc and m from 0 to top.

    x is float32 (n, 256). Gives q uint8 (n, 256), sc and m uint8 (n, 256 / sub), and the Half values d and dmin (n,).
    """
    n = x.shape[0]
    pieces = x.reshape(-1, sub)
    scale, offset = search_affine(pieces, in_pieces(importance, sub), levels, STRETCHES, True)
    d, sc = quantised_scales(scale.reshape(n, -1), top)
    dmin, m = quantised_scales(-offset.reshape(n, -1), top)
    inverse = reciprocal(d[:, None] * sc).reshape(-1, 1)
    lift = (dmin[:, None] * m).reshape(-1, 1)
    q = rounded((pieces + lift) * inverse, 0, levels).astype(np.uint8)
    return q.reshape(n, 256), sc.astype(np.uint8), m.astype(np.uint8), d, dmin


def quantised_scales(scale: Float, top: int) -> tuple[Float, Float]:
    """Scales (n, s) as a Half (n,) times whole numbers from -top to top, kept as float32 (n, s)."""
    unit = to_half(np.abs(scale).max(axis=1) / np.float32(top))
    return unit, rounded(scale * reciprocal(unit)[:, None], -top, top)


def sub_block_rows(values: Bytes | Float, sub: int) -> Float:
    """A value for each sub-block (n, 256 / sub), repeated for its elements: float32 (n, 256)."""
    return np.repeat(values.astype(np.float32), sub, axis=1)


# --- q2_k: 16 bytes of scales (low nibble) and minima (high), 64 of codes, d, dmin ----------------------------------


def encode_q2_k(x: Float, importance: Float | None) -> tuple[Bytes]:
    q, sc, m, d, dmin = affine_super_blocks(x, importance, 16, 3, 15)
    quarters = q.reshape(-1, 2, 4, 32)  # byte 32h + l holds elements 128h + 32g + l, g from the lowest bits up
    qs = quarters[:, :, 0] | quarters[:, :, 1] << 2 | quarters[:, :, 2] << 4 | quarters[:, :, 3] << 6
    return (np.concatenate([sc | m << 4, qs.reshape(-1, 64), half_bytes(d, dmin)], axis=1),)


def decode_q2_k(block: Bytes) -> Float:
    scales, d_dmin = block[:, :16], from_half(block[:, 80:])
    qs = block[:, 16:80].reshape(-1, 2, 1, 32)
    q = (qs >> np.array([0, 2, 4, 6], dtype=np.uint8).reshape(4, 1) & 3).reshape(-1, 256)
    return d_dmin[:, :1] * sub_block_rows(scales & 15, 16) * q - d_dmin[:, 1:] * sub_block_rows(scales >> 4, 16)


# --- q4_k: planes of codes, of (scale, minimum) byte pairs, of (d, dmin) --------------------------------------------


def encode_q4_k(x: Float, importance: Float | None) -> tuple[Bytes, Bytes, Bytes]:
    q, sc, m, d, dmin = affine_super_blocks(x, importance, 32, 15, 255)
    halves = q.reshape(-1, 8, 2, 16)  # byte 16i + r holds elements 32i + r and 32i + 16 + r
    codes = halves[:, :, 0] | halves[:, :, 1] << 4
    return codes.reshape(-1, 128), np.stack([sc, m], axis=2).reshape(-1, 16), half_bytes(d, dmin)


def decode_q4_k(codes: Bytes, scales: Bytes, supers: Bytes) -> Float:
    bytes_ = codes.reshape(-1, 8, 16)
    q = np.stack([bytes_ & 15, bytes_ >> 4], axis=2).reshape(-1, 256)
    d_dmin = from_half(supers)
    return d_dmin[:, :1] * sub_block_rows(scales[:, 0::2], 32) * q - d_dmin[:, 1:] * sub_block_rows(scales[:, 1::2], 32)


# --- q5_k: d, dmin, 12 bytes of 6-bit scales and minima, 32 of top bits, 128 of nibbles -----------------------------


def encode_q5_k(x: Float, importance: Float | None) -> tuple[Bytes]:
    q, sc, m, d, dmin = affine_super_blocks(x, importance, 32, 31, 63)
    # Sub-blocks 0 to 3 have their six bits whole; 4 to 7 have nibbles in the last four bytes and lend top bits above.
    scales = np.concatenate(
        [
            sc[:, :4] | sc[:, 4:] >> 4 << 6,
            m[:, :4] | m[:, 4:] >> 4 << 6,
            sc[:, 4:] & 15 | (m[:, 4:] & 15) << 4,
        ],
        axis=1,
    )
    top_bits = np.packbits((q >> 4).reshape(-1, 8, 32), axis=1, bitorder="little").reshape(-1, 32)
    pairs = (q & 15).reshape(-1, 4, 2, 32)
    nibbles = (pairs[:, :, 0] | pairs[:, :, 1] << 4).reshape(-1, 128)
    return (np.concatenate([half_bytes(d, dmin), scales, top_bits, nibbles], axis=1),)


def decode_q5_k(block: Bytes) -> Float:
    d_dmin, packed = from_half(block[:, :4]), block[:, 4:16]
    first, second, third = packed[:, :4], packed[:, 4:8], packed[:, 8:]
    sc = np.concatenate([first & 63, third & 15 | first >> 6 << 4], axis=1)
    m = np.concatenate([second & 63, third >> 4 | second >> 6 << 4], axis=1)
    top_bits = np.unpackbits(block[:, 16:48].reshape(-1, 1, 32), axis=1, bitorder="little")
    bytes_ = block[:, 48:].reshape(-1, 4, 32)
    q = np.stack([bytes_ & 15, bytes_ >> 4], axis=2).reshape(-1, 8, 32) | top_bits << 4
    return d_dmin[:, :1] * sub_block_rows(sc, 32) * q.reshape(-1, 256) - d_dmin[:, 1:] * sub_block_rows(m, 32)


# --- q6_k: planes of high bits, low bits, signed sub-block scales, d -------------------------------------------------


def encode_q6_k(x: Float, importance: Float | None) -> tuple[Bytes, Bytes, Bytes, Bytes]:
    n = x.shape[0]
    pieces = x.reshape(-1, 16)
    extreme = largest_magnitude(pieces)
    candidates = (extreme / np.float32(-(32 + stretch)) for stretch in STRETCHES)
    scale = search_scale(pieces, in_pieces(importance, 16), candidates, lambda y: rounded(y, -32, 31))
    d, sc = quantised_scales(scale.reshape(n, 16), 127)
    inverse = reciprocal(d[:, None] * sc).reshape(-1, 1)
    q = (rounded(pieces * inverse, -32, 31) + 32).astype(np.uint8).reshape(n, 256)
    low, high = split_six_bits(q, PLAIN_BYTE_ORDER)
    return high, low, sc.astype(np.int8).view(np.uint8), half_bytes(d)


def decode_q6_k(high: Bytes, low: Bytes, scales: Bytes, supers: Bytes) -> Float:
    q = join_six_bits(low, high, PLAIN_BYTE_ORDER).astype(np.float32) - 32
    sc = np.ascontiguousarray(scales).view(np.int8)
    return from_half(supers) * sub_block_rows(sc, 16) * q


# --- fp6_k: planes of low bits, high bits, signed sub-block scales, d ------------------------------------------------


def encode_fp6_k(x: Float, importance: Float | None) -> tuple[Bytes, Bytes, Bytes, Bytes]:
    n = x.shape[0]
    pieces = x.reshape(-1, 16)
    d, sc = quantised_scales(fp6_scale(np.abs(pieces), in_pieces(importance, 16)).reshape(n, 16), 127)
    # Readers round d * sc to Half; codes are picked for that product.
    inverse = reciprocal(to_half(d[:, None] * sc)).reshape(-1, 1)
    four, two = split_six_bits(fp6_codes(pieces, inverse).reshape(n, 256), FP6_BYTE_ORDER)
    return four, two, sc.astype(np.int8).view(np.uint8), half_bytes(d)


def decode_fp6_k(four: Bytes, two: Bytes, scales: Bytes, supers: Bytes) -> Float:
    sc = np.ascontiguousarray(scales).view(np.int8)
    factors = to_half(from_half(supers) * sc)
    return fp6_decode(join_six_bits(four, two, FP6_BYTE_ORDER)) * sub_block_rows(factors, 16)


FORMATS = (
    Format("q2_k", 23, 256, (84,), encode_q2_k, decode_q2_k),
    Format("q6_k", 26, 256, (64, 128, 16, 2), encode_q6_k, decode_q6_k),
    Format("q4_k", 27, 256, (128, 16, 4), encode_q4_k, decode_q4_k),
    Format("q5_k", 28, 256, (176,), encode_q5_k, decode_q5_k),
    Format("fp6_k", 30, 256, (128, 64, 16, 2), encode_fp6_k, decode_fp6_k),
)
