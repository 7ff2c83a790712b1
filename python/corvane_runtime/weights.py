"""Where the parameters of a model on the meta device come from: a folder of safetensors files, read one by one."""

from __future__ import annotations

import json
from abc import ABC, abstractmethod
from pathlib import Path

import torch
from safetensors import SafetensorError, safe_open
from torch import nn


class ModelError(RuntimeError):
    """The files are not a model that this runtime can read or run; the text says why."""


class WeightSource(ABC):
    """Tensors by name, read when they are asked for."""

    @abstractmethod
    def __contains__(self, name: str) -> bool: ...

    @abstractmethod
    def dense(self, name: str) -> torch.Tensor:
        """A tensor on the CPU, floating; ModelError for a name that is missing."""

    def packed(self, name: str, format: str) -> torch.Tensor | None:
        """The tensor's bytes in a packed format, where the source holds just those."""
        del name, format
        return None

    def fill(self, model: nn.Module) -> None:
        """Put a tensor in the place of every parameter and persistent buffer that is on the meta device.

        Parameters that are tied stay so. ModelError: a name that is missing, a tensor of another shape.
        """
        filled: dict[int, nn.Parameter] = {}
        for path, module in model.named_modules():
            for name, parameter in module._parameters.items():
                if parameter is None or not parameter.is_meta:
                    continue
                if id(parameter) not in filled:
                    values = self.checked(f"{path}.{name}" if path else name, parameter)
                    filled[id(parameter)] = nn.Parameter(values.to(parameter.dtype), requires_grad=False)
                module._parameters[name] = filled[id(parameter)]
            for name, buffer in module._buffers.items():
                if buffer is None or not buffer.is_meta or name in module._non_persistent_buffers_set:
                    continue
                module._buffers[name] = self.checked(f"{path}.{name}" if path else name, buffer).to(buffer.dtype)

    def checked(self, name: str, like: torch.Tensor) -> torch.Tensor:
        """The tensor `name`, which must have the shape of `like`."""
        values = self.dense(name)
        if values.shape != like.shape:
            raise ModelError(f"{name}: the file holds {tuple(values.shape)}, the model needs {tuple(like.shape)}")
        return values


class SafetensorsWeights(WeightSource):
    """The safetensors files of a folder, with or without an index of shards; each tensor is read when asked for."""

    def __init__(self, folder: str | Path) -> None:
        self.folder = Path(folder)
        files = sorted(self.folder.glob("*.safetensors"))
        if not files:
            raise ModelError(f"{folder}: holds no safetensors file")
        index = self.folder / "model.safetensors.index.json"
        if index.is_file():
            names = json.loads(index.read_text())["weight_map"].values()
            files = [self.folder / Path(name).name for name in sorted(set(names))]
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

    def dense(self, name: str) -> torch.Tensor:
        if name not in self._files:
            raise ModelError(f"{self.folder}: has no tensor {name}")
        return self._files[name].get_tensor(name)
