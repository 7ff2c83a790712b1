"""What all packers share: a format as planes of bytes per block, chunked packing on all cores, searches for scales.

A format here is a pair of functions on whole blocks. `encode` takes blocks, float32 (n, block_elements), and the
importance of each element, of the same shape or None where all count alike, and gives one uint8 array (n, width) for
each plane of the format; `decode` takes the planes and gives the blocks. Planar formats have several planes, which
follow each other in the packed bytes; interleaved formats are one plane as wide as a block.

The importance of an element is the weight of its squared error when a scale is searched. For a linear layer it is the
mean square of the input that the element's column meets, since the error of a product is the weights' error times that.
"""

from __future__ import annotations

import os
from collections.abc import Callable, Iterable, Iterator
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from functools import lru_cache
from typing import TypeVar

import numpy as np
from numpy.typing import NDArray

Float = NDArray[np.float32]
Bytes = NDArray[np.uint8]
Result = TypeVar("Result")
Progress = Callable[[int], None]  # told the number of elements that were just packed

# 1 MiB of float32 a chunk: the temporaries stay in the processor's caches. (Measured, smaller ones: two threads then
# take as long as one, since they wait for each other between the array operations.)
CHUNK_ELEMENTS = 1 << 18
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

    @property
    def bits(self) -> float:
        """Bits of a packed element, scales included."""
        return 8 * self.block_bytes / self.block_elements

    @property
    def can_pack(self) -> bool:
        """Whether dense weights can be packed; the others only come from files that hold them."""
        return self.encode is not None

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

    def pack(
        self,
        weight: Float,
        importance: Float | None = None,
        progress: Progress | None = None,
        first_column: int | None = None,
    ) -> Bytes:
        """Pack a dense weight, float32 (rows, columns), into its flat bytes, uint8 (packed_bytes,), on all cores.

        `importance`, float32 (columns,), weighs the squared error of each column; without it all count alike. Where the
        weight is a part of a wider one, from its `first_column` on, it is that of all columns of the wider one: the part
        gets the same bytes that it has there.
        `progress` is told, on the calling thread, of the elements of each chunk that is done.
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
        step = rows_per_chunk * columns // self.block_elements
        if importance is not None:
            importance = np.tile(self.checked_importance(importance, columns, first_column), (rows_per_chunk, 1))

        def pack_chunk(first: int) -> int:
            chunk = blocks[first : first + step]
            if not np.isfinite(chunk).all():
                raise ValueError(f"{self.name}: the weight holds a value that is infinite or not a number")
            weights = None if importance is None else importance[: chunk.shape[0]]
            for plane, encoded in zip(planes, self.encode(chunk, weights), strict=True):
                plane[first : first + step] = encoded
            return chunk.size

        for size in on_all_cores(pack_chunk, range(0, blocks.shape[0], step)):
            if progress is not None:
                progress(size)
        return packed

    def checked_importance(self, importance: Float, columns: int, first_column: int | None) -> Float:
        """The importance of the blocks of one row, float32 (columns / block_elements, block_elements), mean 1."""
        size = columns if first_column is None else max(columns + first_column, importance.size)
        if importance.shape != (size,) or not np.isfinite(importance).all() or importance.min() < 0:
            raise ValueError(f"{self.name}: importance must be {size} finite numbers, none below 0")
        # A small floor keeps a column that the samples never used from being thrown away.
        mean = float(importance.mean()) or 1.0
        weights = (importance / mean + IMPORTANCE_FLOOR).astype(np.float32)
        begin = first_column or 0
        return weights[begin : begin + columns].reshape(-1, self.block_elements)

    def unpack(self, packed: Bytes, rows: int, columns: int) -> Float:
        """Decode flat bytes into float32 (rows, columns), on all cores."""
        self.check_shape(rows, columns)
        if packed.dtype != np.uint8 or packed.shape != (self.packed_bytes(rows, columns),):
            raise ValueError(
                f"{self.name}: a weight ({rows}, {columns}) is {self.packed_bytes(rows, columns)} bytes of uint8, "
                f"not {packed.dtype} {packed.shape}"
            )
        planes = self.split_planes(packed)
        dense = np.empty((rows * columns // self.block_elements, self.block_elements), dtype=np.float32)
        step = max(1, CHUNK_ELEMENTS // self.block_elements)

        def unpack_chunk(first: int) -> None:
            dense[first : first + step] = self.decode(*(plane[first : first + step] for plane in planes))

        for _ in on_all_cores(unpack_chunk, range(0, dense.shape[0], step)):
            pass
        return dense.reshape(rows, columns)

    def unpack_rows(self, packed: Bytes, rows: int, columns: int, numbers: NDArray[np.int64]) -> Float:
        """Decode the rows of the given numbers only: float32 (len(numbers), columns)."""
        self.check_shape(rows, columns)
        of_rows = [plane.reshape(rows, -1)[numbers] for plane in self.split_planes(packed)]
        planes = (rows_.reshape(-1, width) for rows_, width in zip(of_rows, self.planes, strict=True))
        return self.decode(*planes).reshape(-1, columns)

    def split_planes(self, packed: Bytes) -> list[Bytes]:
        """Views of the planes of packed bytes, each uint8 (blocks, width)."""
        blocks = packed.size // self.block_bytes
        views, offset = [], 0
        for width in self.planes:
            views.append(packed[offset : offset + blocks * width].reshape(blocks, width))
            offset += blocks * width
        return views


def on_all_cores(work: Callable[[int], Result], items: range) -> Iterator[Result]:
    """The results of `work` for each item, in order; numpy lets go of the interpreter inside its operations."""
    workers = min(len(os.sched_getaffinity(0)), len(items))
    if workers < 2:
        yield from map(work, items)
        return
    with ThreadPoolExecutor(workers) as pool:
        try:
            yield from pool.map(work, items)
        except BaseException:
            pool.shutdown(cancel_futures=True)
            raise


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

    Counting the boundaries below x is a few vector operations each. Longer tables are looked up by the upper half of
    x's bits, whose cells hold one boundary at most.
    """
    if boundaries.size > 40:
        return indexed_by_bits(x, boundaries)
    index = np.zeros(x.shape, dtype=np.uint8)
    above = np.empty(x.shape, dtype=bool)
    for boundary in boundaries:
        np.greater(x, boundary, out=above)
        index += above.view(np.uint8)
    return index


def indexed_by_bits(x: Float, boundaries: Float) -> Bytes:
    """nearest_index for x >= 0 and boundaries above 0."""
    below, above = cell_table(boundaries.tobytes())
    cell = x.view(np.uint32) >> 16
    return below.take(cell, mode="clip") + (x > above.take(cell, mode="clip"))


@lru_cache(maxsize=8)
def cell_table(boundaries: bytes) -> tuple[Bytes, Float]:
    """For the floats without sign that share their upper 16 bits: boundaries below them all, and the next boundary."""
    sorted_boundaries = np.frombuffer(boundaries, dtype=np.float32)
    first_of_cell = (np.arange(1 << 15, dtype=np.uint32) << 16).view(np.float32)
    below = np.searchsorted(sorted_boundaries, np.nan_to_num(first_of_cell, nan=np.inf), side="left")
    if (np.diff(below) > 1).any():
        raise ValueError("the boundaries of the table lie too close")
    return below.astype(np.uint8), np.append(sorted_boundaries, np.float32(np.inf))[below]


def row_sums(a: Float, b: Float | None = None) -> Float:
    """Sums over the rows of a, or of a times b: float32 (n, m) to (n,)."""
    return np.einsum("ij->i", a) if b is None else np.einsum("ij,ij->i", a, b)


def weighed(importance: Float | None, x: Float) -> Float:
    return x if importance is None else importance * x


def in_pieces(importance: Float | None, size: int) -> Float | None:
    """The importance of sub-blocks, each a row."""
    return None if importance is None else importance.reshape(-1, size)


def search_scale(
    x: Float, importance: Float | None, candidates: Iterable[Float], values_at: Callable[[Float], Float]
) -> Float:
    """The scale d of each row of x, float32 (n, m) to (n,), for which x is best met by d times code values.

    Each candidate, float32 (n,), picks codes; `values_at` gives the value of the nearest code to x / d, and may write
    over its argument. For fixed codes v and importance w the least-squares scale is sum wxv / sum wvv, and it lowers
    the error by (sum wxv)^2 / sum wvv: the largest gain wins.
    """
    best_gain = np.zeros(x.shape[0], dtype=np.float32)
    best = np.zeros(x.shape[0], dtype=np.float32)
    wx = weighed(importance, x)
    for scale in candidates:
        v = values_at(x * reciprocal(scale)[:, None])
        xv = row_sums(wx, v)
        inverse_vv = reciprocal(row_sums(weighed(importance, v), v))
        gain = xv * xv * inverse_vv
        better = gain > best_gain
        best_gain = np.where(better, gain, best_gain)
        best = np.where(better, xv * inverse_vv, best)
    return best


def rounded(y: Float, low: float, high: float) -> Float:
    """y to the nearest whole numbers from low to high, in place."""
    np.rint(y, out=y)
    np.maximum(y, np.float32(low), out=y)
    return np.minimum(y, np.float32(high), out=y)


def search_affine(
    x: Float, importance: Float | None, levels: int, stretches: Iterable[float], offset_below_zero: bool
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
    # The fit is of x - low, so that its sums stay near the size of the error that they are to give.
    x = x - low[:, None]
    wx = weighed(importance, x)
    sum_w = np.float32(x.shape[1]) if importance is None else row_sums(importance)
    sum_x, sum_xx = row_sums(wx), row_sums(wx, x)
    for stretch in stretches:
        inverse = reciprocal((high - low) / np.float32(levels + stretch))
        q = rounded(x * inverse[:, None], 0, levels)
        wq = weighed(importance, q)
        sum_q, sum_qq, sum_xq = row_sums(wq), row_sums(wq, q), row_sums(wx, q)
        scale = (sum_w * sum_xq - sum_x * sum_q) * reciprocal(sum_w * sum_qq - sum_q * sum_q)
        offset = (sum_x - scale * sum_q) / sum_w
        if offset_below_zero:
            # Through zero, the offset of x - low is -low.
            through_zero = offset > -low
            scale = np.where(through_zero, (sum_xq + low * sum_q) * reciprocal(sum_qq), scale)
            offset = np.where(through_zero, -low, offset)
        error = sum_xx - 2 * scale * sum_xq - 2 * offset * sum_x
        error += scale * scale * sum_qq + 2 * scale * offset * sum_q + offset * offset * sum_w
        better = (error < best_error) & (scale > 0)
        best_error = np.where(better, error, best_error)
        best_scale = np.where(better, scale, best_scale)
        best_offset = np.where(better, offset + low, best_offset)
    return best_scale, best_offset


def largest_magnitude(x: Float) -> Float:
    """The value of largest magnitude in each row of x, with its sign: float32 (n, m) to (n,)."""
    low, high = x.min(axis=1), x.max(axis=1)
    return np.where(-low > high, low, high)
