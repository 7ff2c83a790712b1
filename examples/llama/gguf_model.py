"""Reads a Llama model from a GGUF file: its sizes, its tensors (as stored and as float32), and its tokenizer.

The `gguf` package parses the file and decodes its blocks. Rows of the query and key projections are brought back to the
half-split rotary order here, so that nothing after this file needs to know of the other one.
"""

from __future__ import annotations

from dataclasses import dataclass
from functools import cached_property
from pathlib import Path

import gguf
import numpy as np
from numpy.typing import NDArray

from .tokenizer import ChatTokenizer


class ModelError(RuntimeError):
    """The file is not a model that this runtime can run; the text says why."""


@dataclass(frozen=True)
class Config:
    """Sizes of a Llama model."""

    layers: int
    hidden: int  # elements of the residual stream
    heads: int  # query heads
    kv_heads: int  # key and value heads; each serves heads / kv_heads query heads
    head_size: int
    mlp: int  # elements between the two halves of the MLP
    vocabulary: int
    context: int  # longest sequence the model was made for
    rope_base: float
    norm_epsilon: float


@dataclass(frozen=True)
class StoredTensor:
    """A matrix as it lies in the file: rows of blocks, or of floats."""

    name: str
    kind: gguf.GGMLQuantizationType
    columns: int
    data: NDArray  # (rows, bytes of a row) uint8, or (rows, columns) float

    @property
    def rows(self) -> int:
        return self.data.shape[0]

    def dense(self, rows: NDArray[np.int64] | None = None) -> NDArray[np.float32]:
        """Decoded rows, float32 (rows, columns): those of the given numbers, or all."""
        data = np.ascontiguousarray(self.data if rows is None else self.data[rows])
        return np.asarray(gguf.dequantize(data, self.kind), dtype=np.float32).reshape(-1, self.columns)

    def with_rows(self, order: NDArray[np.int64]) -> StoredTensor:
        """The same matrix with its rows in another order."""
        return StoredTensor(self.name, self.kind, self.columns, self.data[order])


PARTS = ("attn_q", "attn_k", "attn_v", "attn_output", "ffn_gate", "ffn_up", "ffn_down")  # linear layers of one layer


def layer_names(config: Config) -> list[str]:
    """Names of the linear layers of all layers, without the output head."""
    return [f"blk.{i}.{part}" for i in range(config.layers) for part in PARTS]


def half_split_order(heads: int, head_size: int) -> NDArray[np.int64]:
    """Row numbers that bring rows of rotary neighbours into the half-split order, int64 (heads * head_size,).

    The file interleaves each head's rows so that elements 2i and 2i + 1 rotate together. Half-split rotation pairs i
    with i + head_size / 2: row i of the result is the file's row 2i, row i + head_size / 2 is its row 2i + 1.
    """
    pairs = np.arange(heads * head_size).reshape(heads, head_size // 2, 2)
    return pairs.transpose(0, 2, 1).reshape(-1)


class GgufModel:
    """A GGUF file of architecture `llama`, opened; tensors are read where they are asked for."""

    def __init__(self, path: Path) -> None:
        self.path = path
        try:
            reader = gguf.GGUFReader(path)
        except (OSError, ValueError) as error:
            raise ModelError(f"{path}: cannot be read as a GGUF file: {error}") from error
        self._fields = reader.fields
        self._tensors = {tensor.name: tensor for tensor in reader.tensors}
        self.config = self._read_config()

    def field(self, key: str, default: object = None) -> object:
        """The value of a metadata field; a missing one without a default is an error."""
        if key in self._fields:
            return self._fields[key].contents()
        if default is None:
            raise ModelError(f"{self.path}: has no field {key}")
        return default

    def _read_config(self) -> Config:
        architecture = self.field("general.architecture")
        if architecture != "llama":
            raise ModelError(f"{self.path}: its architecture is {architecture}; this runtime runs llama")
        heads = int(self.field("llama.attention.head_count"))
        hidden = int(self.field("llama.embedding_length"))
        config = Config(
            layers=int(self.field("llama.block_count")),
            hidden=hidden,
            heads=heads,
            kv_heads=int(self.field("llama.attention.head_count_kv", heads)),
            head_size=int(self.field("llama.attention.key_length", hidden // heads)),
            mlp=int(self.field("llama.feed_forward_length")),
            vocabulary=self.stored("token_embd").rows,
            context=int(self.field("llama.context_length")),
            rope_base=float(self.field("llama.rope.freq_base", 10000.0)),
            norm_epsilon=float(self.field("llama.attention.layer_norm_rms_epsilon")),
        )
        self._refuse_what_is_not_built(config)
        return config

    def _refuse_what_is_not_built(self, config: Config) -> None:
        if int(self.field("llama.rope.dimension_count", config.head_size)) != config.head_size:
            raise ModelError(f"{self.path}: rotates only a part of each head, which this runtime does not")
        if self.field("llama.rope.scaling.type", "none") != "none" or "rope_freqs.weight" in self._tensors:
            raise ModelError(f"{self.path}: scales its rotary frequencies, which this runtime does not")
        if any(name.endswith(".bias") for name in self._tensors):
            raise ModelError(f"{self.path}: has biases in its layers, which this runtime does not")
        if "blk.0.ffn_gate_inp.weight" in self._tensors:
            raise ModelError(f"{self.path}: is a mixture of experts, which this runtime does not run")

    def stored(self, name: str) -> StoredTensor:
        """The matrix `name` (without ".weight") as it lies in the file."""
        try:
            tensor = self._tensors[name + ".weight"]
        except KeyError:
            raise ModelError(f"{self.path}: has no tensor {name}.weight") from None
        return StoredTensor(name, tensor.tensor_type, int(tensor.shape[0]), np.asarray(tensor.data))

    def linear(self, name: str) -> StoredTensor:
        """The weight of a linear layer, query and key rows in half-split rotary order."""
        stored = self.stored(name)
        heads = {"attn_q": self.config.heads, "attn_k": self.config.kv_heads}.get(name.rpartition(".")[2])
        return stored if heads is None else stored.with_rows(half_split_order(heads, self.config.head_size))

    def output_head(self) -> StoredTensor:
        """The weight of the output head, which many models share with the token embedding."""
        return self.stored("output" if "output.weight" in self._tensors else "token_embd")

    def vector(self, name: str) -> NDArray[np.float32]:
        """The weights of a norm, float32 (hidden,)."""
        try:
            return np.asarray(self._tensors[name + ".weight"].data).reshape(-1).astype(np.float32)
        except KeyError:
            raise ModelError(f"{self.path}: has no tensor {name}.weight") from None

    @cached_property
    def tokenizer(self) -> ChatTokenizer:
        kind, split = self.field("tokenizer.ggml.model"), self.field("tokenizer.ggml.pre", "default")
        if kind != "gpt2":
            raise ModelError(f"{self.path}: its tokenizer is {kind}; this runtime reads gpt2 (byte-level BPE)")
        ids = {name: int(self.field(f"tokenizer.ggml.{name}_token_id", -1)) for name in ("bos", "eos", "eot")}
        try:
            return ChatTokenizer(
                tokens=self.field("tokenizer.ggml.tokens"),
                kinds=self.field("tokenizer.ggml.token_type"),
                merges=self.field("tokenizer.ggml.merges"),
                split=str(split),
                chat_template=str(self.field("tokenizer.chat_template", "none")),
                begin=ids["bos"] if self.field("tokenizer.ggml.add_bos_token", False) else None,
                ends={ids["eos"], ids["eot"]} - {-1},
            )
        except ValueError as error:
            raise ModelError(f"{self.path}: {error}") from error
