"""A mixture-of-experts layer with packed experts: every token goes to two of eight small networks.

`get_moe_indexes` turns the router's choice around, from experts of a token to tokens of an expert, so that each packed
expert runs once, over all its tokens. Run it with

    PYTHONPATH=build/python /usr/bin/python3 examples/moe_layer.py
"""

from __future__ import annotations

import numpy as np
import torch
from packers import FORMATS
from torch.nn.functional import linear, silu

import corvane

FORMAT = FORMATS["q4_0"]


class PackedLinear:
    """y = x W^T, W packed; `dense` is W as the packed bytes have it, for comparison."""

    def __init__(self, output_size: int, state_size: int, rng: np.random.Generator) -> None:
        weight = rng.normal(0, state_size**-0.5, (output_size, state_size)).astype(np.float32)
        packed = FORMAT.pack(weight)
        self.packed = torch.from_numpy(packed).to("xpu")
        self.dense = torch.from_numpy(FORMAT.unpack(packed, output_size, state_size)).to("xpu")

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        return corvane.forward_new(x, self.packed, FORMAT.qtype, x.shape[0])


class Expert:
    """A gated network: down(silu(gate(x)) * up(x))."""

    def __init__(self, hidden: int, inner: int, rng: np.random.Generator) -> None:
        self.gate, self.up = PackedLinear(inner, hidden, rng), PackedLinear(inner, hidden, rng)
        self.down = PackedLinear(hidden, inner, rng)

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        return self.down(silu(self.gate(x)) * self.up(x))

    def dense(self, x: torch.Tensor) -> torch.Tensor:
        """The same with the framework's product on dense weights."""
        return linear(silu(linear(x, self.gate.dense)) * linear(x, self.up.dense), self.down.dense)


class MoeLayer:
    """Experts, and a router that weighs them for each token."""

    def __init__(self, hidden: int, inner: int, n_experts: int, n_selected: int) -> None:
        rng = np.random.default_rng(0)
        self.router = torch.from_numpy(rng.normal(0, 1, (n_experts, hidden)).astype(np.float32)).to("xpu")
        self.experts = [Expert(hidden, inner, rng) for _ in range(n_experts)]
        self.n_selected = n_selected

    def route(self, x: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
        """Weight and number of the experts chosen for each token, both (tokens, n_selected)."""
        weights, chosen = torch.softmax(linear(x, self.router), dim=-1).topk(self.n_selected, dim=-1)
        return weights / weights.sum(-1, keepdim=True), chosen

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        """x (tokens, hidden) to the same."""
        weights, chosen = self.route(x)
        positions, tokens = corvane.get_moe_indexes(chosen.int().cpu(), len(self.experts))
        result = torch.zeros_like(x)
        for expert, its_positions, its_tokens in zip(self.experts, positions, tokens):
            if not its_tokens:
                continue
            rows, columns = torch.tensor(its_tokens, device="xpu"), torch.tensor(its_positions, device="xpu")
            result.index_add_(0, rows, expert(x[rows]) * weights[rows, columns].unsqueeze(-1))
        return result

    def token_by_token(self, x: torch.Tensor) -> torch.Tensor:
        """The same by its definition, with dense experts."""
        weights, chosen = self.route(x)
        result = torch.zeros_like(x)
        for token, experts in enumerate(chosen.tolist()):
            for position, expert in enumerate(experts):
                row = self.experts[expert].dense(x[token : token + 1])
                result[token] += weights[token, position] * row[0]
        return result


def main() -> None:
    layer = MoeLayer(hidden=256, inner=512, n_experts=8, n_selected=2)
    x = torch.randn(40, 256, generator=torch.Generator().manual_seed(0)).to("xpu")
    _, tokens = corvane.get_moe_indexes(layer.route(x)[1].int().cpu(), len(layer.experts))
    for expert, its_tokens in enumerate(tokens):
        print(f"expert {expert}: {len(its_tokens):2d} tokens, {its_tokens}")
    packed, dense = layer(x), layer.token_by_token(x)
    difference = ((packed - dense).norm() / dense.norm()).item()
    print(f"packed experts over their tokens and dense ones token by token differ by {difference:.1e} of the result")


if __name__ == "__main__":
    main()
