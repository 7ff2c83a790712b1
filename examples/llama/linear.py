"""Linear layers of the runtime, dense or packed, and how the weights of a model become one or the other."""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable, Mapping
from typing import Protocol

import numpy as np
import torch
from packers import FORMATS, PUBLIC_BLOCKS, Format, take_over

import corvane

from .device import to_device
from .gguf_model import PARTS, GgufModel, ModelError, StoredTensor, layer_names

Progress = Callable[[int], None]  # told the number of elements that were just packed

# What a weight gets whose rows are no whole number of 256-element super-blocks: a 64-element format of similar size.
FALLBACK = {
    "q2_k": "nf3",
    "q4_k": "q4_1",
    "q5_k": "q5_1",
    "q6_k": "q8_0",
    "fp6_k": "fp6",
    "iq2_xxs": "nf3",
    "iq1_s": "nf3",
}


class Linear(Protocol):
    """y = x W^T for a weight of (output_size, state_size)."""

    format_name: str
    output_size: int
    state_size: int
    bytes: int

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        """(rows, state_size) to (rows, output_size), of x's dtype."""
        ...

    def takes_rows(self, dtype: torch.dtype) -> bool:
        """Whether one call serves many rows of this dtype."""
        ...


class DenseLinear:
    """A linear layer with a dense weight, through the framework's own product."""

    format_name = "dense"

    def __init__(self, weight: np.ndarray, dtype: torch.dtype) -> None:
        self.weight = to_device(weight).to(dtype)
        self.output_size, self.state_size = weight.shape
        self.bytes = weight.size * self.weight.element_size()

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        return torch.nn.functional.linear(x, self.weight)

    def takes_rows(self, dtype: torch.dtype) -> bool:
        return True


class PackedLinear:
    """A linear layer that reads its packed weight in place."""

    def __init__(self, packed: np.ndarray, format_: Format, output_size: int, state_size: int) -> None:
        self.weight = to_device(packed)
        self.format_name, self.qtype = format_.name, format_.qtype
        self.output_size, self.state_size = output_size, state_size
        self.bytes = packed.size

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        return corvane.forward_new(x, self.weight, self.qtype, x.shape[0])

    def takes_rows(self, dtype: torch.dtype) -> bool:
        """Many rows of three formats go through expansions to float and Half only, two of them in 512-element units."""
        if self.format_name not in ("fp8_e4m3", "fp6", "fp6_k"):
            return True
        whole_units = self.format_name == "fp8_e4m3" or self.output_size * self.state_size % 512 == 0
        return whole_units and dtype in (torch.float32, torch.float16)


def pack_linear(
    stored: StoredTensor, wanted: str, importance: np.ndarray | None = None, progress: Progress | None = None
) -> PackedLinear:
    """A stored weight in the wanted format, or in its fallback where the shape or the source does not allow it.

    Blocks that the file already holds in the wanted format are taken over as they are, without loss. `importance`,
    float32 (state_size,), weighs the columns' errors.
    """
    format_ = FORMATS[wanted]
    if stored.columns % format_.block_elements == 0:
        if PUBLIC_BLOCKS.get(wanted) == stored.kind:
            packed = take_over(format_, stored.data, stored.columns)
            if progress is not None:
                progress(stored.rows * stored.columns)
            return PackedLinear(packed, format_, stored.rows, stored.columns)
        if format_.encode is not None:
            packed = format_.pack(stored.dense(), importance, progress)
            return PackedLinear(packed, format_, stored.rows, stored.columns)
    if wanted not in FALLBACK or stored.columns % 64:
        raise ModelError(
            f"{stored.name}: its rows of {stored.columns} elements are no whole number of "
            f"{format_.block_elements}-element blocks of {wanted}"
        )
    return pack_linear(stored, FALLBACK[wanted], importance, progress)


class Weights:
    """The linear layers of a model: `layers[i][part]` for the seven parts of each layer, and the output head."""

    def __init__(self, layers: list[dict[str, Linear]], head: Linear) -> None:
        self.layers = layers
        self.head = head

    def all(self) -> list[Linear]:
        return [linear for layer in self.layers for linear in layer.values()] + [self.head]

    @property
    def bytes(self) -> int:
        return sum(linear.bytes for linear in self.all())

    @property
    def elements(self) -> int:
        return sum(linear.output_size * linear.state_size for linear in self.all())

    def takes_rows(self, dtype: torch.dtype) -> bool:
        """Whether all of them serve many rows of this dtype in one call."""
        return all(linear.takes_rows(dtype) for linear in self.all())

    def formats(self) -> Counter[str]:
        """Number of linear layers in each format."""
        return Counter(linear.format_name for linear in self.all())


def load_weights(model: GgufModel, make: Callable[[StoredTensor], Linear]) -> Weights:
    """All linear layers of a model, each made by `make` from the weight as stored."""
    layers = [{part: make(model.linear(f"blk.{i}.{part}")) for part in PARTS} for i in range(model.config.layers)]
    return Weights(layers, make(model.output_head()))


def load_dense(model: GgufModel, dtype: torch.dtype) -> Weights:
    return load_weights(model, lambda stored: DenseLinear(stored.dense(), dtype))


def load_packed(
    model: GgufModel,
    format_name: str,
    importance: Mapping[str, np.ndarray] | None = None,
    progress: Progress | None = None,
) -> Weights:
    """Pack a model, each layer with its importance by name. `progress` is told of model_elements(model) in all."""
    columns = importance or {}
    weights = load_weights(
        model, lambda stored: pack_linear(stored, format_name, columns.get(stored.name), progress)
    )
    if format_name not in weights.formats():
        raise ModelError(
            f"no weight of {model.path} can be had in {format_name}: its rows are too short for 256-element blocks, "
            "or the format needs a file that already holds such blocks"
        )
    return weights


def model_elements(model: GgufModel) -> int:
    """Elements of all linear layers of a model."""
    stored = [model.stored(name) for name in layer_names(model.config)] + [model.output_head()]
    return sum(tensor.rows * tensor.columns for tensor in stored)
