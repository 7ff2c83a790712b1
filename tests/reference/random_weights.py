"""Packed weights for tests: random ones whose matrix stays within a magnitude, and blank ones to set bytes in."""

from __future__ import annotations

import numpy as np

from .registry import FORMATS, block_count, packed_bytes, plane_views, small_float

# Largest magnitude that a block of the format can reach with d = 1, offsets and minimums left aside.
_PEAK = {
    "q4_0": 8, "q4_1": 15, "q5_0": 16, "q5_1": 31, "q8_0": 128, "nf4": 1, "nf3": 1, "fp4": 6,
    "fp6": 0.0075, "fp8_e4m3": 1.94, "iq2_xxs": 15.5 * 0.25 * 43, "iq1_s": 15 * 1.125, "q2_k": 15 * 3,
    "q4_k": 255 * 15, "q5_k": 63 * 31, "q6_k": 128 * 32, "fp6_k": 128 * 0.0075,
}  # fmt: skip

# Where the values stand that are not codes: (plane, first byte in the entry of the block).
_OFFSET = {  # offset m, or dmin; the third number is the largest minimum that dmin multiplies
    "q4_1": (1, 2, 1), "q5_0": (0, 2, 1), "q5_1": (0, 2, 1), "q2_k": (0, 82, 15), "q4_k": (2, 2, 255),
    "q5_k": (0, 2, 63),
}  # fmt: skip
_SCALE = {  # d, where it is not at the start of the last plane
    "q5_0": (0, 0), "q5_1": (0, 0), "q5_k": (0, 0), "iq2_xxs": (0, 0), "iq1_s": (0, 0), "q2_k": (0, 80),
}  # fmt: skip


_UNUSUAL = [0.0, 3e-7, 60000.0, -60000.0, float(np.uint32(0x7FFFFFFF).view(np.float32))]


def _store(plane: np.ndarray, first: int, numbers, kind: str) -> None:
    raw = np.ascontiguousarray(np.asarray(numbers).reshape(-1, 1).astype(kind)).view(np.uint8)
    plane[:, first : first + raw.shape[1]] = raw


def _store_scale(name: str, planes: list, d) -> None:
    plane, first = _SCALE.get(name, (2 if name == "q4_k" else len(planes) - 1, 0))
    _store(planes[plane], first, d, "<f4" if FORMATS[name].block_bytes == 68 else "<f2")


def blank_weight(name: str, d: float = 1.0, blocks: int = 1) -> tuple:
    """Packed bytes of zero but for block scales of d, and their planes as writable (blocks, bytes) views."""
    data = np.zeros(blocks * FORMATS[name].block_bytes, dtype=np.uint8)
    planes = plane_views(name, data, blocks)
    _store_scale(name, planes, np.full(blocks, d))
    return data, planes


def random_weight(
    name: str,
    n: int,
    k: int,
    seed: int,
    scale: float = 0.25,
    *,
    stored_scales: bool = False,
    unusual: bool = False,
) -> np.ndarray:
    """Packed bytes of an (n, k) weight whose elements stay within about `scale` (twice that with an offset).

    Codes and sub-block scales are uniform random bytes; block scales are random between a quarter and the whole of
    what `scale` allows, a fifth of them negative. With normal inputs and scale 0.25 a dot product over 4096
    elements stays far below the largest half. fp8_e5m2 spans 31 binades, so its codes are drawn among those with
    magnitudes up to `scale`, or with `unusual` among all that are finite; its stored scales are 1.0 unless
    stored_scales asks for values from 0.5 to 2, so that all its readers agree.

    `unusual` makes an eighth of the block scales and offsets zero, subnormal, so large that products overflow in half,
    or not a number with all bits set: rounding it as if it were a number would carry into its sign.
    """
    rng = np.random.default_rng([seed, FORMATS[name].qtype, n, k])
    nb = block_count(name, n, k)
    data = rng.integers(0, 256, packed_bytes(name, n, k), dtype=np.uint8)
    planes = plane_views(name, data, nb)

    def magnitudes(peak: float) -> np.ndarray:
        signs = np.where(rng.random((nb, 1)) < 0.2, -1.0, 1.0)
        usual = signs * rng.uniform(0.25, 1.0, (nb, 1)) * (scale / peak)
        return np.where(unusual & (rng.random((nb, 1)) < 0.125), rng.choice(_UNUSUAL, (nb, 1)), usual)

    if name == "fp8_e5m2":
        value = np.abs(small_float(np.arange(256), 5, 2))
        allowed = np.flatnonzero(np.isfinite(value) & (unusual | (value <= scale)))
        planes[0][:] = rng.choice(allowed, planes[0].shape).astype(np.uint8)
        _store_scale(name, planes, rng.uniform(0.5, 2.0, nb) if stored_scales else np.ones(nb))
        return data
    _store_scale(name, planes, magnitudes(_PEAK[name]))
    if name in _OFFSET:
        plane, first, peak = _OFFSET[name]
        _store(planes[plane], first, magnitudes(peak), "<f2")
    return data
