"""Time mixing of an RWKV layer, version 4 and version 5: a random sequence in one call and in two halves, compared.

The state that a layer hands from one call to the next is all that it remembers, so where a sequence is cut makes no
difference. Run it with

    PYTHONPATH=build/python /usr/bin/python3 examples/rwkv_layer.py
"""

from __future__ import annotations

import torch
from torch.nn.functional import group_norm, linear, silu

import corvane

HEAD = 64  # the head size of version 5


def random_matrix(size: int) -> torch.Tensor:
    """A weight (size, size) that keeps the magnitude of what it multiplies."""
    return (torch.randn(size, size) / size**0.5).to("xpu")


def shifted_by_one(x: torch.Tensor, last: torch.Tensor) -> torch.Tensor:
    """Each token's predecessor: x (batch, tokens, hidden), behind `last` (batch, hidden), the token before the call."""
    return torch.cat([last.unsqueeze(1), x[:, :-1]], dim=1)


class TimeMixing4:
    """Version 4: every channel keeps a weighted mean of the values so far."""

    def __init__(self, hidden: int) -> None:
        self.hidden = hidden
        self.mix = torch.rand(3, 1, hidden).to("xpu")  # for key, value, receptance
        self.time_decay = (-torch.rand(hidden).exp()).to("xpu")
        self.time_first = torch.randn(hidden).to("xpu")
        self.key, self.value, self.receptance, self.output = (random_matrix(hidden) for _ in range(4))

    def new_state(self, batch: int) -> list[torch.Tensor]:
        """The last token, and numerator, denominator and largest exponent of the means, each (batch, hidden)."""
        state = [torch.zeros(batch, self.hidden, device="xpu") for _ in range(4)]
        state[3].fill_(-1e38)
        return state

    def __call__(self, x: torch.Tensor, state: list[torch.Tensor]) -> torch.Tensor:
        """x (batch, tokens, hidden) to the same; `state` is left as the last token leaves it."""
        last, num, den, largest = state
        mixed = corvane.rwkv_time_shift(x, shifted_by_one(x, last), self.mix)
        key, value = linear(mixed[0], self.key), linear(mixed[1], self.value)
        receptance = torch.sigmoid(linear(mixed[2], self.receptance))
        means = corvane.rwkv_linear_attention_v4(self.time_decay, self.time_first, key, value, num, den, largest)
        last.copy_(x[:, -1])
        return linear(receptance * means, self.output)


class TimeMixing5:
    """Version 5: every head keeps a matrix that its keys write values into and its receptances read."""

    def __init__(self, hidden: int) -> None:
        self.hidden, self.heads = hidden, hidden // HEAD
        self.mix = torch.rand(4, 1, hidden).to("xpu")  # for key, value, receptance, gate
        self.time_decay = torch.exp(-torch.rand(self.heads, HEAD)).to("xpu")
        self.time_first = torch.rand(self.heads, HEAD).to("xpu")
        self.projections = [random_matrix(hidden) for _ in range(4)]
        self.output = random_matrix(hidden)

    def new_state(self, batch: int) -> list[torch.Tensor]:
        """The last token (batch, hidden), and a matrix for each head (batch, heads, 64, 64)."""
        last = torch.zeros(batch, self.hidden, device="xpu")
        return [last, torch.zeros(batch, self.heads, HEAD, HEAD, device="xpu")]

    def __call__(self, x: torch.Tensor, state: list[torch.Tensor]) -> torch.Tensor:
        """x (batch, tokens, hidden) to the same; `state` is left as the last token leaves it."""
        last, matrices = state
        batch, tokens, hidden = x.shape
        mixed = corvane.rwkv_time_shift(x, shifted_by_one(x, last), self.mix)
        key, value, receptance, gate = (linear(m, w) for m, w in zip(mixed, self.projections))
        # Heads in front of tokens is what the operator takes; a view does it.
        heads = [t.view(batch, tokens, self.heads, HEAD).transpose(1, 2) for t in (receptance, key, value)]
        read = corvane.rwkv_linear_attention_v5(self.time_decay, self.time_first, *heads, matrices)
        last.copy_(x[:, -1])
        normal = group_norm(read.reshape(batch * tokens, hidden), self.heads).view(batch, tokens, hidden)
        return linear(normal * silu(gate), self.output)


def largest_difference(layer: TimeMixing4 | TimeMixing5, x: torch.Tensor) -> tuple[float, float]:
    """How far outputs, and the states behind them, differ between one call over x and two over its halves."""
    whole_state, state = layer.new_state(x.shape[0]), layer.new_state(x.shape[0])
    whole = layer(x, whole_state)
    halves = torch.cat([layer(half.contiguous(), state) for half in x.chunk(2, dim=1)], dim=1)
    of_states = max((a - b).abs().max().item() for a, b in zip(whole_state, state))
    return (whole - halves).abs().max().item(), of_states


def main() -> None:
    torch.manual_seed(0)
    x = torch.randn(2, 48, 256).to("xpu")
    for name, layer in (("v4", TimeMixing4(256)), ("v5", TimeMixing5(256))):
        output, state = largest_difference(layer, x)
        size = layer(x, layer.new_state(x.shape[0])).abs().max().item()
        print(f"RWKV {name}: {x.shape[1]} tokens in one call and in two halves, outputs up to {size:.2f}")
        print(f"  largest difference {output:.1e} of the outputs, {state:.1e} of the states")


if __name__ == "__main__":
    main()
