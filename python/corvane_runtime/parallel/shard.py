"""shard_: leaves in each process of a group its share of a Llama-shaped model, packed or dense."""

from __future__ import annotations

import hashlib
from pathlib import Path

import torch
import torch.distributed as dist
from torch import nn

from ..device import corvane
from ..linear import PackedLinear
from .cut import Cut, Plan
from .layers import cut_layer, joined
from .link import Link, link_to

SAMPLE = 1024  # elements at each end of a tensor that are compared between processes
FILE_SAMPLES, FILE_SAMPLE = 64, 4096  # places of a file, and bytes of each


def shard_(model: nn.Module, group: dist.ProcessGroup | None = None) -> nn.Module:
    """Leave in this process its share of a model that every process of the group holds whole; gives the model back.

    The model is a Llama of this package or a Llama-shaped one of transformers, packed or dense, with fused operators or
    without. Afterwards all processes call it in the same way at the same time and all get the whole result. Caches hold
    the process's own heads. The token embedding and the norms stay whole.

    `group`: None for the default one. ValueError: a model of another shape, or a number of processes that would split a
    head, a group of heads or a block of a format, with what would fit. ModelError: processes with different models,
    formats or versions. While the model runs, GroupFault, a RuntimeError, names the rank of a process that has ended or
    does not answer.
    """
    link = link_to(group)
    link.agree({**versions(), **facts_of(model)})
    share(model, plan_of(model, link), link)
    return model


def share(model: nn.Module, plan: Plan, link: Link) -> dict[str, Cut]:
    """Cut the layers of a whole model, also of one on the meta device; the cuts by names of parameters and buffers."""
    cuts: dict[str, Cut] = {}
    for path, layer in linear_layers(model):
        cut = plan.cut(path, layer.out_features, layer.in_features, getattr(layer, "format", None))
        if cut is not None:
            cut_layer(layer, cut)
            cuts[f"{path}.weight"] = cut
            if layer.bias is not None and cut.of_bias is not None:
                cuts[f"{path}.bias"] = cut.of_bias
    join(model, cuts, link)
    return cuts


def join(model: nn.Module, cuts: dict[str, Cut], link: Link) -> None:
    """Give the layers that have been cut the exchanges that they need, and the model its link."""
    for path, layer in linear_layers(model):
        if f"{path}.weight" in cuts:
            parent, _, child = path.rpartition(".")
            setattr(model.get_submodule(parent), child, joined(layer, link, cuts[f"{path}.weight"]))
    model.link = link


def linear_layers(model: nn.Module) -> list[tuple[str, nn.Linear | PackedLinear]]:
    return [(path, module) for path, module in model.named_modules() if isinstance(module, (nn.Linear, PackedLinear))]


def plan_of(model: nn.Module, link: Link) -> Plan:
    """What this process holds of a model; ValueError for one that is not Llama-shaped or has been cut already."""
    if getattr(model, "link", None) is not None:
        raise ValueError("the model is a share already")
    return Plan(link.rank, link.count, *sizes_of(model))


def sizes_of(model: nn.Module) -> tuple[int, int, int]:
    """Heads, key and value heads, and elements of the MLP."""
    config, parts = getattr(model, "config", None), {path.rpartition(".")[2] for path, _ in linear_layers(model)}
    needed = {"q_proj", "k_proj", "v_proj", "o_proj", "gate_proj", "up_proj", "down_proj", "lm_head"}
    names = ("heads", "kv_heads", "mlp"), ("num_attention_heads", "num_key_value_heads", "intermediate_size")
    for heads, kv_heads, mlp in names:
        if hasattr(config, heads) and needed <= parts:
            return getattr(config, heads), getattr(config, kv_heads), getattr(config, mlp)
    raise ValueError(
        f"a {type(model).__name__} is not Llama-shaped: it lacks {', '.join(sorted(needed - parts)) or heads}"
    )


def versions() -> dict[str, str]:
    return {"release of corvane": corvane.__version__, "release of PyTorch": torch.__version__}


def facts_of(model: nn.Module) -> dict[str, str]:
    """What tells a model from others: formats, shapes and samples of all of its tensors."""
    shapes, samples = hashlib.sha256(), hashlib.sha256()
    for name, tensor in model.state_dict().items():
        if not isinstance(tensor, torch.Tensor):
            continue
        shapes.update(f"{name} {tensor.dtype} {tuple(tensor.shape)}".encode())
        ends = tensor.detach().reshape(-1)
        ends = torch.cat([ends[:SAMPLE], ends[-SAMPLE:]]).cpu()
        samples.update(ends.view(torch.uint8).numpy().tobytes() if ends.numel() else b"")
    formats = sorted(
        {layer.format if isinstance(layer, PackedLinear) else "dense" for _, layer in linear_layers(model)}
    )
    return {
        "mixture of formats": ", ".join(formats),
        "shape of the model": shapes.hexdigest()[:12],
        "model": samples.hexdigest()[:12],
    }


def fingerprint(path: Path) -> str:
    """Of a model's files: their sizes, and samples of what they hold, spread over each."""
    digest = hashlib.sha256()
    names = [path] if path.is_file() else sorted([*path.glob("*.safetensors"), *path.glob("co*.json")])
    for name in names:
        size = name.stat().st_size
        digest.update(f"{name.name if path.is_dir() else ''} {size}".encode())
        with name.open("rb") as file:
            for i in range(FILE_SAMPLES):
                file.seek(i * size // FILE_SAMPLES)
                digest.update(file.read(FILE_SAMPLE))
    return digest.hexdigest()[:12]
