"""Packers of the small floats fp6, fp8_e4m3 and fp8_e5m2: codes that a reader moves into the top bits of a Half.

A reader corrects no exponent and sets one bit below the code's last mantissa
bit, so a code stands for the midpoint of its interval, a fixed power of two below the value its name suggests (2^-12
for fp6, 2^-8 for fp8_e4m3, none for fp8_e5m2). The tables here hold what readers see, so that the stored scale makes
up for both.
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
    midpoints,
    nearest_index,
    reciprocal,
    search_scale,
    to_half,
)


def reader_values(codes: int, shift: int, marker: int) -> Float:
    """Values of the codes without sign, 0 to codes - 1: Half words (code << shift) | marker, as float32, ascending."""
    words = np.arange(codes, dtype=np.uint16) << shift | marker
    return words.astype("<u2").view("<f2").astype(np.float32)


FP6_MAGNITUDES = reader_values(32, 8, 0x0080)  # 2^-17 to 0.00732421875
FP6_BOUNDARIES = midpoints(FP6_MAGNITUDES)
FP8_E4M3_MAGNITUDES = reader_values(128, 7, 0x0040)  # 2^-18 to 1.9375
FP8_E4M3_BOUNDARIES = midpoints(FP8_E4M3_MAGNITUDES)
FP8_E5M2_MAGNITUDES = reader_values(124, 8, 0x0080)  # 2^-17 to 61440; the codes beyond are not numbers
FP8_E5M2_BOUNDARIES = midpoints(FP8_E5M2_MAGNITUDES)

# The block's extreme as a part of the largest code. One octave of scales holds all alignments of a small float, but
# only near the top does a code's full range stay in use.
FP6_CLIPS = (0.8, 0.87, 0.94, 1.0, 1.06)

# Bytes 1, 3, 0, 2 of a 32-bit word hold elements 0 to 3 of a group of four in fp6 and fp6_k.
FP6_BYTE_ORDER = (1, 3, 0, 2)


FP6_EVEN_END = np.float32(2.0**-13)  # codes below it are 2^-16 apart, down to 0


def fp6_values(x: Float) -> Float:
    """The nearest code values without sign for x >= 0, from the bits of x: quicker than counting boundaries.

    A code is the interval of floats that share exponent and two mantissa bits, its value the middle; only where the
    spacing changes, at a power of two, does the boundary lie a 32nd above the interval's lower end.
    """
    bits = x.view(np.uint32)
    interval = bits & 0xFFE00000
    interval -= ((bits & 0x007FFFFF) <= 0x00040000).astype(np.uint32) << 21
    interval |= 0x00100000
    values = interval.view(np.float32)
    small = np.floor(x * np.float32(2.0**16))
    small += np.float32(0.5)
    small *= np.float32(2.0**-16)
    np.copyto(values, small, where=x < FP6_EVEN_END)
    return np.minimum(values, FP6_MAGNITUDES[-1], out=values)


def fp6_scale(magnitude: Float, importance: Float | None) -> Float:
    """The best scale of each row of magnitudes, float32 (n, m) to (n,)."""
    extreme = magnitude.max(axis=1) / FP6_MAGNITUDES[-1]
    return search_scale(magnitude, importance, (extreme * np.float32(clip) for clip in FP6_CLIPS), fp6_values)


def fp6_codes(x: Float, inverse_scale: Float) -> Bytes:
    """Six-bit codes, sign in bit 5, nearest to x times the inverse scale, for an inverse scale of either sign."""
    y = x * inverse_scale
    return nearest_index(np.abs(y), FP6_BOUNDARIES) | (y < 0).astype(np.uint8) << 5


def fp6_decode(codes: Bytes) -> Float:
    """Values of six-bit codes without the scale."""
    return np.concatenate([FP6_MAGNITUDES, -FP6_MAGNITUDES])[codes]


def split_six_bits(codes: Bytes, byte_order: tuple[int, int, int, int]) -> tuple[Bytes, Bytes]:
    """Six-bit codes (n, m) to a 4-bit plane (n, m / 2) and a 2-bit plane (n, m / 4).

    Four elements at a time go to the bytes `byte_order` of a 32-bit word. In the 4-bit plane a word takes two such
    groups, the first in the high nibbles; in the 2-bit plane it takes four, from the top bits of each byte down.
    """
    n, m = codes.shape
    four = np.empty((n, m // 8, 4), dtype=np.uint8)
    pairs = (codes & 15).reshape(n, m // 8, 2, 4)
    four[:, :, byte_order] = pairs[:, :, 0] << 4 | pairs[:, :, 1]
    two = np.empty((n, m // 16, 4), dtype=np.uint8)
    quads = (codes >> 4).reshape(n, m // 16, 4, 4)
    two[:, :, byte_order] = quads[:, :, 0] << 6 | quads[:, :, 1] << 4 | quads[:, :, 2] << 2 | quads[:, :, 3]
    return four.reshape(n, m // 2), two.reshape(n, m // 4)


def join_six_bits(four: Bytes, two: Bytes, byte_order: tuple[int, int, int, int]) -> Bytes:
    """The inverse of split_six_bits."""
    n = four.shape[0]
    words = four.reshape(n, -1, 4)[:, :, byte_order]
    low = np.stack([words >> 4, words & 15], axis=2).reshape(n, -1)
    words = two.reshape(n, -1, 4)[:, :, byte_order]
    high = np.stack([words >> 6, words >> 4 & 3, words >> 2 & 3, words & 3], axis=2).reshape(n, -1)
    return high << 4 | low


def encode_fp6(x: Float, importance: Float | None) -> tuple[Bytes, Bytes, Bytes]:
    d = to_half(fp6_scale(np.abs(x), importance))
    four, two = split_six_bits(fp6_codes(x, reciprocal(d)[:, None]), FP6_BYTE_ORDER)
    return four, two, half_bytes(d)


def decode_fp6(four: Bytes, two: Bytes, scales: Bytes) -> Float:
    return fp6_decode(join_six_bits(four, two, FP6_BYTE_ORDER)) * from_half(scales)


def signed_bytes(x: Float, boundaries: Float) -> Bytes:
    """Code bytes, sign in bit 7, for values x."""
    return nearest_index(np.abs(x), boundaries) | (x < 0).astype(np.uint8) << 7


def encode_fp8_e4m3(x: Float, importance: Float | None) -> tuple[Bytes, Bytes]:
    del importance
    # The extreme takes the largest code; with 16 binades below it a search gains nothing worth its time.
    d = np.abs(x).max(axis=1) / FP8_E4M3_MAGNITUDES[-1]
    return signed_bytes(x * reciprocal(d)[:, None], FP8_E4M3_BOUNDARIES), float_bytes(d)


def decode_fp8_e4m3(codes: Bytes, scales: Bytes) -> Float:
    return np.concatenate([FP8_E4M3_MAGNITUDES, -FP8_E4M3_MAGNITUDES])[codes] * from_float(scales)


def encode_fp8_e5m2(x: Float, importance: Float | None) -> tuple[Bytes, Bytes]:
    """Codes of the weights themselves under the scale 1.0.

    Some readers of this format apply the stored scale and some ignore it; only 1.0 means the same to all. The range
    2^-17 to 61440 holds the weights of a network unscaled (typically 0.001 to 1), and a float's relative error does
    not depend on the scale.
    """
    del importance
    if np.abs(x).max(initial=0) > 65536:
        raise ValueError(f"fp8_e5m2: the weight {np.abs(x).max():.6g} is beyond the codes, which end at 61440")
    return signed_bytes(x, FP8_E5M2_BOUNDARIES), float_bytes(np.ones(x.shape[0], dtype=np.float32))


def decode_fp8_e5m2(codes: Bytes, scales: Bytes) -> Float:
    """Values without the scale plane, which encode_fp8_e5m2 fills with 1.0."""
    del scales
    magnitude = np.full(128, np.nan, dtype=np.float32)
    magnitude[: FP8_E5M2_MAGNITUDES.size] = FP8_E5M2_MAGNITUDES
    return np.concatenate([magnitude, -magnitude])[codes]


FORMATS = (
    Format("fp8_e4m3", 15, 64, (64, 4), encode_fp8_e4m3, decode_fp8_e4m3),
    Format("fp8_e5m2", 19, 64, (64, 4), encode_fp8_e5m2, decode_fp8_e5m2),
    Format("fp6", 29, 64, (32, 16, 2), encode_fp6, decode_fp6),
)
