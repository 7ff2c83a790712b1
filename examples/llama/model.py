"""The Llama layers on XPU tensors: norms, rotary embedding, grouped-query attention over caches, gated MLP.

One new token takes the fused operators where the layer's formats have them; several tokens at once take the plain ones.
"""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import torch
from torch.nn.functional import silu

import corvane

from .device import DEVICE, FUSED_QKV_FORMATS, fused_mlp_formats, to_device
from .gguf_model import Config, GgufModel
from .linear import Linear, Weights


class KvCache:
    """Keys and values of all tokens so far: per layer two tensors (1, kv_heads, capacity, head_size)."""

    def __init__(self, config: Config, capacity: int, dtype: torch.dtype) -> None:
        shape = (1, config.kv_heads, capacity, config.head_size)
        self.keys = [torch.zeros(shape, dtype=dtype, device=DEVICE) for _ in range(config.layers)]
        self.values = [torch.zeros(shape, dtype=dtype, device=DEVICE) for _ in range(config.layers)]
        self.capacity = capacity
        self.length = 0


class Llama:
    """A model ready to run: `forward` takes token numbers and gives logits."""

    def __init__(
        self, source: GgufModel, weights: Weights, dtype: torch.dtype, fused: bool = True, many_rows: bool = True
    ) -> None:
        """`fused` and `many_rows` allow the fused operators and prompts in one call, where there are such."""
        self.config = source.config
        self.weights = weights
        self.dtype = dtype  # of the linear layers' inputs and of the caches; the residual stream is float
        self.many_rows = many_rows and weights.takes_rows(dtype)
        self.embedding = source.stored("token_embd")  # stays as the file has it: a step decodes only the rows it needs
        layers = range(self.config.layers)
        self.attention_norms = [to_device(source.vector(f"blk.{i}.attn_norm")) for i in layers]
        self.mlp_norms = [to_device(source.vector(f"blk.{i}.ffn_norm")) for i in layers]
        self.output_norm = to_device(source.vector("output_norm"))
        self.fused_qkv = [fused and has_fused_qkv(layer) for layer in weights.layers]
        self.fused_mlp = [fused and has_fused_mlp(layer) for layer in weights.layers]
        half = torch.arange(self.config.head_size // 2, dtype=torch.float64)
        self.frequencies = self.config.rope_base ** (-2 * half / self.config.head_size)
        self.rotation = self.positions = torch.empty(0)

    def new_cache(self, capacity: int) -> KvCache:
        """An empty cache with room for `capacity` tokens; also prepares the rotary table for as many positions."""
        if self.positions.shape[0] < capacity:
            angles = torch.outer(torch.arange(capacity, dtype=torch.float64), self.frequencies)
            self.rotation = torch.stack([angles.cos(), angles.sin()]).float().to(DEVICE)  # (2, capacity, head_size / 2)
            self.positions = torch.arange(capacity, dtype=torch.int64).to(DEVICE)
        return KvCache(self.config, capacity, self.dtype)

    def forward(self, tokens: Sequence[int], cache: KvCache, last_only: bool = True) -> torch.Tensor:
        """Append tokens to the sequence; logits (1 or len(tokens), vocabulary) float32 for the token after each."""
        if cache.length + len(tokens) > cache.capacity:
            raise ValueError(f"{cache.length} + {len(tokens)} tokens do not fit a cache of {cache.capacity}")
        if len(tokens) == 1 or self.many_rows:
            hidden = self._layers(tokens, cache)
            return self._logits(hidden[-1:] if last_only else hidden)
        steps = [self._layers([token], cache) for token in tokens]
        return self._logits(steps[-1]) if last_only else torch.cat([self._logits(hidden) for hidden in steps])

    def _logits(self, hidden: torch.Tensor) -> torch.Tensor:
        return self.weights.head(self._norm(hidden, self.output_norm)).float()

    def _layers(self, tokens: Sequence[int], cache: KvCache) -> torch.Tensor:
        """The residual stream after all layers, (rows, hidden) float32."""
        hidden = to_device(self.embedding.dense(np.array(tokens)))
        for i, layer in enumerate(self.weights.layers):
            x = self._norm(hidden, self.attention_norms[i])
            query, keys, values = self._project(i, layer, x, cache)
            attended = attention(query, keys, values).to(self.dtype)
            hidden = hidden + layer["attn_output"](attended)
            x = self._norm(hidden, self.mlp_norms[i])
            hidden = hidden + layer["ffn_down"](self._gated(i, layer, x))
        cache.length += len(tokens)
        return hidden

    def _norm(self, hidden: torch.Tensor, weight: torch.Tensor) -> torch.Tensor:
        """Root-mean-square norm of float rows, in the dtype of the linear layers."""
        mean_square = hidden.square().mean(dim=1, keepdim=True)
        return (hidden * torch.rsqrt(mean_square + self.config.norm_epsilon) * weight).to(self.dtype)

    def _project(
        self, i: int, layer: dict[str, Linear], x: torch.Tensor, cache: KvCache
    ) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor]:
        """Query (1, heads, rows, head_size), and the keys and values of all tokens up to the new ones, written here."""
        rows, start = x.shape[0], cache.length
        q, k, v = layer["attn_q"], layer["attn_k"], layer["attn_v"]
        if rows == 1 and self.fused_qkv[i]:
            return corvane.forward_qkv(
                x, q.weight, k.weight, v.weight, self.positions.narrow(0, start, 1),
                cache.keys[i].narrow(2, 0, start), cache.values[i].narrow(2, 0, start),
                q.qtype, v.qtype, start, self.config.head_size, self.config.rope_base,
            )  # fmt: skip
        heads = (1, rows, -1, self.config.head_size)
        rotation = self.rotation.narrow(1, start, rows)
        query = rotate(q(x).view(heads).transpose(1, 2), rotation)
        cache.keys[i].narrow(2, start, rows).copy_(rotate(k(x).view(heads).transpose(1, 2), rotation))
        cache.values[i].narrow(2, start, rows).copy_(v(x).view(heads).transpose(1, 2))
        return query, cache.keys[i].narrow(2, 0, start + rows), cache.values[i].narrow(2, 0, start + rows)

    def _gated(self, i: int, layer: dict[str, Linear], x: torch.Tensor) -> torch.Tensor:
        """silu(x gate^T) * (x up^T), (rows, mlp)."""
        gate, up = layer["ffn_gate"], layer["ffn_up"]
        if x.shape[0] == 1 and self.fused_mlp[i]:
            return corvane.mlp_forward_xpu(
                x, gate.weight, up.weight, 1, gate.state_size, gate.output_size, 0, gate.qtype
            )
        return (silu(gate(x).float()) * up(x).float()).to(self.dtype)


def has_fused_qkv(layer: dict[str, Linear]) -> bool:
    """Whether the formats of a layer's three projections fit the fused operator."""
    q, k, v = (layer[part].format_name for part in ("attn_q", "attn_k", "attn_v"))
    return q == k and q in FUSED_QKV_FORMATS and v == ("q2_k" if q == "iq2_xxs" else q)


def has_fused_mlp(layer: dict[str, Linear]) -> bool:
    gate, up = layer["ffn_gate"].format_name, layer["ffn_up"].format_name
    return gate == up and gate in fused_mlp_formats()


def rotate(x: torch.Tensor, rotation: torch.Tensor) -> torch.Tensor:
    """Half-split rotary embedding of x (1, heads, rows, head_size): element e turns with element e + head_size / 2.

    `rotation` is (2, rows, head_size / 2): cosines and sines of the rows' positions.
    """
    a, b = x.float().chunk(2, dim=3)
    cosine, sine = rotation[0], rotation[1]
    return torch.cat([cosine * a - sine * b, cosine * b + sine * a], dim=3).to(x.dtype)


def attention(query: torch.Tensor, keys: torch.Tensor, values: torch.Tensor) -> torch.Tensor:
    """Causal grouped-query attention in float; the query rows are the last ones of the sequence.

    query (1, heads, rows, head_size), keys and values (1, kv_heads, length, head_size).
    The result is (rows, heads * head_size).
    """
    _, heads, rows, head_size = query.shape
    _, kv_heads, length, _ = keys.shape
    grouped = query.float().reshape(kv_heads, heads // kv_heads * rows, head_size)
    # scores: (kv_heads, heads / kv_heads * rows, length)
    scores = torch.matmul(grouped, keys[0].float().transpose(1, 2)) * head_size**-0.5
    if rows > 1:
        seen = torch.ones(rows, length, dtype=torch.bool, device=DEVICE).tril(length - rows)
        scores = scores.view(heads, rows, length).masked_fill(~seen, float("-inf")).view(scores.shape)
    mixed = torch.matmul(scores.softmax(dim=2), values[0].float())
    return mixed.view(heads, rows, head_size).transpose(0, 1).reshape(rows, heads * head_size)
