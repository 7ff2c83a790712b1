"""Generating text and measuring a model: greedy or sampled tokens one by one, speeds, perplexity of a text."""

from __future__ import annotations

import math
import time
from collections.abc import Iterator, Sequence
from dataclasses import dataclass

import torch


from .device import host_xpu
from .llama import KvCache, Llama


@dataclass
class Speed:
    """Tokens and seconds of the two phases of a run."""

    prefill_tokens: int = 0
    prefill_seconds: float = 0.0
    decode_tokens: int = 0
    decode_seconds: float = 0.0

    @property
    def prefill(self) -> float:
        """Prompt tokens per second."""
        return self.prefill_tokens / self.prefill_seconds if self.prefill_seconds else 0.0

    @property
    def decode(self) -> float:
        """Generated tokens per second; the first one comes from the prompt's logits and is not counted."""
        return self.decode_tokens / self.decode_seconds if self.decode_seconds else 0.0


def clock() -> float:
    """Seconds, read after all submitted work has run."""
    host_xpu.synchronize()
    return time.perf_counter()


def next_token(
    model: Llama, tokens: Sequence[int], cache: KvCache, temperature: float, generator: torch.Generator
) -> int:
    """Append tokens to the sequence and choose the next one, as choose() does."""
    if temperature <= 0:
        return model.likeliest(tokens, cache)
    return choose(model.forward(tokens, cache), temperature, generator)


def choose(logits: torch.Tensor, temperature: float, generator: torch.Generator) -> int:
    """The next token from logits (1, vocabulary): the likeliest at temperature 0, else sampled."""
    row = logits[0].cpu()
    if temperature <= 0:
        return int(row.argmax())
    return int(torch.multinomial((row / temperature).softmax(dim=0), 1, generator=generator))


def generate(
    model: Llama,
    prompt: Sequence[int],
    count: int,
    ends: set[int],
    speed: Speed,
    temperature: float = 0.0,
    seed: int = 0,
) -> Iterator[int]:
    """Up to `count` tokens after the prompt, ended early by a token of `ends`; fills in `speed` as it goes."""
    if not prompt:
        raise ValueError("the prompt has no tokens")
    generator = torch.Generator().manual_seed(seed)
    cache = model.new_cache(len(prompt) + count)
    start = clock()
    token = next_token(model, prompt, cache, temperature, generator)
    speed.prefill_tokens += len(prompt)
    speed.prefill_seconds += clock() - start
    for step in range(count):
        if token in ends:
            return
        yield token
        if step + 1 < count:
            start = clock()
            token = next_token(model, [token], cache, temperature, generator)
            speed.decode_tokens += 1
            speed.decode_seconds += clock() - start


def perplexity(model: Llama, tokens: Sequence[int], speed: Speed) -> float:
    """exp of the mean surprise at each token after the first, fed one by one, the way generation runs."""
    cache = model.new_cache(len(tokens))
    surprise = 0.0
    start = clock()
    for token, following in zip(tokens[:-1], tokens[1:], strict=True):
        logits = model.forward([token], cache)[0]
        surprise += float(logits.logsumexp(dim=0) - logits[following])
    speed.decode_tokens += len(tokens) - 1
    speed.decode_seconds += clock() - start
    return math.exp(surprise / (len(tokens) - 1))
