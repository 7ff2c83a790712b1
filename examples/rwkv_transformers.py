"""A block of transformers' RWKV-4 with packed projections, and rwkv_linear_attention_v4 in place of its own recurrence.

The same tokens go through the block twice, a prompt and then one token behind its state, and the results are compared.
It needs a transformers that runs on the installed PyTorch. Run it with

    PYTHONPATH=build/python:python python examples/rwkv_transformers.py
"""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import torch
from transformers.models.rwkv import modeling_rwkv

import corvane

from corvane_runtime import quantize_

State = list[torch.Tensor] | None


def linear_attention(
    time_decay: torch.Tensor,
    time_first: torch.Tensor,
    key: torch.Tensor,
    value: torch.Tensor,
    state: State = None,
    return_state: bool = False,
) -> tuple[torch.Tensor, State]:
    """What modeling_rwkv.rwkv_linear_attention computes: key and value (batch, tokens, hidden), states (batch, hidden)."""
    if state is None:
        num, den = (torch.zeros_like(key[:, 0], dtype=torch.float32) for _ in range(2))
        largest = torch.full_like(num, -1e38)
    else:
        num, den, largest = (part.contiguous() for part in state)
    means = corvane.rwkv_linear_attention_v4(-torch.exp(time_decay), time_first, key, value, num, den, largest)
    return means, [num, den, largest] if return_state or state is not None else None


@contextmanager
def own_attention() -> Iterator[None]:
    """Within, blocks of transformers call linear_attention."""
    replaced = modeling_rwkv.rwkv_linear_attention
    modeling_rwkv.rwkv_linear_attention = linear_attention
    try:
        yield
    finally:
        modeling_rwkv.rwkv_linear_attention = replaced


def random_block(hidden: int, format: str) -> modeling_rwkv.RwkvBlock:
    """The first block of a random model, its projections packed, on XPU."""
    config = modeling_rwkv.RwkvConfig(vocab_size=8, hidden_size=hidden, num_hidden_layers=2, context_length=64)
    block = modeling_rwkv.RwkvModel(config).blocks[0].requires_grad_(False).eval()
    return quantize_(block, format).to("xpu")


def run(block: modeling_rwkv.RwkvBlock, x: torch.Tensor) -> list[torch.Tensor]:
    """The block's output for all tokens but the last, then for the last, and the states behind, all on the CPU."""
    # Per layer the last inputs of both halves, and numerator, denominator and largest exponent: (batch, hidden, layers).
    state = [torch.zeros(x.shape[0], x.shape[2], 2).to("xpu") for _ in range(5)]
    state[4] -= 1e30
    with torch.no_grad():
        outputs = [block(part.contiguous(), state=state, use_cache=True)[0] for part in (x[:, :-1], x[:, -1:])]
    return [tensor.cpu() for tensor in (*outputs, *state)]


def largest_difference(block: modeling_rwkv.RwkvBlock, x: torch.Tensor) -> tuple[float, float]:
    """How far outputs and states differ between transformers' recurrence and the operator, relative to the largest."""
    expected = run(block, x)
    with own_attention():
        found = run(block, x)
    apart = [
        ((a - b).abs().max() / b.abs().max().clamp(min=1e-30)).item() for a, b in zip(found, expected, strict=True)
    ]
    return max(apart[:2]), max(apart[2:])


def main() -> None:
    torch.manual_seed(0)
    x = torch.randn(2, 33, 256).to("xpu")
    output, state = largest_difference(random_block(256, "q8_0"), x)
    print("RWKV-4 block of transformers, its own recurrence against the operator's")
    print(f"  largest difference {output:.1e} of the outputs, {state:.1e} of the states, relative to the largest")


if __name__ == "__main__":
    main()
