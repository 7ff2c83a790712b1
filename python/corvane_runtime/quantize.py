"""quantize_: the linear layers of a model become packed ones, one dense layer at a time; summary: what came of it."""

from __future__ import annotations

import logging
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from fnmatch import fnmatchcase

import numpy as np
import torch
from torch import nn

from .formats import FORMATS, NEIGHBOURS, Progress, format_of
from .linear import PackedLinear
from .parallel import COLUMNS
from .weights import ModelError, WeightSource

LOG = logging.getLogger("corvane_runtime")

Formats = str | Mapping[str, str | None]  # a format, or formats by name pattern, the first that fits; None keeps dense
Filter = Callable[[nn.Module, str], bool]
Importance = Mapping[str, np.ndarray | torch.Tensor]  # name of a layer to the weights of its columns (in_features,)


def wanted_format(formats: Formats, name: str) -> str | None:
    """The format that is asked for the layer `name`, None for a dense one."""
    if isinstance(formats, str):
        return formats
    return next((format_ for pattern, format_ in formats.items() if fnmatchcase(name, pattern)), None)


def check_formats(formats: Formats) -> None:
    for name in [formats] if isinstance(formats, str) else formats.values():
        if name is not None:
            format_of(name)


def fitting_format(wanted: str, out_features: int, in_features: int, from_blocks: bool = False) -> str | None:
    """The wanted format where it can hold such a weight, else its neighbour, else None.

    `from_blocks`: the source has the blocks of the wanted format, so that nothing has to be packed.
    """
    if out_features < 1 or in_features * out_features >= 1 << 31:
        return None
    for name in (wanted, NEIGHBOURS.get(wanted)):
        if name is None or in_features < 1 or in_features % FORMATS[name].block_elements:
            continue
        if FORMATS[name].can_pack or (from_blocks and name == wanted):
            return name
    return None


def quantize_(
    model: nn.Module,
    format: Formats,
    filter_fn: Filter | None = None,
    importance: Importance | None = None,
    progress: Progress | None = None,
    *,
    weights: WeightSource | None = None,
) -> nn.Module:
    """Replace the model's nn.Linear layers by PackedLinear ones, in place; gives the model back.

    `format` is a name for all layers, or a mapping from name patterns to formats, of which the first that fits counts:
    {"*.down_proj": "q6_k", "lm_head": None, "*": "q4_k"}; None keeps a layer dense. `filter_fn(module, name)` says
    which layers to take. `importance` holds, by layer name, the mean squares of its inputs (measure_importance).
    `progress` is told of packed elements. A layer whose sizes do not fit the format gets a neighbour in smaller blocks
    or stays dense; the log (logging, "corvane_runtime") and summary() say so.

    `weights` is where parameters on the meta device come from, each read when its layer's turn comes: a model made
    under torch.device("meta") never stands dense in memory. With it every other parameter is filled as well.

    ValueError: an unknown format, or a weight that cannot be packed, with the layer's name. ModelError: such a weight
    that comes from `weights`.
    """
    check_formats(format)
    if isinstance(model, nn.Linear):
        raise ValueError("a bare nn.Linear cannot be swapped in place: use PackedLinear.from_linear")
    owners = parameter_owners(model)
    packed: dict[nn.Module, PackedLinear | None] = {}
    for path, parent in list(model.named_modules()):
        for child, module in list(parent._modules.items()):
            name = f"{path}.{child}" if path else child
            if not isinstance(module, nn.Linear) or (filter_fn is not None and not filter_fn(module, name)):
                continue
            if module not in packed:
                source = source_name(name, owners[id(module.weight)], weights)
                packed[module] = pack_module(module, name, format, importance or {}, progress, weights, source)
                others = [other for other in owners[id(module.weight)] if other != f"{name}.weight"]
                if others and packed[module] is not None:
                    LOG.warning("%s: packed apart from %s, with which it shared its weight", name, ", ".join(others))
            if packed[module] is not None:
                setattr(parent, child, packed[module])
    if weights is not None:
        weights.fill(model)
    return model


def source_name(name: str, owners: list[str], weights: WeightSource | None) -> str:
    """The name of a layer's weight in the source, which has a tied weight under one of its names only."""
    own = f"{name}.weight"
    return next((other for other in [own, *owners] if weights is not None and other in weights), own)


def parameter_owners(model: nn.Module) -> dict[int, list[str]]:
    """The names under which each parameter is found, by its identity: more than one where weights are tied."""
    owners: dict[int, list[str]] = {}
    seen = set()
    for path, module in model.named_modules():
        for name, parameter in module._parameters.items():
            if parameter is not None and (id(module), name) not in seen:
                seen.add((id(module), name))
                owners.setdefault(id(parameter), []).append(f"{path}.{name}" if path else name)
    return owners


def pack_module(
    module: nn.Linear,
    name: str,
    formats: Formats,
    importance: Importance,
    progress: Progress | None,
    weights: WeightSource | None,
    source: str,
) -> PackedLinear | None:
    """The packed form of a linear layer, None where it stays dense; `source` is its weight's name in `weights`."""
    wanted = wanted_format(formats, name)
    if wanted is None:
        return None
    if type(module) is not nn.Linear and type(module).forward is nn.Linear.forward:
        # Such as the output of nn.MultiheadAttention, which reads its layer's weight without calling it.
        LOG.warning("%s: stays dense, its weight is read by the module around it", name)
        return None
    from_meta = module.weight.is_meta
    if from_meta and weights is None:
        raise ValueError(f"{name}: its weight is on the meta device; pass weights= to say where it comes from")
    has_blocks = from_meta and weights.has_packed(source, wanted)
    fits = fitting_format(wanted, module.out_features, module.in_features, has_blocks)
    shape = f"({module.out_features}, {module.in_features})"
    if fits is None:
        LOG.warning("%s: stays dense, %s cannot hold a weight %s", name, wanted, shape)
        return None
    if fits != wanted:
        LOG.info("%s: packed as %s, %s cannot hold a weight %s", name, fits, wanted, shape)
    if has_blocks:
        weights.check_shape(source, module.weight)
    cut = weights.share(name, module, fits) if from_meta else None
    try:
        if not from_meta:
            return PackedLinear.from_linear(module, fits, importance.get(name), progress)
        part = weights.cuts.get(f"{name}.bias")
        bias = None if module.bias is None else weights.checked(f"{name}.bias", module.bias, part)
        if has_blocks:
            rows, columns = (module.out_features, module.in_features) if cut is None else cut.shape
            layer = PackedLinear.from_packed(weights.packed(source, fits, cut), fits, rows, columns, bias)
            layer.dense_bytes = rows * columns * module.weight.element_size()
            layer.error = 0.0
            if progress is not None:
                progress(rows * columns)
            return layer
        first = cut.first if cut is not None and cut.axis == COLUMNS else None
        values = weights.checked(source, module.weight, cut and cut.dense)
        return PackedLinear.from_dense(values, fits, bias, importance.get(name), progress, first)
    except ValueError as error:
        raise (ModelError if from_meta else ValueError)(f"{name}: {error}") from error


@dataclass(frozen=True)
class LayerSummary:
    """One linear layer: its format ("dense" for one that was not packed), shape, bytes before and after, error."""

    name: str
    format: str
    shape: tuple[int, int]
    dense_bytes: int
    bytes: int
    error: float | None


@dataclass(frozen=True)
class Summary:
    """The linear layers of a model; printed, a table by format."""

    layers: list[LayerSummary]

    @property
    def dense_bytes(self) -> int:
        return sum(layer.dense_bytes for layer in self.layers)

    @property
    def bytes(self) -> int:
        return sum(layer.bytes for layer in self.layers)

    @property
    def error(self) -> float | None:
        """Relative root-mean-square error over the layers where it was measured, weighed by their sizes."""
        return mean_error(self.layers)

    def formats(self) -> dict[str, int]:
        """Number of layers by format, the most frequent first."""
        names = [layer.format for layer in self.layers]
        return {name: names.count(name) for name in sorted(set(names), key=lambda name: (-names.count(name), name))}

    def __str__(self) -> str:
        rows = [("format", "layers", "MB before", "MB after", "relative error")]
        for name in self.formats():
            rows.append(table_row(name, [layer for layer in self.layers if layer.format == name]))
        rows.append(table_row("all", self.layers))
        widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
        lines = [[cell.rjust(width) for cell, width in zip(row, widths, strict=True)] for row in rows]
        return "\n".join(
            "  ".join([row[0].ljust(widths[0]), *cells[1:]]) for row, cells in zip(rows, lines, strict=True)
        )


def mean_error(layers: list[LayerSummary]) -> float | None:
    known = [(layer.error, layer.shape[0] * layer.shape[1]) for layer in layers if layer.error is not None]
    total = sum(size for _, size in known)
    return (sum(error**2 * size for error, size in known) / total) ** 0.5 if total else None


def table_row(title: str, layers: list[LayerSummary]) -> tuple[str, ...]:
    before, after = sum(layer.dense_bytes for layer in layers), sum(layer.bytes for layer in layers)
    error = mean_error(layers)
    return (
        title,
        str(len(layers)),
        f"{before / 1e6:.1f}",
        f"{after / 1e6:.1f}",
        "-" if error is None else f"{error:.4f}",
    )


def summary(model: nn.Module) -> Summary:
    """What is packed in a model and what is not. The error of a layer is measured on up to 256 of its rows."""
    layers = []
    for name, module in model.named_modules():
        if isinstance(module, PackedLinear):
            shape, size = (module.out_features, module.in_features), module.weight.numel()
            layers.append(LayerSummary(name, module.format, shape, module.dense_bytes, size, module.error))
        elif isinstance(module, nn.Linear):
            size = module.weight.numel() * module.weight.element_size()
            layers.append(LayerSummary(name, "dense", tuple(module.weight.shape), size, size, 0.0))
    return Summary(layers)
