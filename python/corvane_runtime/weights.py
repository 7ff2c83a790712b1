"""Where the parameters of a model on the meta device come from: a folder of safetensors files, read one by one."""

from __future__ import annotations

import json
from abc import ABC, abstractmethod
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import TYPE_CHECKING

import torch
from safetensors import SafetensorError, safe_open
from torch import nn

if TYPE_CHECKING:
    from .parallel import Cut, Plan


class ModelError(RuntimeError):
    """The files are not a model that this runtime can read or run; the text says why."""


@contextmanager
def naming(file: object, fault: str = "does not describe a model") -> Iterator[None]:
    """Errors that the contents of a file lead to, of whatever kind, are ModelErrors that name it."""
    try:
        yield
    except ModelError:
        raise
    except (LookupError, TypeError, ValueError, AttributeError, ArithmeticError, OSError, RuntimeError) as error:
        raise ModelError(f"{file}: {fault}: {error!r}") from error


class WeightSource(ABC):
    """Tensors by name, read when they are asked for.

    `plan` says what a process reads of a model that several share, None for all of it; `cuts` gathers what it has read,
    by names of parameters.
    """

    plan: Plan | None = None

    def __init__(self) -> None:
        self.cuts: dict[str, Cut] = {}

    @abstractmethod
    def __contains__(self, name: str) -> bool: ...

    @abstractmethod
    def dense(self, name: str, cut: Cut | None = None) -> torch.Tensor:
        """A tensor on the CPU, floating, or a share of it; ModelError for a name that is missing."""

    def has_packed(self, name: str, format: str) -> bool:
        """Whether the source holds a tensor's bytes in a packed format."""
        del name, format
        return False

    def check_shape(self, name: str, like: torch.Tensor) -> None:  # noqa: B027
        """ModelError: the tensor, of which packed bytes will be asked for, has another shape than `like`."""

    def packed(self, name: str, format: str, cut: Cut | None = None) -> torch.Tensor:
        """Such bytes, uint8 (bytes,), or a share of them."""
        raise NotImplementedError

    def share(self, layer: str, module: nn.Module, format: str | None) -> Cut | None:
        """What this process reads of a linear layer's weight, None for all of it; ValueError where it cannot be cut."""
        if self.plan is None:
            return None
        cut = self.plan.cut(layer, module.out_features, module.in_features, format)
        if cut is not None:
            self.cuts[f"{layer}.weight"] = cut
            if module.bias is not None and cut.of_bias is not None:
                self.cuts[f"{layer}.bias"] = cut.of_bias
        return cut

    def fill(self, model: nn.Module) -> None:
        """Put a tensor in the place of every parameter and persistent buffer that is on the meta device.

        Parameters that are tied stay so. ModelError: a name that is missing, a tensor of another shape.
        """
        filled: dict[int, nn.Parameter] = {}
        for path, module in model.named_modules():
            cut = self.share(path, module, None) if isinstance(module, nn.Linear) and module.weight.is_meta else None
            for name, parameter in module._parameters.items():
                if parameter is None or not parameter.is_meta:
                    continue
                if id(parameter) not in filled:
                    own = f"{path}.{name}" if path else name
                    values = self.checked(own, parameter, self.cuts.get(own))
                    filled[id(parameter)] = nn.Parameter(values.to(parameter.dtype), requires_grad=False)
                module._parameters[name] = filled[id(parameter)]
            if cut is not None:
                module.out_features, module.in_features = cut.shape
            for name, buffer in module._buffers.items():
                if buffer is None or not buffer.is_meta or name in module._non_persistent_buffers_set:
                    continue
                module._buffers[name] = self.checked(f"{path}.{name}" if path else name, buffer).to(buffer.dtype)

    def checked(self, name: str, like: torch.Tensor, cut: Cut | None = None) -> torch.Tensor:
        """The tensor `name`, which must have the shape of `like`, or a share of it."""
        values = self.dense(name, cut)
        if cut is None and values.shape != like.shape:
            raise ModelError(f"{name}: the file holds {tuple(values.shape)}, the model needs {tuple(like.shape)}")
        return values


class SafetensorsWeights(WeightSource):
    """The safetensors files of a folder, with or without an index of shards; each tensor is read when asked for."""

    def __init__(self, folder: str | Path) -> None:
        super().__init__()
        self.path = Path(folder)
        files = sorted(self.path.glob("*.safetensors"))
        if not files:
            raise ModelError(f"{folder}: holds no safetensors file")
        index = self.path / "model.safetensors.index.json"
        if index.is_file():
            with naming(index, "cannot be read as an index"):
                names = json.loads(index.read_text())["weight_map"].values()
                files = [self.path / Path(name).name for name in sorted(set(names))]
        self._files: dict[str, safe_open] = {}
        for file in files:
            try:
                opened = safe_open(file, framework="pt")
            except (SafetensorError, OSError) as error:
                raise ModelError(f"{file}: cannot be read as a safetensors file: {error}") from error
            self._files.update({name: opened for name in opened.keys()})  # noqa: SIM118

    def __contains__(self, name: str) -> bool:
        return name in self._files

    def names(self) -> list[str]:
        return list(self._files)

    def dense(self, name: str, cut: Cut | None = None) -> torch.Tensor:
        if name not in self._files:
            raise ModelError(f"{self.path}: has no tensor {name}")
        # A tensor stands on a map of the file, of which a share touches its own pages alone.
        with naming(f"{self.path}: {name}", "cannot be read"):
            tensor = self._files[name].get_tensor(name)
        if cut is None:
            return tensor
        try:
            return cut.take(tensor)
        except ModelError as error:
            raise ModelError(f"{name}: {error}") from None
