"""Linear layers of which each process holds a share: of the input columns, or of the output rows of an output head.

They are layers of the usual kinds with one exchange more, under the same names. Shares of rows whose outputs stay where
they are, such as those of query or gate, need none: there a PackedLinear of fewer rows does.
"""

from __future__ import annotations

from typing import TypeVar

import torch
from torch import nn

from ..linear import PackedLinear
from .cut import COLUMNS, Cut
from .link import Link

Layer = TypeVar("Layer", bound="Shared")


class Shared(nn.Module):
    """A layer with a link to the other processes, made over one that has been cut, whose parameters it keeps."""

    link: Link
    cut: Cut

    @classmethod
    def over(cls: type[Layer], layer: nn.Module, link: Link, cut: Cut) -> Layer:
        made = cls.__new__(cls)
        made.__dict__.update(layer.__dict__)
        made.link, made.cut = link, cut
        return made


class PackedInputShare(Shared, PackedLinear):
    """The columns of a process: x (..., its in_features) to the whole (..., out_features), the bias added once."""

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.with_bias(self.link.sum(self.without_bias(x)))


class DenseInputShare(Shared, nn.Linear):
    """The same of a layer that is not packed."""

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        y = self.link.sum(nn.functional.linear(x, self.weight))
        return y if self.bias is None else y + self.bias


class PackedOutputShare(Shared, PackedLinear):
    """The rows of a process, whose outputs are put side by side: x (..., in_features) to (..., all rows)."""

    def own(self, x: torch.Tensor) -> torch.Tensor:
        """The outputs of this process's rows."""
        return PackedLinear.forward(self, x)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.link.gather(self.own(x), self.cut.sizes)


class DenseOutputShare(Shared, nn.Linear):
    """The same of a layer that is not packed."""

    def own(self, x: torch.Tensor) -> torch.Tensor:
        return nn.Linear.forward(self, x)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.link.gather(self.own(x), self.cut.sizes)


INPUT_SHARES = (PackedInputShare, DenseInputShare)
OUTPUT_SHARES = (PackedOutputShare, DenseOutputShare)


def cut_layer(layer: nn.Linear | PackedLinear, cut: Cut) -> None:
    """Leave the share of a process in a linear layer, in place; a bias is cut with the rows. Works on the meta device."""
    weight = cut.take(layer.weight.detach())
    if isinstance(layer, PackedLinear):
        layer.dense_bytes = (
            layer.dense_bytes * (cut.last - cut.first) // (layer.out_features, layer.in_features)[cut.axis]
        )
        layer.weight = weight
    else:
        layer.weight = nn.Parameter(weight, requires_grad=False)
    if layer.bias is not None and cut.of_bias is not None:
        layer.bias = nn.Parameter(cut.of_bias.take(layer.bias.detach()), requires_grad=False)
    layer.out_features, layer.in_features = cut.shape


def joined(layer: nn.Linear | PackedLinear, link: Link, cut: Cut) -> nn.Module:
    """A layer that has been cut, with the exchange that its share needs."""
    packed = isinstance(layer, PackedLinear)
    if cut.axis == COLUMNS:
        return (PackedInputShare if packed else DenseInputShare).over(layer, link, cut)
    if cut.sizes is not None:
        return (PackedOutputShare if packed else DenseOutputShare).over(layer, link, cut)
    return layer
