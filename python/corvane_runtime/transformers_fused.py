"""The fused operators inside models of transformers: one launch for the gated half of an MLP, one for query, key and value."""

from __future__ import annotations

import sys

import torch
from torch import nn

from .device import corvane
from .linear import PackedLinear, is_compiling
from .llama.model import has_fused_mlp, has_fused_qkv

ACTIVATIONS = {"silu": 0, "swish": 0, "gelu_pytorch_tanh": 1}  # as mlp_forward_xpu numbers them
# Modules that compute what the operators do: act(gate(x)) * up(x), and attention with half-split rotation.
GATED = ("LlamaMLP", "MistralMLP", "Qwen2MLP", "Qwen3MLP", "GemmaMLP")
PROJECTING = ("LlamaAttention", "MistralAttention", "Qwen2Attention")


class Fused(nn.Module):
    """A module that takes a shorter way for one row, and for all else the way of the module that it stands for."""

    kind: type[nn.Module]

    @classmethod
    def over(cls, module: nn.Module) -> Fused:
        """It has the module's own parameters, children and attributes, by the same names."""
        made = cls()
        made.__dict__.update(module.__dict__)
        made.kind = type(module)
        return made

    def extra_repr(self) -> str:
        return self.kind.__name__


class FusedMlp(Fused):
    """A gated MLP."""

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        gate, up = self.gate_proj, self.up_proj
        if x.numel() != gate.in_features or x.device.type != "xpu" or is_watched(gate) or is_watched(up):
            return self.kind.forward(self, x)
        operators = torch.ops.corvane if is_compiling() else corvane
        sizes = 1, gate.in_features, gate.out_features, ACTIVATIONS[self.config.hidden_act], gate.qtype
        gated = operators.mlp_forward_xpu(x.reshape(1, -1), gate.weight, up.weight, *sizes)
        return self.down_proj(gated.view(*x.shape[:-1], -1))


class FusedAttention(Fused):
    """Attention over a static cache, into which the operator writes key and value."""

    def forward(
        self,
        hidden_states: torch.Tensor,
        position_embeddings: tuple[torch.Tensor, torch.Tensor] | None = None,
        attention_mask: torch.Tensor | None = None,
        past_key_values: object = None,
        **kwargs: object,
    ) -> tuple[torch.Tensor, torch.Tensor | None]:
        cache = self.cache_with_room(hidden_states, past_key_values, kwargs.get("position_ids"))
        if cache is None:
            return self.kind.forward(
                self, hidden_states, position_embeddings, attention_mask, past_key_values=past_key_values, **kwargs
            )
        query = self.projected(hidden_states, cache, kwargs["position_ids"])
        from transformers.modeling_utils import ALL_ATTENTION_FUNCTIONS

        plain = sys.modules[self.kind.__module__].eager_attention_forward
        attend = ALL_ATTENTION_FUNCTIONS.get_interface(self.config._attn_implementation, plain)
        mixed, weights = attend(
            self, query, cache.keys, cache.values, attention_mask, dropout=0.0, scaling=self.scaling, **kwargs
        )
        return self.o_proj(mixed.reshape(*hidden_states.shape[:-1], -1).contiguous()), weights

    def cache_with_room(self, x: torch.Tensor, caches: object, position_ids: object) -> object:
        """The layer's static cache, where the operator can serve the call, else None."""
        from transformers.cache_utils import StaticLayer

        if caches is None or position_ids is None or x.shape[:-1] != (1, 1) or x.device.type != "xpu":
            return None
        cache = caches.layers[self.layer_idx] if self.layer_idx < len(caches.layers) else None
        if type(cache) is not StaticLayer or not cache.is_initialized or is_compiling() or self.training:
            return None
        if any(is_watched(part) for part in (self.q_proj, self.k_proj, self.v_proj)):
            return None
        fits = cache.keys.shape[0] == 1 and cache.keys.dtype == x.dtype
        return cache if fits and int(cache.cumulative_length) < cache.max_cache_len else None

    def projected(self, x: torch.Tensor, cache: object, position_ids: torch.Tensor) -> torch.Tensor:
        """The rotated query (1, heads, 1, head_dim); key and value go to the cache's next place."""
        q, k, v = self.q_proj, self.k_proj, self.v_proj
        place = int(cache.cumulative_length)
        parts = [position_ids.reshape(-1), cache.keys.narrow(2, 0, place), cache.values.narrow(2, 0, place)]
        parts += [q.qtype, v.qtype, place, self.head_dim, rope_base(self.config)]
        weights = x.reshape(1, -1), q.weight, k.weight, v.weight
        if q.bias is None:
            query = corvane.forward_qkv(*weights, *parts)[0]
        else:
            query = corvane.forward_qkv_bias(*weights, *(part.bias.to(x.dtype) for part in (q, k, v)), *parts)[0]
        cache.cumulative_length.add_(1)
        return query


def is_watched(layer: PackedLinear) -> bool:
    """Whether hooks want to see what goes through a layer."""
    return bool(layer._forward_pre_hooks or layer._forward_hooks)


def rope_base(config: object) -> float | None:
    """The base of unscaled rotary frequencies over whole heads, None for others."""
    rope = getattr(config, "rope_parameters", None) or {}
    whole = rope.get("rope_type") == "default" and rope.get("partial_rotary_factor", 1.0) == 1.0
    return float(rope["rope_theta"]) if whole and "rope_theta" in rope else None


def fuse_(model: nn.Module) -> nn.Module:
    """Let a packed model of transformers use the fused operators for one row; gives the model back.

    Gated MLPs whose gate and up are packed in the same of q4_0, fp4, fp6 and fp8_e5m2, and attention whose projections
    are, over a static cache, in Llama, Mistral and Qwen2 (MLPs also in Qwen3 and Gemma). All else stays as it is, and
    so do the names of parameters. CorvaneConfig(fused=False) keeps from_pretrained from calling it.
    """
    for parent in list(model.modules()):
        for name, module in list(parent.named_children()):
            kind = fused_kind(module)
            if kind is not None:
                setattr(parent, name, kind.over(module))
    return model


def fused_kind(module: nn.Module) -> type[Fused] | None:
    """What may stand for a module."""
    if not type(module).__module__.startswith("transformers.models."):
        return None
    name = type(module).__name__
    if name in GATED and has_fused_mlp(module) and module.config.hidden_act in ACTIVATIONS:
        return FusedMlp
    if name in PROJECTING and has_fused_qkv(module) and rope_base(module.config) is not None:
        biases = {part.bias is None for part in (module.q_proj, module.k_proj, module.v_proj)}
        return FusedAttention if len(biases) == 1 else None
    return None
