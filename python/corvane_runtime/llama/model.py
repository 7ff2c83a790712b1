"""The Llama layers on XPU tensors: norms, rotary embedding, grouped-query attention over caches, gated MLP.

The modules carry the names that transformers gives them, so that weights of either origin fit. One new token takes the
fused operators where the layer's formats have them; several tokens at once take the plain ones.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Container, Sequence
from dataclasses import dataclass

import gguf
import numpy as np
import torch
from torch import nn
from torch.nn.functional import silu

from ..device import DEVICE, corvane, host_xpu, is_class_with_grid_mlp, to_device
from ..linear import PackedLinear
from ..parallel import INPUT_SHARES, Link, OUTPUT_SHARES
from ..tokenizer import ChatTokenizer

# Prompts are read in pieces of so many rows, and from so many on in a type of their own. In bfloat16 the time of a row falls
# up to some 256; attention would rather have fewer.
PROMPT_ROWS, FEWEST_PROMPT_ROWS = 256, 8
LARGEST_SIZE = 1 << 24  # of a model's sizes; the product of two is far from where numbers end
BLOCK_FORMATS_FUSED = frozenset({"q4_0", "fp4", "fp6", "fp8_e5m2"})  # with a fused kernel on every device class
# The fused projection takes iq2_xxs as well, with the value weight in q2_k.
FUSED_QKV_FORMATS = BLOCK_FORMATS_FUSED | {"iq2_xxs"}


def fused_mlp_formats() -> frozenset[str]:
    """Formats for which one launch makes the gated half of the MLP."""
    return BLOCK_FORMATS_FUSED | {"iq2_xxs"} if is_class_with_grid_mlp() else BLOCK_FORMATS_FUSED


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
    qkv_bias: bool = False  # on query, key and value projections
    output_bias: bool = False  # on the attention's output projection
    mlp_bias: bool = False
    head_norms: bool = False  # query and key heads are normed before they turn
    tied: bool = False  # the output head is the token embedding
    rope_divisors: Sequence[float] | None = None  # of the rotary frequencies, head_size / 2 of them

    def __post_init__(self) -> None:
        """ValueError: sizes that no model has, or numbers that are none."""
        names = ("layers", "hidden", "heads", "kv_heads", "head_size", "mlp", "vocabulary", "context")
        for name in names:
            size = getattr(self, name)
            if type(size) is not int or not 0 < size <= LARGEST_SIZE:
                raise ValueError(f"{name} is {size!r}, not from 1 to {LARGEST_SIZE}")
        if self.heads % self.kv_heads or self.head_size % 2 or self.heads * self.head_size > LARGEST_SIZE:
            raise ValueError(
                f"{self.heads} heads of {self.head_size} do not share {self.kv_heads} keys, or do not turn"
            )
        divisors = [] if self.rope_divisors is None else self.rope_divisors
        if self.rope_divisors is not None and len(divisors) != self.head_size // 2:
            raise ValueError(f"there are {len(divisors)} rope_divisors for heads of {self.head_size}")
        for number in (self.rope_base, self.norm_epsilon, *divisors):
            if isinstance(number, bool) or not 0 <= number < math.inf:
                raise ValueError(f"{number!r} is no rotary base, divisor, or epsilon of a norm")
        if self.rope_base == 0 or 0 in divisors:
            raise ValueError("rotary frequencies are divided by 0")

    def check_layers(self, names: Container[str]) -> None:
        """ValueError: the last layer's norm is not among a model's tensors, before so many layers are made."""
        last = f"model.layers.{self.layers - 1}.input_layernorm.weight"
        if last not in names:
            raise ValueError(f"{self.layers} layers, of which the last has no {last}")


class StoredEmbedding(nn.Module):
    """Token embeddings as a file has them: rows of blocks or of floats on the CPU, decoded where they are asked for."""

    weight: torch.Tensor

    def __init__(self, tokens: int, columns: int, kind: str) -> None:
        """`kind` is the name of a type of GGUF tensors, such as "Q8_0", "BF16" or "F32"."""
        super().__init__()
        self.kind, self._decoder = gguf.GGMLQuantizationType[kind], None
        block, size = gguf.GGML_QUANT_SIZES[self.kind]
        self.register_buffer("weight", torch.empty(tokens, columns // block * size, dtype=torch.uint8, device="meta"))

    def _apply(self, fn: Callable, *args: object, **kwargs: object) -> StoredEmbedding:
        return self  # stays on the CPU: a step needs a row or a few

    def forward(self, tokens: Sequence[int]) -> torch.Tensor:
        """The rows of token numbers, float32 (tokens, columns), on XPU. IndexError: a number beyond the table."""
        if len(tokens) and (min(tokens) < 0 or max(tokens) >= self.weight.shape[0]):
            raise IndexError(f"token numbers run from 0 to {self.weight.shape[0] - 1}")
        table = self.weight.numpy()
        # One token, a step of decoding, is a view: each call into numpy costs some 10 us beside the kernels.
        rows = table[tokens[0] : tokens[0] + 1] if len(tokens) == 1 else table[np.asarray(tokens, dtype=np.int64)]
        if self.kind == gguf.GGMLQuantizationType.F32:
            return to_device(rows.view(np.float32).copy())
        if self.kind == gguf.GGMLQuantizationType.F16:
            return to_device(rows.view(np.float16).astype(np.float32))
        return to_device(self.decoder().dequantize_rows(rows))

    def decoder(self) -> type:
        """What decodes blocks of the kind, without the package's preparations for large arrays."""
        if self._decoder is None:
            self._decoder = getattr(gguf.quants, self.kind.name)
            self._decoder.init_grid()
        return self._decoder


class Norm(nn.Module):
    """The weight of a root-mean-square norm; the model computes it (rms_norm)."""

    def __init__(self, size: int) -> None:
        super().__init__()
        self.weight = nn.Parameter(torch.empty(size, device="meta"), requires_grad=False)


class Attention(nn.Module):
    """The projections of attention."""

    def __init__(self, config: Config) -> None:
        super().__init__()
        inner, kv = config.heads * config.head_size, config.kv_heads * config.head_size
        self.q_proj = nn.Linear(config.hidden, inner, bias=config.qkv_bias, device="meta")
        self.k_proj = nn.Linear(config.hidden, kv, bias=config.qkv_bias, device="meta")
        self.v_proj = nn.Linear(config.hidden, kv, bias=config.qkv_bias, device="meta")
        self.o_proj = nn.Linear(inner, config.hidden, bias=config.output_bias, device="meta")
        if config.head_norms:
            self.q_norm, self.k_norm = Norm(config.head_size), Norm(config.head_size)


class Mlp(nn.Module):
    """The projections of the gated MLP."""

    def __init__(self, config: Config) -> None:
        super().__init__()
        self.gate_proj = nn.Linear(config.hidden, config.mlp, bias=config.mlp_bias, device="meta")
        self.up_proj = nn.Linear(config.hidden, config.mlp, bias=config.mlp_bias, device="meta")
        self.down_proj = nn.Linear(config.mlp, config.hidden, bias=config.mlp_bias, device="meta")


class Layer(nn.Module):
    def __init__(self, config: Config) -> None:
        super().__init__()
        self.input_layernorm, self.post_attention_layernorm = Norm(config.hidden), Norm(config.hidden)
        self.self_attn, self.mlp = Attention(config), Mlp(config)


class Decoder(nn.Module):
    def __init__(self, config: Config, embedding_kind: str) -> None:
        super().__init__()
        self.embed_tokens = StoredEmbedding(config.vocabulary, config.hidden, embedding_kind)
        self.layers = nn.ModuleList([Layer(config) for _ in range(config.layers)])
        self.norm = Norm(config.hidden)


class KvCache:
    """Keys and values of all tokens so far: per layer two tensors (1, kv_heads, capacity, head_size)."""

    def __init__(self, config: Config, capacity: int, dtype: torch.dtype, processes: int = 1) -> None:
        """`processes`: so many share the heads."""
        shape = (1, config.kv_heads // processes, capacity, config.head_size)
        self.keys = [torch.zeros(shape, dtype=dtype, device=DEVICE) for _ in range(config.layers)]
        self.values = [torch.zeros(shape, dtype=dtype, device=DEVICE) for _ in range(config.layers)]
        self.capacity = capacity
        self.length = 0

    def cut(self, length: int) -> None:
        """Forget all tokens from number `length` on."""
        self.length = min(self.length, length)


class LayerStep:
    """What one layer needs for a step, looked up once: its weights, and which operators serve it."""

    def __init__(self, layer: Layer, fused: bool, config: Config) -> None:
        attention, mlp = layer.self_attn, layer.mlp
        self.attention_norm = norm_of(layer.input_layernorm, config)
        self.mlp_norm = norm_of(layer.post_attention_layernorm, config)
        self.q, self.k, self.v = attention.q_proj, attention.k_proj, attention.v_proj
        self.gate, self.up = mlp.gate_proj, mlp.up_proj
        self.query, self.key, self.value, self.output, self.gated, self.upped, self.down = (
            product_of(part) for part in (self.q, self.k, self.v, attention.o_proj, self.gate, self.up, mlp.down_proj)
        )
        parts = (attention.q_norm, attention.k_norm) if hasattr(attention, "q_norm") else None
        self.head_norms = parts and tuple(norm_of(part, config) for part in parts)
        plain = self.head_norms is None and config.rope_divisors is None
        self.fused_qkv = fused and plain and has_fused_qkv(attention)
        self.fused_mlp = fused and has_fused_mlp(mlp)
        if self.fused_qkv:
            self.qkv_weights = (self.q.weight, self.k.weight, self.v.weight)
            self.qkv_biases = None if self.q.bias is None else (self.q.bias, self.k.bias, self.v.bias)
            self.qkv_types = (self.q.qtype, self.v.qtype)
        if self.fused_mlp:
            self.mlp_weights = (self.gate.weight, self.up.weight)
            self.mlp_sizes = (1, self.gate.in_features, self.gate.out_features, 0, self.gate.qtype)


def product_of(layer: nn.Module) -> Callable[[torch.Tensor], torch.Tensor]:
    """The quickest call that does what the layer's own does, for contiguous rows on XPU of any dtype.

    Of an output head that several processes share it gives this process's part.
    """
    own = layer.own if isinstance(layer, OUTPUT_SHARES) else layer
    if isinstance(layer, nn.Linear):  # dense, in a dtype of its own
        return lambda x: own(x.to(layer.weight.dtype)).to(x.dtype)
    quick = quick_product(layer)
    if isinstance(layer, INPUT_SHARES) and quick is not None:
        add_up = layer.link.sum
        return lambda x: add_up(quick(x))
    return quick or own


def quick_product(layer: nn.Module) -> Callable[[torch.Tensor], torch.Tensor] | None:
    """The product with a packed weight without looking at the layer again, None where more has to be done."""
    if (
        not isinstance(layer, PackedLinear)
        or layer.bias is not None
        or layer._forward_hooks
        or layer._forward_pre_hooks
    ):
        return None
    weight, qtype, general, forward_new = layer.weight, layer.qtype, layer.product, corvane.forward_new
    return lambda x: forward_new(x, weight, qtype, 1) if x.shape[0] == 1 else general(x)


def norm_of(module: Norm, config: Config) -> Callable[..., torch.Tensor]:
    """norm(x, dtype, delta=None): the root-mean-square norm of float rows, rounded to a type; delta is added to x first."""
    weight, epsilon, norm = module.weight.detach(), config.norm_epsilon, host_xpu.rms_norm

    def normed(x: torch.Tensor, dtype: torch.dtype, delta: torch.Tensor | None = None) -> torch.Tensor:
        if dtype != torch.float64:
            return norm(x, weight, epsilon, dtype, delta)
        if delta is not None:
            x += delta
        return norm(x, weight, epsilon, torch.float32).to(dtype)

    return normed


def has_fused_qkv(attention: Attention) -> bool:
    """Whether the formats of a layer's three projections fit the fused operator."""
    parts = (attention.q_proj, attention.k_proj, attention.v_proj)
    if not all(isinstance(part, PackedLinear) for part in parts):
        return False
    q, k, v = (part.format for part in parts)
    # The operator in iq2_xxs leaves biases out.
    served = FUSED_QKV_FORMATS if attention.q_proj.bias is None else BLOCK_FORMATS_FUSED
    return q == k and q in served and v == ("q2_k" if q == "iq2_xxs" else q)


def has_fused_mlp(mlp: Mlp) -> bool:
    """Whether the formats of gate and up fit the fused operator, which adds no bias."""
    gate, up = mlp.gate_proj, mlp.up_proj
    if not isinstance(gate, PackedLinear) or not isinstance(up, PackedLinear) or gate.bias is not None:
        return False
    return gate.format == up.format and gate.format in fused_mlp_formats()


class Llama(nn.Module):
    """A Llama model: `forward` takes token numbers and gives logits. It is made on the meta device, to be filled.

    `dtype`, of the linear layers' inputs and of the caches, is one of float, half, bfloat16 and double; the residual
    stream is float. `prompt_dtype` takes the place of `dtype` in the linear layers where a prompt of some length is read.
    `fused` and `many_rows` allow the fused operators and prompts of more than one row a call.
    """

    def __init__(self, config: Config, embedding_kind: str = "F32") -> None:
        super().__init__()
        self.config = config
        self.model = Decoder(config, embedding_kind)
        self.lm_head = nn.Linear(config.hidden, config.vocabulary, bias=False, device="meta")
        self.dtype, self.prompt_dtype, self.fused, self.many_rows = torch.float32, torch.bfloat16, True, True
        self.tokenizer: ChatTokenizer | None = None
        self.link: Link | None = None  # to the processes that share the model
        half = torch.arange(config.head_size // 2, dtype=torch.float64, device="cpu")
        self.frequencies = config.rope_base ** (-2 * half / config.head_size)
        if config.rope_divisors is not None:
            self.frequencies /= torch.tensor(config.rope_divisors, dtype=torch.float64, device="cpu")
        self.rotation = self.positions = torch.empty(0)
        self.steps: list[LayerStep] = []

    def prepare(
        self,
        dtype: torch.dtype = torch.float32,
        fused: bool = True,
        many_rows: bool = True,
        prompt_dtype: torch.dtype | None = None,
    ) -> Llama:
        """Bring the model to XPU and set how it runs; gives the model back. Dense linear layers get the dtype.

        `prompt_dtype` None: bfloat16, in which many rows of packed weights are fastest, for a model that has some where
        `dtype` is float or half; else `dtype`.
        """
        self.to(DEVICE)
        for module in self.modules():
            if isinstance(module, nn.Linear):
                module.to(dtype)
        self.dtype, self.fused, self.many_rows = dtype, fused, many_rows
        packed = any(isinstance(module, PackedLinear) for module in self.modules())
        narrowed = torch.bfloat16 if packed and dtype in (torch.float32, torch.float16) else dtype
        self.prompt_dtype = prompt_dtype or narrowed
        return self

    def new_cache(self, capacity: int) -> KvCache:
        """An empty cache with room for `capacity` tokens; looks at the layers anew, and prepares the rotary table."""
        self.steps = [LayerStep(layer, self.fused, self.config) for layer in self.model.layers]
        self.head, self.head_norm = product_of(self.lm_head), norm_of(self.model.norm, self.config)
        if self.positions.shape[0] < capacity:
            angles = torch.outer(torch.arange(capacity, dtype=torch.float64), self.frequencies)
            self.rotation = torch.stack([angles.cos(), angles.sin()]).float().to(DEVICE)  # (2, capacity, head_size / 2)
            self.positions = torch.arange(capacity, dtype=torch.int64).to(DEVICE)
        return KvCache(self.config, capacity, self.dtype, 1 if self.link is None else self.link.count)

    def forward(self, tokens: Sequence[int], cache: KvCache, last_only: bool = True) -> torch.Tensor:
        """Append tokens to the sequence; logits (1 or len(tokens), vocabulary) float32 for the token after each.

        ValueError: no tokens, or more than the cache has room for.
        """
        logits = self._advance(tokens, cache, last_only)
        return logits if self.link is None else self.link.gather(logits, self.lm_head.cut.sizes)

    def _advance(self, tokens: Sequence[int], cache: KvCache, last_only: bool) -> torch.Tensor:
        """forward() but for the logits of other processes."""
        if not tokens:
            raise ValueError("there are no tokens to read")
        if cache.length + len(tokens) > cache.capacity:
            raise ValueError(f"{cache.length} + {len(tokens)} tokens do not fit a cache of {cache.capacity}")
        rows = PROMPT_ROWS if self.many_rows else 1
        pieces = [self._layers(tokens[start : start + rows], cache) for start in range(0, len(tokens), rows)]
        return self._logits(pieces[-1][-1:]) if last_only else torch.cat([self._logits(hidden) for hidden in pieces])

    def likeliest(self, tokens: Sequence[int], cache: KvCache) -> int:
        """Append tokens to the sequence; the likeliest one after them, of equal ones the first. Errors as forward's.

        Processes that share the model compare their best candidates, where forward puts all logits together.
        """
        logits = self._advance(tokens, cache, True)[0]
        best = int(logits.argmax())
        if self.link is None:
            return best
        return self.link.best(float(logits[best]), self.lm_head.cut.first + best)

    def _logits(self, hidden: torch.Tensor) -> torch.Tensor:
        """Logits, those of this process where several share the output head."""
        return self.head(self.head_norm(hidden, self.dtype)).float()

    def _layers(self, tokens: Sequence[int], cache: KvCache) -> torch.Tensor:
        """The residual stream after all layers, (rows, hidden) float32."""
        hidden = self.model.embed_tokens(tokens)
        position = self.positions.narrow(0, cache.length, 1)
        dtype = self.dtype if len(tokens) < FEWEST_PROMPT_ROWS else self.prompt_dtype
        delta = None  # what the last part adds to the residual stream
        for i, step in enumerate(self.steps):
            x = step.attention_norm(hidden, dtype, delta)
            query, keys, values = self._project(i, step, x, cache, position)
            delta = step.output(attention(query, keys, values).to(dtype))
            x = step.mlp_norm(hidden, dtype, delta)
            delta = step.down(self._gated(step, x))
        hidden += delta
        cache.length += len(tokens)
        return hidden

    def _project(
        self, i: int, step: LayerStep, x: torch.Tensor, cache: KvCache, position: torch.Tensor
    ) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor]:
        """Query (1, heads, rows, head_size), and the keys and values of all tokens up to the new ones, written here."""
        rows, start, size = x.shape[0], cache.length, self.config.head_size
        if rows == 1 and step.fused_qkv:
            caches = cache.keys[i].narrow(2, 0, start), cache.values[i].narrow(2, 0, start)
            if step.qkv_biases is None:
                return corvane.forward_qkv(
                    x, *step.qkv_weights, position, *caches, *step.qkv_types, start, size, self.config.rope_base
                )
            biases = [bias.to(self.dtype) for bias in step.qkv_biases]
            return corvane.forward_qkv_bias(
                x, *step.qkv_weights, *biases, position, *caches, *step.qkv_types, start, size, self.config.rope_base
            )
        heads = (1, rows, -1, size)
        rotation = self.rotation.narrow(1, start, rows)
        query, key = step.query(x).view(heads), step.key(x).view(heads)
        if step.head_norms is not None:
            query, key = (norm(part.float(), x.dtype) for norm, part in zip(step.head_norms, (query, key), strict=True))
        query = rotate(query.transpose(1, 2), rotation)
        cache.keys[i].narrow(2, start, rows).copy_(rotate(key.transpose(1, 2), rotation))
        cache.values[i].narrow(2, start, rows).copy_(step.value(x).view(heads).transpose(1, 2))
        return query, cache.keys[i].narrow(2, 0, start + rows), cache.values[i].narrow(2, 0, start + rows)

    def _gated(self, step: LayerStep, x: torch.Tensor) -> torch.Tensor:
        """silu(x gate^T) * (x up^T), (rows, mlp)."""
        if x.shape[0] == 1 and step.fused_mlp:
            return corvane.mlp_forward_xpu(x, *step.mlp_weights, *step.mlp_sizes)
        return (silu(step.gated(x).float()) * step.upped(x).float()).to(x.dtype)


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
    if rows == 1 and head_size % 16 == 0 and query.dtype == keys.dtype != torch.float64:
        return host_xpu.row_attention(query, keys, values)
    grouped = query.reshape(kv_heads, heads // kv_heads * rows, head_size).float()
    keys, values = keys.squeeze(0).float(), values.squeeze(0).float()
    # scores: (kv_heads, heads / kv_heads * rows, length). Not baddbmm with a beta of 0: older CPU kernels multiply what it
    # is to ignore by 0, which leaves the NaNs of fresh memory.
    scores = torch.bmm(grouped, keys.transpose(1, 2)).mul_(head_size**-0.5)
    if rows == 1:
        return torch.bmm(scores.softmax(dim=2), values).view(1, heads * head_size)
    seen = torch.ones(rows, length, dtype=torch.bool, device=DEVICE).tril(length - rows)
    scores = scores.view(heads, rows, length).masked_fill(~seen, float("-inf")).view(scores.shape)
    mixed = torch.bmm(scores.softmax(dim=2), values)
    return mixed.view(heads, rows, head_size).transpose(0, 1).reshape(rows, heads * head_size)
