"""What all packers share: a format as planes of bytes per block, chunked packing, and the searches for block scales.

A format here is a pair of functions on whole blocks. `encode` takes blocks, float32 (n, block_elements), and the
importance of each element, of the same shape, and gives one uint8 array (n, width) for each plane of the format;
`decode` takes the planes and gives the blocks. Planar formats have several planes, which follow each other in the
packed bytes; interleaved formats are one plane as wide as a block.

The importance of an element is the weight of its squared error when a scale is searched. For a linear layer it is the
mean square of the input that the element's column meets, since the error of a product is the weights' error times that.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable
from dataclasses import dataclass

import numpy as np
from numpy.typing import NDArray

Float = NDArray[np.float32]
Bytes = NDArray[np.uint8]
Progress = Callable[[int], None]  # told the number of elements that were just packed

CHUNK_ELEMENTS = 1 << 18  # 1 MiB of float32: the temporaries of a chunk stay in the processor's caches
IMPORTANCE_FLOOR = 1e-3  # added to the importance of every column, whose mean is 1


@dataclass(frozen=True)
class Format:
    """A weight format: its id and block, the bytes of a block in each plane, and the conversions of whole blocks."""

    name: str
    qtype: int
    block_elements: int
    planes: tuple[int, ...]  # bytes of one block in each plane, planes in the order of the packed bytes
    encode: Callable[[Float, Float], tuple[Bytes, ...]] | None  # None: made only from public blocks of the same bytes
    decode: Callable[..., Float]

    @property
    def block_bytes(self) -> int:
        return sum(self.planes)

    def packed_bytes(self, rows: int, columns: int) -> int:
        """Bytes of a packed weight (rows, columns)."""
        return rows * columns // self.block_elements * self.block_bytes

    def check_shape(self, rows: int, columns: int) -> None:
        """Refuse a shape whose rows do not start on a block or whose plane offsets leave the signed 32-bit range."""
        if rows < 1 or columns < 1 or columns % self.block_elements:
            raise ValueError(
                f"{self.name}: a weight ({rows}, {columns}) cannot be packed: "
                f"columns must be a multiple of {self.block_elements}"
            )
        if rows * columns >= 1 << 31:
            raise ValueError(f"{self.name}: a weight ({rows}, {columns}) has 2**31 elements or more")

    def pack(self, weight: Float, importance: Float | None = None, progress: Progress | None = None) -> Bytes:
        """Pack a dense weight, float32 (rows, columns), into its flat bytes, uint8 (packed_bytes,).

        `importance`, float32 (columns,), weighs the squared error of each column; without it all count alike.
        """
        if self.encode is None:
            raise ValueError(f"{self.name}: has no packer from dense weights, only from blocks of a GGUF file")
        if weight.ndim != 2:
            raise ValueError(f"{self.name}: a weight needs two dimensions, not {weight.ndim}")
        self.check_shape(*weight.shape)
        rows, columns = weight.shape
        blocks = np.ascontiguousarray(weight, dtype=np.float32).reshape(-1, self.block_elements)
        packed = np.empty(blocks.shape[0] * self.block_bytes, dtype=np.uint8)
        planes = self.split_planes(packed)
        rows_per_chunk = min(rows, max(1, CHUNK_ELEMENTS // columns))
        importance = np.tile(self.checked_importance(importance, columns), (rows_per_chunk, 1))
        step = importance.shape[0]
        for first in range(0, blocks.shape[0], step):
            chunk = blocks[first : first + step]
            if not np.isfinite(chunk).all():
                raise ValueError(f"{self.name}: the weight holds a value that is infinite or not a number")
            for plane, encoded in zip(planes, self.encode(chunk, importance[: chunk.shape[0]]), strict=True):
                plane[first : first + step] = encoded
            if progress is not None:
                progress(chunk.size)
        return packed

    def checked_importance(self, importance: Float | None, columns: int) -> Float:
        """The importance of the blocks of one row, float32 (columns / block_elements, block_elements), mean 1."""
        if importance is None:
            return np.ones((columns // self.block_elements, self.block_elements), dtype=np.float32)
        if importance.shape != (columns,) or not np.isfinite(importance).all() or importance.min() < 0:
            raise ValueError(f"{self.name}: importance must be {columns} finite numbers, none below 0")
        # A small floor keeps a column that the samples never used from being thrown away.
        mean = float(importance.mean()) or 1.0
        return (importance / mean + IMPORTANCE_FLOOR).astype(np.float32).reshape(-1, self.block_elements)

    def unpack(self, packed: Bytes, rows: int, columns: int) -> Float:
        """Decode flat bytes into float32 (rows, columns)."""
        self.check_shape(rows, columns)
        if packed.dtype != np.uint8 or packed.shape != (self.packed_bytes(rows, columns),):
            raise ValueError(
                f"{self.name}: a weight ({rows}, {columns}) is {self.packed_bytes(rows, columns)} bytes of uint8, "
                f"not {packed.dtype} {packed.shape}"
            )
        planes = self.split_planes(packed)
        dense = np.empty((rows * columns // self.block_elements, self.block_elements), dtype=np.float32)
        step = max(1, CHUNK_ELEMENTS // self.block_elements)
        for first in range(0, dense.shape[0], step):
            dense[first : first + step] = self.decode(*(plane[first : first + step] for plane in planes))
        return dense.reshape(rows, columns)

    def split_planes(self, packed: Bytes) -> list[Bytes]:
        """Views of the planes of packed bytes, each uint8 (blocks, width)."""
        blocks = packed.size // self.block_bytes
        views, offset = [], 0
        for width in self.planes:
            views.append(packed[offset : offset + blocks * width].reshape(blocks, width))
            offset += blocks * width
        return views


# --- scalars in bytes ------------------------------------------------------------------------------------------------


def to_half(scale: Float) -> Float:
    """Round to what a Half field stores, kept as float32; a scale beyond the range of Half is refused."""
    with np.errstate(over="ignore"):
        half = scale.astype(np.float16)
    if not np.isfinite(half).all():
        raise ValueError(f"a block needs the scale {np.abs(scale).max():.6g}, beyond the largest Half (65504)")
    return half.astype(np.float32)


def half_bytes(*values: Float) -> Bytes:
    """Half fields side by side: each value (n,), the result uint8 (n, 2 * number of values)."""
    return np.stack(values, axis=1).astype("<f2").view(np.uint8)


def from_half(raw: Bytes) -> Float:
    """The inverse of half_bytes: uint8 (n, 2 * fields) to float32 (n, fields)."""
    return np.ascontiguousarray(raw).view("<f2").astype(np.float32)


def float_bytes(value: Float) -> Bytes:
    """A float field: (n,) to uint8 (n, 4)."""
    return value.astype("<f4").reshape(-1, 1).view(np.uint8)


def from_float(raw: Bytes) -> Float:
    """uint8 (n, 4) to float32 (n, 1)."""
    return np.ascontiguousarray(raw).view("<f4").astype(np.float32)


def reciprocal(scale: Float) -> Float:
    """1 / scale, and 0 where that is not finite: such a block is so small that its codes do not matter."""
    with np.errstate(divide="ignore", over="ignore"):
        inverse = np.float32(1) / scale
    return np.where(np.isfinite(inverse), inverse, np.float32(0))


# --- nearest codes and scale searches --------------------------------------------------------------------------------


def midpoints(values: Float) -> Float:
    """Boundaries between neighbouring entries of an ascending table, float32 (entries - 1,)."""
    table = values.astype(np.float64)
    return ((table[1:] + table[:-1]) / 2).astype(np.float32)


def nearest_index(x: Float, boundaries: Float) -> Bytes:
    """Index of the nearest table entry for each x, given the midpoints of the ascending table (at most 256 entries).

    Counting the boundaries below x is a few vector operations each, quicker than a bisection up to about 40 of them.
    """
    if boundaries.size > 40:
        return np.searchsorted(boundaries, x, side="left").astype(np.uint8)
    index = np.zeros(x.shape, dtype=np.uint8)
    for boundary in boundaries:
        index += x > boundary
    return index


def search_scale(
    x: Float, importance: Float, candidates: Iterable[Float], values_at: Callable[[Float], Float]
) -> Float:
    """The scale d of each row of x, float32 (n, m) to (n,), for which x is best met by d times code values.

    Each candidate, float32 (n,), picks codes; `values_at` gives the value of the nearest code to x / d. For fixed codes
    v and importance w the least-squares scale is sum wxv / sum wvv, and it lowers the error by (sum wxv)^2 / sum wvv:
    the largest gain wins.
    """
    best_gain = np.zeros(x.shape[0], dtype=np.float32)
    best = np.zeros(x.shape[0], dtype=np.float32)
    wx = importance * x
    for scale in candidates:
        v = values_at(x * reciprocal(scale)[:, None])
        xv = np.einsum("ij,ij->i", wx, v)
        inverse_vv = reciprocal(np.einsum("ij,ij->i", importance * v, v))
        gain = xv * xv * inverse_vv
        better = gain > best_gain
        best_gain = np.where(better, gain, best_gain)
        best = np.where(better, xv * inverse_vv, best)
    return best


def search_affine(
    x: Float, importance: Float, levels: int, stretches: Iterable[float], offset_below_zero: bool
) -> tuple[Float, Float]:
    """Scale and offset of each row of x, float32 (n, m) to two (n,), for y = scale * q + offset, q from 0 to levels.

    Each stretch lays levels + stretch steps over the range of the row; scale and offset are then the least-squares fit
    to those codes. `offset_below_zero` keeps the offset from 0 downwards, where a format stores its negative unsigned.
    """
    low, high = x.min(axis=1), x.max(axis=1)
    if offset_below_zero:
        low, high = np.minimum(low, 0), np.maximum(high, 0)
    best_scale, best_offset = (high - low) / np.float32(levels), low
    best_error = np.full(x.shape[0], np.inf, dtype=np.float32)
    wx = importance * x
    sum_w, sum_x = importance.sum(axis=1), wx.sum(axis=1)
    for stretch in stretches:
        inverse = reciprocal((high - low) / np.float32(levels + stretch))
        q = np.clip(np.rint((x - low[:, None]) * inverse[:, None]), 0, levels)
        wq = importance * q
        sum_q, sum_qq, sum_xq = wq.sum(axis=1), np.einsum("ij,ij->i", wq, q), np.einsum("ij,ij->i", wx, q)
        scale = (sum_w * sum_xq - sum_x * sum_q) * reciprocal(sum_w * sum_qq - sum_q * sum_q)
        offset = (sum_x - scale * sum_q) / sum_w
        if offset_below_zero:
            through_zero = offset > 0
            scale = np.where(through_zero, sum_xq * reciprocal(sum_qq), scale)
            offset = np.where(through_zero, np.float32(0), offset)
        rest = x - scale[:, None] * q - offset[:, None]
        error = np.einsum("ij,ij->i", importance * rest, rest)
        better = (error < best_error) & (scale > 0)
        best_error = np.where(better, error, best_error)
        best_scale = np.where(better, scale, best_scale)
        best_offset = np.where(better, offset, best_offset)
    return best_scale, best_offset


def largest_magnitude(x: Float) -> Float:
    """The value of largest magnitude in each row of x, with its sign: float32 (n, m) to (n,)."""
    low, high = x.min(axis=1), x.max(axis=1)
    return np.where(-low > high, low, high)
