"""One decoding step of a layer's weights: the fused operators, and what a user would call without them."""

from __future__ import annotations

import corvane
import torch
from reference.random_weights import random_weight

HEAD = 128
LENGTH = 32  # tokens in the caches


class Layer:
    """q4_0 weights of a layer in device memory, and a token's way through them."""

    def __init__(self, seed: int, dtype: torch.dtype, k: int = 4096, kv: int = 1024, mlp: int = 11008):
        def packed(rows: int) -> torch.Tensor:
            return torch.from_numpy(random_weight("q4_0", rows, k, seed)).to("xpu")

        self.k, self.kv, self.mlp = k, kv, mlp
        self.q, self.k_weight, self.v = packed(k), packed(kv), packed(kv)
        self.gate, self.up = packed(mlp), packed(mlp)
        self.weights = (self.q, self.k_weight, self.v, self.gate, self.up)
        self.bytes = sum(weight.numel() for weight in self.weights)
        self.caches = [torch.zeros(1, kv // HEAD, 2 * LENGTH, HEAD, dtype=dtype, device="xpu") for _ in range(2)]
        self.position = torch.tensor([[LENGTH]], device="xpu")
        angles = LENGTH * 10000.0 ** (-torch.arange(HEAD // 2) / (HEAD // 2))
        self.cosine, self.sine = angles.cos().to("xpu"), angles.sin().to("xpu")

    def fused(self, x: torch.Tensor) -> list[torch.Tensor]:
        views = [cache.narrow(2, 0, LENGTH) for cache in self.caches]
        query, key, value = corvane.forward_qkv(
            x, self.q, self.k_weight, self.v, self.position, *views,
            src_0_qtype=2, src_0_vtype=2, kv_seq_len=LENGTH, head_size=HEAD,
        )  # fmt: skip
        return [query, key, value, corvane.mlp_forward_xpu(x, self.gate, self.up, 1, self.k, self.mlp, 0, 2)]

    def separate(self, x: torch.Tensor) -> list[torch.Tensor]:
        """One-row calls, then the framework's operators for rotation, caches, activation and gate."""
        query = self.rotated(corvane.forward_new(x, self.q, 2, 1).view(1, -1, 1, HEAD))
        key = self.rotated(corvane.forward_new(x, self.k_weight, 2, 1).view(1, -1, 1, HEAD))
        value = corvane.forward_new(x, self.v, 2, 1).view(1, -1, 1, HEAD)
        for cache, new in zip(self.caches, (key, value)):
            cache.narrow(2, LENGTH, 1).copy_(new)
        gate = torch.nn.functional.silu(corvane.forward_new(x, self.gate, 2, 1))
        mlp = gate.mul_(corvane.forward_new(x, self.up, 2, 1))
        return [query, *(cache.narrow(2, 0, LENGTH + 1) for cache in self.caches), mlp]

    def rotated(self, x: torch.Tensor) -> torch.Tensor:
        a, b = x[..., : HEAD // 2].float(), x[..., HEAD // 2 :].float()
        return torch.cat([self.cosine * a - self.sine * b, self.cosine * b + self.sine * a], dim=3).to(x.dtype)
