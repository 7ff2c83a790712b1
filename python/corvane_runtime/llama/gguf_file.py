"""Reads a Llama-shaped model from a GGUF file: its sizes, its tensors (as stored and as floats), and its tokenizer.

The `gguf` package parses the file and decodes its blocks. Files of the architecture `llama` interleave the rows of the
query and key projections; they are brought back to the half-split rotary order here, so that nothing after this file
needs to know of the other one.
"""

from __future__ import annotations

import hashlib
import re
from pathlib import Path

import gguf
import numpy as np
import torch
from numpy.typing import NDArray

from ..formats import FORMATS, PUBLIC_BLOCKS, Progress, as_floats, take_over
from ..parallel import COLUMNS, Cut, Link, fingerprint, join, plan_of, versions
from ..quantize import Formats, Importance, quantize_, summary
from ..tokenizer import ChatTokenizer, byte_level_bpe, mark_control_tokens, sentence_piece_bpe
from ..weights import ModelError, SafetensorsWeights, WeightSource, naming
from .model import Config, Llama

INTERLEAVED = ("llama",)  # architectures whose query and key rows are stored in the other rotary order
ARCHITECTURES = (*INTERLEAVED, "mistral", "qwen2", "qwen3")

# Names of a layer's tensors, here and in the file.
PARTS = {
    "self_attn.q_proj": "attn_q",
    "self_attn.k_proj": "attn_k",
    "self_attn.v_proj": "attn_v",
    "self_attn.o_proj": "attn_output",
    "self_attn.q_norm": "attn_q_norm",
    "self_attn.k_norm": "attn_k_norm",
    "mlp.gate_proj": "ffn_gate",
    "mlp.up_proj": "ffn_up",
    "mlp.down_proj": "ffn_down",
    "input_layernorm": "attn_norm",
    "post_attention_layernorm": "ffn_norm",
}
OUTER = {"model.embed_tokens": "token_embd", "model.norm": "output_norm", "lm_head": "output"}


def file_name(name: str) -> str:
    """The file's name of a parameter: "model.layers.3.mlp.up_proj.weight" is "blk.3.ffn_up.weight"."""
    module, _, kind = name.rpartition(".")
    found = re.fullmatch(r"model\.layers\.(\d+)\.(.+)", module)
    return f"blk.{found[1]}.{PARTS[found[2]]}.{kind}" if found else f"{OUTER[module]}.{kind}"


def half_split_order(heads: int, head_size: int) -> NDArray[np.int64]:
    """Row numbers that bring rows of rotary neighbours into the half-split order, int64 (heads * head_size,).

    The file interleaves each head's rows so that elements 2i and 2i + 1 rotate together. Half-split rotation pairs i
    with i + head_size / 2: row i of the result is the file's row 2i, row i + head_size / 2 is its row 2i + 1.
    """
    pairs = np.arange(heads * head_size).reshape(heads, head_size // 2, 2)
    return pairs.transpose(0, 2, 1).reshape(-1)


class Reader(gguf.GGUFReader):
    """The package's reader, which would take what lies behind a file's end for empty, however much of it there is."""

    def _get(self, offset: int, dtype: object, count: int = 1, *order: object, **named: object) -> NDArray:
        found = super()._get(offset, dtype, count, *order, **named)
        if len(found) != count:
            raise ValueError(f"ends before byte {int(offset) + int(count)}")
        return found

    def _get_field_parts(self, orig_offs: int, raw_type: int) -> tuple:
        if raw_type == gguf.GGUFValueType.ARRAY:  # it would be walked to the file's end, element by element
            count = int(self._get(orig_offs + 4, np.uint64)[0])
            if count > len(self.data) - orig_offs:
                raise ValueError(f"ends before the {count} elements of an array at byte {orig_offs}")
        return super()._get_field_parts(orig_offs, raw_type)


class GgufWeights(WeightSource):
    """A GGUF file, opened; tensors are read where they are asked for, by the names that the Llama model has for them."""

    def __init__(self, path: str | Path) -> None:
        """ModelError: no GGUF file, or a model that this runtime does not run."""
        super().__init__()
        self.path = Path(path)
        try:
            with naming(path, "cannot be read as a GGUF file"), np.errstate(over="ignore"):
                reader = Reader(self.path)
        except ModelError as error:
            if isinstance(error.__cause__, FileNotFoundError):
                raise ModelError(f"{path}: there is no such file") from None
            raise
        self._fields = reader.fields
        self._tensors = {tensor.name: tensor for tensor in reader.tensors}
        with naming(path):
            self.architecture = str(self.field("general.architecture"))
            self.config = self._read_config()
            self.config.check_layers(self)

    def field(self, key: str, default: object = None) -> object:
        """The value of a metadata field; a missing one without a default is an error."""
        if key in self._fields:
            return self._fields[key].contents()
        if default is None:
            raise ModelError(f"{self.path}: has no field {key}")
        return default

    def _read_config(self) -> Config:
        name = self.architecture
        if name not in ARCHITECTURES:
            raise ModelError(f"{self.path}: its architecture is {name}; this runtime runs {', '.join(ARCHITECTURES)}")
        heads = int(self.field(f"{name}.attention.head_count"))
        hidden = int(self.field(f"{name}.embedding_length"))
        head_size = int(self.field(f"{name}.attention.key_length", hidden // heads))
        config = Config(
            layers=int(self.field(f"{name}.block_count")),
            hidden=hidden,
            heads=heads,
            kv_heads=int(self.field(f"{name}.attention.head_count_kv", heads)),
            head_size=head_size,
            mlp=int(self.field(f"{name}.feed_forward_length")),
            vocabulary=int(self.stored("model.embed_tokens.weight").shape[1]),
            context=int(self.field(f"{name}.context_length")),
            rope_base=float(self.field(f"{name}.rope.freq_base", 10000.0)),
            norm_epsilon=float(self.field(f"{name}.attention.layer_norm_rms_epsilon")),
            qkv_bias="blk.0.attn_q.bias" in self._tensors,
            output_bias="blk.0.attn_output.bias" in self._tensors,
            mlp_bias="blk.0.ffn_gate.bias" in self._tensors,
            head_norms="blk.0.attn_q_norm.weight" in self._tensors,
            tied="output.weight" not in self._tensors,
            rope_divisors=self._rope_divisors(head_size),
        )
        self._refuse_what_is_not_built(config)
        return config

    def _rope_divisors(self, head_size: int) -> list[float] | None:
        name = self.architecture
        kind = self.field(f"{name}.rope.scaling.type", "none")
        if kind not in ("none", "linear"):
            raise ModelError(f"{self.path}: scales its rotary frequencies by {kind}, which this runtime does not")
        scale = float(self.field(f"{name}.rope.scaling.factor", 1.0)) if kind == "linear" else 1.0
        if "rope_freqs.weight" in self._tensors:
            return (np.asarray(self._tensors["rope_freqs.weight"].data, dtype=np.float64) * scale).tolist()
        return None if scale == 1.0 else [scale] * (head_size // 2)

    def _refuse_what_is_not_built(self, config: Config) -> None:
        name = self.architecture
        if int(self.field(f"{name}.rope.dimension_count", config.head_size)) != config.head_size:
            raise ModelError(f"{self.path}: rotates only a part of each head, which this runtime does not")
        if int(self.field(f"{name}.attention.sliding_window", config.context)) < config.context:
            raise ModelError(f"{self.path}: slides its window, which this runtime does not")
        if config.rope_divisors is not None and len(config.rope_divisors) != config.head_size // 2:
            raise ModelError(f"{self.path}: rope_freqs.weight does not fit heads of {config.head_size} elements")
        if "blk.0.ffn_gate_inp.weight" in self._tensors:
            raise ModelError(f"{self.path}: is a mixture of experts, which this runtime does not run")

    def __contains__(self, name: str) -> bool:
        return file_name(name) in self._tensors

    def stored(self, name: str) -> gguf.ReaderTensor:
        """A tensor as it lies in the file; the output head may be that of the token embedding."""
        wanted = file_name(name)
        if wanted == "output.weight" and wanted not in self._tensors:
            wanted = "token_embd.weight"
        try:
            return self._tensors[wanted]
        except KeyError:
            raise ModelError(f"{self.path}: has no tensor {wanted}") from None

    def rows(self, name: str, cut: Cut | None = None) -> NDArray:
        """A tensor's rows as stored, or a share of them; those of query and key in half-split rotary order."""
        rows = np.asarray(self.stored(name).data)
        if rows.ndim > 2:
            raise ModelError(f"{name}: the file holds {rows.ndim} dimensions")
        own = slice(None) if cut is None or cut.axis == COLUMNS else slice(cut.first, cut.last)
        heads = {"q_proj": self.config.heads, "k_proj": self.config.kv_heads}.get(name.split(".")[-2])
        if heads is None or self.architecture not in INTERLEAVED:
            return rows[own]
        if rows.shape[0] != heads * self.config.head_size:
            raise ModelError(
                f"{name}: the file holds {rows.shape[0]} rows, {heads} heads need {self.config.head_size} each"
            )
        return rows[half_split_order(heads, self.config.head_size)[own]]

    def blocks(self, name: str, cut: Cut | None) -> tuple[NDArray, int]:
        """Rows as stored, of a share of columns the blocks that hold it, and the number of the first of their columns."""
        if cut is not None:
            cut.dense.check(tuple(int(size) for size in self.stored(name).shape[::-1]))
        rows = self.rows(name, cut)
        if cut is None or cut.axis != COLUMNS:
            return rows, 0
        elements, size = gguf.GGML_QUANT_SIZES[self.stored(name).tensor_type]
        first, last = cut.first // elements, -(-cut.last // elements)
        unit = size // rows.itemsize
        return rows[:, first * unit : last * unit], first * elements

    def dense(self, name: str, cut: Cut | None = None) -> torch.Tensor:
        tensor = self.stored(name)
        blocks, begin = self.blocks(name, cut)
        with naming(f"{self.path}: {name}", "cannot be decoded"):
            values = gguf.dequantize(np.ascontiguousarray(blocks), tensor.tensor_type)
        if len(tensor.shape) == 2:
            values = values.reshape(blocks.shape[0], -1)
            if cut is not None:
                values = values[:, cut.first - begin : cut.last - begin] if cut.axis == COLUMNS else values
        return torch.from_numpy(np.require(values, np.float32, ["C", "W"]))

    def check_shape(self, name: str, like: torch.Tensor) -> None:
        shape = tuple(int(size) for size in self.stored(name).shape[::-1])
        if shape != tuple(like.shape):
            raise ModelError(f"{name}: the file holds {shape}, the model needs {tuple(like.shape)}")

    def has_packed(self, name: str, format: str) -> bool:
        tensor = self.stored(name)
        return PUBLIC_BLOCKS.get(format) == tensor.tensor_type and tensor.shape[0] % FORMATS[format].block_elements == 0

    def packed(self, name: str, format: str, cut: Cut | None = None) -> torch.Tensor:
        columns = int(self.stored(name).shape[0]) if cut is None else cut.shape[1]
        return torch.from_numpy(np.array(take_over(FORMATS[format], self.blocks(name, cut)[0], columns)))

    def embedding_kind(self) -> str:
        return self.stored("model.embed_tokens.weight").tensor_type.name

    def checked(self, name: str, like: torch.Tensor, cut: Cut | None = None) -> torch.Tensor:
        if name == "model.embed_tokens.weight":
            stored = self.stored(name)
            # Of a model that several processes share it stays in the file: a step reads a row of it.
            place = {"mode": "c", "offset": int(stored.data_offset), "shape": stored.data.shape}
            mapped = self.plan is not None
            rows = np.memmap(self.path, stored.data.dtype, **place) if mapped else np.array(stored.data)
            return torch.from_numpy(rows.view(np.uint8).reshape(rows.shape[0], -1))
        return super().checked(name, like, cut)

    def tokenizer(self) -> ChatTokenizer:
        kind = self.field("tokenizer.ggml.model")
        tokens, kinds = self.field("tokenizer.ggml.tokens"), self.field("tokenizer.ggml.token_type")
        ids = {name: int(self.field(f"tokenizer.ggml.{name}_token_id", -1)) for name in ("bos", "eos", "eot")}
        try:
            if kind == "gpt2":
                split = str(self.field("tokenizer.ggml.pre", "default"))
                core = byte_level_bpe(tokens, self.field("tokenizer.ggml.merges"), split)
            elif kind == "llama":
                space_first = bool(self.field("tokenizer.ggml.add_space_prefix", True))
                core = sentence_piece_bpe(tokens, self.field("tokenizer.ggml.scores"), space_first)
            else:
                raise ModelError(f"its tokenizer is {kind}; this runtime reads gpt2 and llama")
        except Exception as error:  # the tokenizer library's own kind has no name
            raise ModelError(f"{self.path}: {error}") from error
        mark_control_tokens(core, tokens, kinds)
        begins = self.field("tokenizer.ggml.add_bos_token", kind == "llama")
        return ChatTokenizer(
            core,
            begin=ids["bos"] if begins and ids["bos"] >= 0 else None,
            ends={ids["eos"], ids["eot"]} - {-1},
            chat_template=str(self.field("tokenizer.chat_template", "")) or None,
        )


def load_gguf(
    path: str | Path,
    format: Formats | None = None,
    importance: Importance | None = None,
    progress: Progress | None = None,
    link: Link | None = None,
) -> Llama:
    """A Llama model from a GGUF file, on XPU, with its tokenizer: packed in a format as quantize_ takes it, or dense.

    `link`: to the processes that share the model; each reads and packs its share alone. Errors then as those of shard_.
    Blocks that the file already holds in the wanted format are taken over as they are, without loss. ModelError: a file
    that is no such model, or of which no weight can be had in the format.
    """
    source = GgufWeights(path)
    model = packed_llama(Llama(source.config, source.embedding_kind()), source, format, importance, progress, link)
    with naming(path, "does not describe a tokenizer"):
        model.tokenizer = source.tokenizer().check()
    return model


def packed_llama(
    model: Llama,
    source: GgufWeights | SafetensorsWeights,
    format: Formats | None,
    importance: Importance | None,
    progress: Progress | None,
    link: Link | None,
) -> Llama:
    """A model on the meta device, packed and filled from a source one layer at a time, brought to XPU."""
    if link is not None:
        link.agree(
            {**versions(), "model": fingerprint(source.path), "format": str(format), **importance_fact(importance)}
        )
        source.plan = plan_of(model, link)
    quantize_(model, {} if format is None else format, importance=importance, progress=progress, weights=source)
    if isinstance(format, str) and format not in summary(model).formats():
        raise ModelError(
            f"no weight of the model can be had in {format}: its rows are too short for 256-element blocks, "
            "or the format needs a file that already holds such blocks"
        )
    if link is not None:
        join(model, source.cuts, link)
    return model.prepare()


def importance_fact(importance: Importance | None) -> dict[str, str]:
    """What processes that pack the shares of a model have to have in common beside the model."""
    digest = hashlib.sha256()
    for name, values in sorted((importance or {}).items()):
        digest.update(name.encode() + as_floats(values).tobytes())
    return {"importance of inputs": "none" if importance is None else digest.hexdigest()[:12]}
