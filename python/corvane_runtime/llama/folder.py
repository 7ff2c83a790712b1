"""Reads a Llama-shaped model from a folder that transformers wrote, without transformers."""

from __future__ import annotations

from collections.abc import Mapping
from pathlib import Path

import numpy as np
import torch

from ..formats import Progress
from ..parallel import Cut, Link
from ..quantize import Formats, Importance
from ..tokenizer import ChatTokenizer, read_json
from ..weights import ModelError, SafetensorsWeights, naming
from .gguf_file import packed_llama
from .model import Config, Llama

KINDS = ("llama", "mistral", "qwen2", "qwen3")
ROPE_KINDS = ("default", "linear", "llama3")
EMBEDDING_KINDS = {torch.float32: "F32", torch.float16: "F16", torch.bfloat16: "BF16"}


def read_config(folder: Path) -> Config:
    """The sizes in config.json; ModelError: what this runtime does not run."""
    about = read_json(folder / "config.json")
    kind = about.get("model_type")
    if kind not in KINDS:
        raise ModelError(f"{folder}: its model type is {kind}; this runtime runs {', '.join(KINDS)}")
    rope = about.get("rope_parameters") or about.get("rope_scaling") or {}
    if rope.get("rope_type", rope.get("type", "default")) not in ROPE_KINDS:
        raise ModelError(f"{folder}: its rotary frequencies are none of {', '.join(ROPE_KINDS)}")
    window = about.get("sliding_window") if kind == "mistral" else None
    if about.get("use_sliding_window") or (window and window < about.get("max_position_embeddings", window)):
        raise ModelError(f"{folder}: slides its window, which this runtime does not")
    if about.get("hidden_act", "silu") != "silu" or about.get("quantization_config"):
        raise ModelError(f"{folder}: has an activation or a packing of its own, which this runtime does not read")
    try:
        heads, hidden = about["num_attention_heads"], about["hidden_size"]
        head_size = about.get("head_dim") or hidden // heads
        rope_base = float(about.get("rope_theta") or rope.get("rope_theta") or 10000.0)
        return Config(
            layers=about["num_hidden_layers"],
            hidden=hidden,
            heads=heads,
            kv_heads=about.get("num_key_value_heads") or heads,
            head_size=head_size,
            mlp=about["intermediate_size"],
            vocabulary=about["vocab_size"],
            context=about["max_position_embeddings"],
            rope_base=rope_base,
            rope_divisors=rope_divisors(rope, rope_base, head_size),
            norm_epsilon=about["rms_norm_eps"],
            qkv_bias=kind == "qwen2" or bool(about.get("attention_bias")),
            output_bias=kind != "qwen2" and bool(about.get("attention_bias")),
            mlp_bias=bool(about.get("mlp_bias")),
            head_norms=kind == "qwen3",
            tied=bool(about.get("tie_word_embeddings", False)),
        )
    except KeyError as error:
        raise ModelError(f"{folder / 'config.json'}: has no {error.args[0]}") from None


def rope_divisors(rope: Mapping[str, object], base: float, head_size: int) -> list[float] | None:
    """What the rotary frequencies are divided by, None for nothing.

    Llama 3 divides the frequencies whose waves are longer than its first context by a factor, leaves those of short
    waves, and goes from one to the other in between. KeyError: a number that is missing.
    """
    kind = rope.get("rope_type", rope.get("type", "default"))
    if kind == "default":
        return None
    factor = float(rope["factor"])
    if kind == "linear":
        return [factor] * (head_size // 2)
    low, high = float(rope["low_freq_factor"]), float(rope["high_freq_factor"])
    waves = 2 * np.pi * base ** (2 * np.arange(head_size // 2) / head_size)  # their lengths in tokens
    kept = (float(rope["original_max_position_embeddings"]) / waves - low) / (high - low)
    kept = kept.clip(0, 1)
    return (1 / (kept + (1 - kept) / factor)).tolist()


class FolderWeights(SafetensorsWeights):
    """The folder's tensors; the output head may be the token embedding."""

    def dense(self, name: str, cut: Cut | None = None) -> torch.Tensor:
        if name == "lm_head.weight" and name not in self:
            name = "model.embed_tokens.weight"
        return super().dense(name, cut)

    def checked(self, name: str, like: torch.Tensor, cut: Cut | None = None) -> torch.Tensor:
        if name == "model.embed_tokens.weight":
            return as_bytes(self.dense(name))
        return super().checked(name, like, cut)

    def embedding_kind(self) -> str:
        dtype = self.dense("model.embed_tokens.weight").dtype
        if dtype not in EMBEDDING_KINDS:
            raise ModelError(f"{self.path}: its token embedding is {dtype}; this runtime reads float, half, bfloat16")
        return EMBEDDING_KINDS[dtype]


def as_bytes(rows: torch.Tensor) -> torch.Tensor:
    """The bytes of a matrix, uint8 (rows, bytes of a row)."""
    return rows.contiguous().view(torch.uint8).reshape(rows.shape[0], -1)


def load_folder(
    folder: str | Path,
    format: Formats | None = None,
    importance: Importance | None = None,
    progress: Progress | None = None,
    link: Link | None = None,
) -> Llama:
    """A Llama-shaped model of a folder of transformers, on XPU: packed in a format as quantize_ takes it, or dense.

    `link`: to the processes that share the model; each reads and packs its share alone. Errors then as those of shard_.
    ModelError: a folder without such a model, or tensors that are missing or of other shapes.
    """
    folder = Path(folder)
    source = FolderWeights(folder)
    with naming(folder / "config.json"):
        config = read_config(folder)
        config.check_layers(source)
    model = Llama(config, source.embedding_kind())
    packed_llama(model, source, format, importance, progress, link)
    model.tokenizer = ChatTokenizer.load(folder)
    return model
