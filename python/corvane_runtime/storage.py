"""save and load: packed models as safetensors and a JSON config. Nothing in the files is executed, nothing pickled.

corvane.json says what safetensors cannot: the kind of model and its sizes, the format and sizes of each packed layer,
and of every tensor its dtype, shape and checksum, against which load() holds what it reads.
"""

from __future__ import annotations

import dataclasses
import json
import zlib
from pathlib import Path

import numpy as np
import torch
from safetensors.torch import save_file
from torch import nn

from .formats import FORMATS
from .linear import PackedLinear
from .llama import Config, Llama
from .parallel import ROWS, Cut, Link, fingerprint, plan_of, share, versions
from .tokenizer import ChatTokenizer, read_json
from .weights import ModelError, SafetensorsWeights, naming

CONFIG, TENSORS = "corvane.json", "model.safetensors"
VERSION = 1


def save(model: nn.Module, folder: str | Path) -> None:
    """Write a model with packed layers into a folder, which is made: corvane.json, model.safetensors, its tokenizer.

    Tied parameters are written once. ValueError: a model with parameters on the meta device, or a share of one.
    """
    if getattr(model, "link", None) is not None:
        raise ValueError("this process holds a share of the model: save it before it is cut")
    folder = Path(folder)
    names = owners_of(model)
    tensors: dict[str, torch.Tensor] = {}
    ties: dict[str, str] = {}
    for same in names.values():
        first, tensor = same[0]
        if tensor.is_meta:
            raise ValueError(f"{first}: is on the meta device and holds nothing to save")
        tensors[first] = tensor.detach().cpu().contiguous()
        ties.update({name: first for name, _ in same[1:]})
    about = {
        "version": VERSION,
        **kind_of(model),
        "layers": {name: layer_entry(layer) for name, layer in packed_layers(model)},
        "ties": ties,
        "tensors": {
            name: {
                "dtype": str(tensor.dtype).removeprefix("torch."),
                "shape": list(tensor.shape),
                "crc32": checksum(tensor),
            }
            for name, tensor in tensors.items()
        },
    }
    folder.mkdir(parents=True, exist_ok=True)
    save_file(tensors, folder / TENSORS)
    (folder / CONFIG).write_text(json.dumps(about, indent=1) + "\n")
    tokenizer = getattr(model, "tokenizer", None)
    if isinstance(tokenizer, ChatTokenizer):
        tokenizer.save(folder)
    if about["kind"] == "transformers":
        model.config.save_pretrained(folder)


def owners_of(model: nn.Module) -> dict[int, list[tuple[str, torch.Tensor]]]:
    """The parameters and persistent buffers of a model by identity, each with all its names."""
    owners: dict[int, list[tuple[str, torch.Tensor]]] = {}
    for name, tensor in model.state_dict(keep_vars=True).items():
        if isinstance(tensor, torch.Tensor):
            owners.setdefault(id(tensor), []).append((name, tensor))
    return owners


def packed_layers(model: nn.Module) -> list[tuple[str, PackedLinear]]:
    return [(name, module) for name, module in model.named_modules() if isinstance(module, PackedLinear)]


def layer_entry(layer: PackedLinear) -> dict:
    return {
        "format": layer.format,
        "in_features": layer.in_features,
        "out_features": layer.out_features,
        "bias": None if layer.bias is None else str(layer.bias.dtype).removeprefix("torch."),
        "dense_bytes": layer.dense_bytes,
        "error": layer.error,
    }


def kind_of(model: nn.Module) -> dict:
    """What load() needs to make the model again."""
    if isinstance(model, Llama):
        embedding = model.model.embed_tokens.kind.name
        return {"kind": "llama", "config": dataclasses.asdict(model.config), "embedding": embedding}
    if type(model).__module__.startswith("transformers.models."):
        return {"kind": "transformers", "class": type(model).__name__}
    return {"kind": "module", "class": type(model).__qualname__}


def checksum(tensor: torch.Tensor) -> int:
    """Of a contiguous tensor's bytes on the CPU."""
    return zlib.crc32(memoryview(tensor.reshape(-1).view(torch.uint8).numpy())) if tensor.numel() else 0


def load(
    folder: str | Path,
    model: nn.Module | None = None,
    device: torch.device | str = "xpu",
    link: Link | None = None,
) -> nn.Module:
    """The model that save() wrote, on a device.

    `link`: to the processes that share the model, one that shard_ can cut; each reads its share alone. Errors then as
    those of shard_.

    A Llama of this package and a model of transformers are made anew. Any other needs `model`, one of the same
    structure, dense or on the meta device, whose layers are replaced and filled; it may be given for those two as well.
    ModelError, which names the file or the tensor: files that are missing, damaged, truncated, of another version, or
    that do not fit each other or the model.
    """
    folder = Path(folder)
    about = read_json(folder / CONFIG)
    check_version(folder, about)
    source = CheckedWeights(folder, about)
    if link is not None:
        link.agree({**versions(), "model": fingerprint(folder)})
    with naming(folder / CONFIG):
        if model is None:
            model = new_model(folder, about)
        put_packed_layers(model, about["layers"])
    if link is not None:
        source.plan = plan_of(model, link)
        source.cuts = share(model, source.plan, link)
    source.put_into(model, about["ties"])
    if link is not None:
        source.check_parts(link)
    if isinstance(model, Llama):
        model.tokenizer = ChatTokenizer.load(folder)
    return model.to(device).eval()


def check_version(folder: Path, about: dict) -> None:
    version = about.get("version")
    if (
        not isinstance(version, int)
        or version < 1
        or not all(is_table(about.get(key), kind) for key, kind in (("layers", dict), ("ties", str), ("tensors", dict)))
    ):
        raise ModelError(f"{folder / CONFIG}: is not a description of a packed model")
    if version > VERSION:
        raise ModelError(f"{folder / CONFIG}: has version {version}, this release reads up to {VERSION}")


def is_table(value: object, kind: type) -> bool:
    return isinstance(value, dict) and all(isinstance(entry, kind) for entry in value.values())


def new_model(folder: Path, about: dict) -> nn.Module:
    if about["kind"] == "llama":
        config = Config(**about["config"])
        config.check_layers(about["tensors"])
        return Llama(config, about["embedding"])
    if about["kind"] == "transformers":
        from .transformers_models import empty_model

        return empty_model(folder, about["class"])
    raise ModelError(f"{folder}: holds a {about.get('class')}, pass one as model= to load it into")


def put_packed_layers(model: nn.Module, layers: dict[str, dict]) -> None:
    """Replace the model's layers of these names by packed ones on the meta device."""
    for name, entry in layers.items():
        if entry["format"] not in FORMATS:
            raise ModelError(f"{name}: its format {entry['format']!r} is not known to this release")
        parent, _, child = name.rpartition(".")
        owner = model.get_submodule(parent)
        replaced = getattr(owner, child)
        sizes = entry["in_features"], entry["out_features"]
        if (replaced.in_features, replaced.out_features) != sizes:
            raise ModelError(
                f"{name}: the file holds ({sizes[1]}, {sizes[0]}), "
                f"the model needs ({replaced.out_features}, {replaced.in_features})"
            )
        dtype = None if entry["bias"] is None else getattr(torch, entry["bias"])
        layer = PackedLinear(*sizes, entry["format"], bias=entry["bias"] is not None, device="meta", dtype=dtype)
        layer.dense_bytes, layer.error = entry["dense_bytes"], entry["error"]
        setattr(owner, child, layer)


class CheckedWeights(SafetensorsWeights):
    """The tensors of a saved model, each held against what corvane.json says of it."""

    def __init__(self, folder: Path, about: dict) -> None:
        super().__init__(folder)
        self.parts: dict[str, tuple[int, int]] = {}  # of tensors that are read in part: CRC of the part, whole bytes
        self.entries = about["tensors"]
        if set(self.entries) != set(self.names()):
            odd = sorted(set(self.entries) ^ set(self.names()))[0]
            where = "not in the file" if odd in self.entries else f"not in {CONFIG}"
            raise ModelError(f"{folder}: the tensor {odd} is {where}")

    def dense(self, name: str, cut: Cut | None = None) -> torch.Tensor:
        tensor = super().dense(name)
        entry = self.entries[name]
        found = {"dtype": str(tensor.dtype).removeprefix("torch."), "shape": list(tensor.shape)}
        for key, value in found.items():
            if entry.get(key) != value:
                raise ModelError(f"{name}: its {key} is {value}, {CONFIG} says {entry.get(key)}")
        part = cut
        if part is None and self.plan is not None and tensor.dim() == 2:  # an embedding, which stays in the file
            part = Cut(ROWS, *self.plan.even(tensor.shape[0]), *tensor.shape)
        if part is not None:
            try:
                part.check(tuple(tensor.shape))
            except ModelError as error:
                raise ModelError(f"{name}: {error}") from None
            self.parts[name] = checksum(part.alone(tensor)), tensor.numel() * tensor.element_size()
            return tensor if cut is None else cut.take(tensor)
        if entry.get("crc32") != checksum(tensor):
            raise ModelError(f"{name}: is damaged: its checksum is not that of {CONFIG}")
        return tensor

    def check_parts(self, link: Link) -> None:
        """Hold the tensors that several processes have read together against their checksums, in all of them.

        With zeros in the place of other parts, the exclusive or of the processes' bytes is the tensor. A CRC of bytes
        of one length is linear but for a constant, the CRC of zeros: those of the parts make that of the tensor.
        """
        own = torch.tensor([crc for crc, _ in self.parts.values()], dtype=torch.int64)
        found = [piece.tolist() for piece in link.pieces(own.to(link.device))]
        for (name, (_, size)), shares in zip(self.parts.items(), zip(*found, strict=True), strict=True):
            nothing = checksum(torch.from_numpy(np.zeros(size, dtype=np.uint8)))
            whole = nothing
            for crc in shares:
                whole ^= crc ^ nothing
            if whole != self.entries[name].get("crc32"):
                raise ModelError(f"{name}: is damaged: its checksum is not that of {CONFIG}")

    def put_into(self, model: nn.Module, ties: dict[str, str]) -> None:
        """Fill parameters and persistent buffers, tied ones with the same tensor."""
        needed = {name: tensor for name, tensor in model.state_dict(keep_vars=True).items()}
        for name in [*self.entries, *ties]:
            if name not in needed:
                raise ModelError(f"{name}: the model has no such tensor")
        made: dict[tuple[str, Cut | None], torch.Tensor] = {}
        for name, tensor in needed.items():
            source = ties.get(name, name), self.cuts.get(name)  # a share is tied to nothing
            if source not in made:
                if source[0] not in self.entries:
                    raise ModelError(f"{name}: is not among the saved tensors")
                values = self.checked(source[0], tensor, source[1])
                made[source] = nn.Parameter(values, requires_grad=False) if isinstance(tensor, nn.Parameter) else values
            path, _, own = name.rpartition(".")
            module = model.get_submodule(path)
            (module._parameters if own in module._parameters else module._buffers)[own] = made[source]


__all__ = ["load", "save"]
