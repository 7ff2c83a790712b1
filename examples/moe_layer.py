"""A mixture-of-experts layer with packed experts: every token goes to two of eight small networks.

`get_moe_indexes` turns the router's choice around, from experts of a token to tokens of an expert, so that each packed
expert runs once, over all its tokens. Run it with

    PYTHONPATH=build/python:python .venv/bin/python examples/moe_layer.py
"""

from __future__ import annotations

import copy

import torch
from corvane_runtime import PackedLinear, quantize_, unpack
from torch import nn
from torch.nn.functional import linear, silu

import corvane


class Expert(nn.Module):
    """A gated network: down(silu(gate(x)) * up(x))."""

    def __init__(self, hidden: int, inner: int) -> None:
        super().__init__()
        self.gate, self.up = nn.Linear(hidden, inner, bias=False), nn.Linear(hidden, inner, bias=False)
        self.down = nn.Linear(inner, hidden, bias=False)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.down(silu(self.gate(x)) * self.up(x))


def unpacked(expert: Expert) -> Expert:
    """The same network with dense weights of the values that the packed ones have."""
    dense = copy.deepcopy(expert)
    for name, layer in list(dense.named_children()):
        if isinstance(layer, PackedLinear):
            same = nn.Linear(layer.in_features, layer.out_features, bias=False)
            same.weight.data = unpack(layer.weight, layer.format, layer.out_features, layer.in_features)
            setattr(dense, name, same.to("xpu"))
    return dense


class MoeLayer(nn.Module):
    """Experts, and a router that weighs them for each token."""

    def __init__(self, hidden: int, inner: int, n_experts: int, n_selected: int) -> None:
        super().__init__()
        self.router = nn.Parameter(torch.randn(n_experts, hidden))
        self.experts = nn.ModuleList([Expert(hidden, inner) for _ in range(n_experts)])
        self.n_selected = n_selected

    def route(self, x: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
        """Weight and number of the experts chosen for each token, both (tokens, n_selected)."""
        weights, chosen = torch.softmax(linear(x, self.router), dim=-1).topk(self.n_selected, dim=-1)
        return weights / weights.sum(-1, keepdim=True), chosen

    def forward(self, x: torch.Tensor) -> torch.Tensor:
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
        dense = [unpacked(expert) for expert in self.experts]
        result = torch.zeros_like(x)
        for token, experts in enumerate(chosen.tolist()):
            for position, expert in enumerate(experts):
                row = dense[expert](x[token : token + 1])
                result[token] += weights[token, position] * row[0]
        return result


def packed_layer(hidden: int, inner: int, n_experts: int, n_selected: int) -> MoeLayer:
    """A layer with random weights, its experts packed."""
    torch.manual_seed(0)
    return quantize_(MoeLayer(hidden, inner, n_experts, n_selected), "q4_0").to("xpu").requires_grad_(False)


def main() -> None:
    layer = packed_layer(hidden=256, inner=512, n_experts=8, n_selected=2)
    x = torch.randn(40, 256, generator=torch.Generator().manual_seed(0)).to("xpu")
    _, tokens = corvane.get_moe_indexes(layer.route(x)[1].int().cpu(), len(layer.experts))
    for expert, its_tokens in enumerate(tokens):
        print(f"expert {expert}: {len(its_tokens):2d} tokens, {its_tokens}")
    packed, dense = layer(x), layer.token_by_token(x)
    difference = ((packed - dense).norm() / dense.norm()).item()
    print(f"packed experts over their tokens and dense ones token by token differ by {difference:.1e} of the result")


if __name__ == "__main__":
    main()
