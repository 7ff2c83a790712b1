"""Cutting the weights of a Llama-shaped model for several processes: which rows or columns each of them gets.

Query, key, value, gate, up and the output head are cut by output rows, the attention's output and the MLP's down by
input columns, so that a process carries its own heads and its own part of the MLP from one to the other. Packed bytes
are cut as they are: a share of rows, or of whole blocks of each row, is a range in each plane of the format.
"""

from __future__ import annotations

from dataclasses import dataclass, replace

import numpy as np
import torch

from ..formats import Format, format_of
from ..weights import ModelError

ROWS, COLUMNS = 0, 1
BY_ROWS = ("q_proj", "k_proj", "v_proj", "gate_proj", "up_proj")
BY_COLUMNS = ("o_proj", "down_proj")
HEAD = "lm_head"
# Rows of an output head go in eights: several rows of fp6 and fp6_k are expanded in units of 512 elements, 8 blocks.
HEAD_GRAIN = 8


@dataclass(frozen=True)
class Cut:
    """The rows or columns `first` to `last` - 1 of a weight (rows, columns), dense or packed in a format."""

    axis: int  # ROWS or COLUMNS
    first: int
    last: int
    rows: int
    columns: int
    format: Format | None = None
    sizes: tuple[int, ...] | None = None  # of an output head, whose outputs are gathered: the rows of each process

    @property
    def shape(self) -> tuple[int, int]:
        """Rows and columns of the share."""
        size = self.last - self.first
        return (size, self.columns) if self.axis == ROWS else (self.rows, size)

    @property
    def dense(self) -> Cut:
        """The same of the weight before it is packed."""
        return replace(self, format=None)

    @property
    def of_bias(self) -> Cut | None:
        """The cut of the layer's bias, None for one that stays whole."""
        return self.dense if self.axis == ROWS else None

    def check(self, shape: tuple[int, ...]) -> None:
        """Refuse the shape of a tensor that is not what the share is one of: ModelError."""
        sizes = self.rows, self.columns
        expected = sizes[: len(shape)] if self.format is None else (self.format.packed_bytes(*sizes),)
        if shape != expected:
            raise ModelError(f"the file holds {shape}, the model needs {expected}")

    def views(self, whole: torch.Tensor) -> list[torch.Tensor]:
        """The share as views of a whole tensor: of a dense one, or of packed bytes, uint8 (bytes,), one a plane.

        ModelError: a tensor of another shape.
        """
        self.check(tuple(whole.shape))
        if self.format is None:
            return [whole.narrow(self.axis, self.first, self.last - self.first)]
        block = self.format.block_elements
        blocks, begin, found = self.rows * self.columns // block, 0, []
        for width in self.format.planes:
            plane = whole.narrow(0, begin, blocks * width).view(self.rows, -1)
            unit, grain = (1, 1) if self.axis == ROWS else (width, block)
            first, last = self.first // grain * unit, self.last // grain * unit
            found.append(plane.narrow(self.axis, first, last - first))
            begin += blocks * width
        return found

    def take(self, whole: torch.Tensor) -> torch.Tensor:
        """A copy of the share: dense, or its packed bytes, uint8 (bytes,)."""
        views = self.views(whole)
        return views[0].clone(memory_format=torch.contiguous_format) if self.format is None else flat(views)

    def alone(self, whole: torch.Tensor) -> torch.Tensor:
        """The whole tensor with nothing but the share in it, zero elsewhere; reads no more than the share."""
        # Pages of zeros that nobody writes take no memory.
        empty = np.zeros(whole.numel() * whole.element_size(), dtype=np.uint8)
        made = torch.from_numpy(empty).view(whole.dtype).view(whole.shape)
        for target, source in zip(self.views(made), self.views(whole), strict=True):
            target.copy_(source)
        return made


def flat(views: list[torch.Tensor]) -> torch.Tensor:
    return torch.cat([view.reshape(-1) for view in views])


def cut_packed(packed: torch.Tensor, format: str, n: int, k: int, axis: int, first: int, last: int) -> torch.Tensor:
    """Rows (axis 0) or columns (axis 1) first to last - 1 of packed bytes (n, k), uint8 (bytes,), without decoding.

    ValueError: an unknown format, bytes that are not those of (n, k), a range outside of it, columns that split a block.
    """
    kind = format_of(format)
    kind.check_shape(n, k)
    if packed.dtype != torch.uint8 or packed.shape != (kind.packed_bytes(n, k),):
        raise ValueError(
            f"{format}: a weight ({n}, {k}) is {kind.packed_bytes(n, k)} bytes of uint8, "
            f"not {packed.dtype} {tuple(packed.shape)}"
        )
    if axis not in (ROWS, COLUMNS) or not 0 <= first < last <= (n, k)[axis]:
        raise ValueError(f"{format}: a weight ({n}, {k}) has no range {first} to {last} of dimension {axis}")
    if axis == COLUMNS and (first % kind.block_elements or last % kind.block_elements):
        raise ValueError(
            f"{format}: columns {first} to {last} would split a block: both must be multiples of {kind.block_elements}"
        )
    return Cut(axis, first, last, n, k, kind).take(packed)


@dataclass(frozen=True)
class Plan:
    """What the process `rank` of `count` holds of a model with so many heads and elements of the MLP.

    ValueError: a number of processes that would split a head or a group of heads, with what would fit.
    """

    rank: int
    count: int
    heads: int
    kv_heads: int
    mlp: int

    def __post_init__(self) -> None:
        # As many processes as have a key and value head each, with all of the query heads that it serves.
        parts = {"key and value heads": self.kv_heads, "heads": self.heads, "elements of the MLP": self.mlp}
        for what, size in parts.items():
            if size % self.count:
                raise ValueError(f"{self.count} processes cannot share {size} {what}: {fitting(size)} could")

    def cut(self, name: str, rows: int, columns: int, format: str | None) -> Cut | None:
        """The share of a linear layer's weight (rows, columns), None for a layer that is whole in every process.

        ValueError: a share that would split a block of the format, with what would fit.
        """
        kind, part = None if format is None else format_of(format), name.rpartition(".")[2]
        if part == HEAD:
            sizes = self.head_sizes(rows)
            first = sum(sizes[: self.rank])
            return Cut(ROWS, first, first + sizes[self.rank], rows, columns, kind, sizes)
        if part in BY_ROWS:
            return Cut(ROWS, *self.even(rows), rows, columns, kind)
        if part not in BY_COLUMNS:
            return None
        block = 1 if kind is None else kind.block_elements
        if columns % (self.count * block):
            blocks = columns // block
            raise ValueError(
                f"{name}: {self.count} processes would split a block: a row has {blocks} blocks of {block} columns "
                f"({format}), which {fitting(blocks)} could share"
            )
        return Cut(COLUMNS, *self.even(columns), rows, columns, kind)

    def even(self, size: int) -> tuple[int, int]:
        return size * self.rank // self.count, size * (self.rank + 1) // self.count

    def head_sizes(self, rows: int) -> tuple[int, ...]:
        """The rows of an output head that each process gets: a vocabulary need not be a multiple of anything."""
        share = -(-rows // (self.count * HEAD_GRAIN)) * HEAD_GRAIN
        if share * (self.count - 1) >= rows:
            raise ValueError(f"{self.count} processes cannot share an output head of {rows} rows")
        return (*[share] * (self.count - 1), rows - share * (self.count - 1))


def fitting(size: int) -> str:
    """The numbers of processes that share so much evenly, as text; the larger of a long list are left out."""
    counts = [str(count) for count in range(1, min(size, 64) + 1) if size % count == 0]
    return f"{', '.join(counts[:-1])} or {counts[-1]} processes" if len(counts) > 1 else "one process"
