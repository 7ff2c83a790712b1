"""Measures which inputs of each linear layer carry weight, so that a packer spends its precision there.

The dense model reads a sample text, and the mean square of every input element is kept: the error of a product is the
weight's error times the input, so a column's squared error counts by that. `scripts/demo.sh --perplexity`, with and
without --plain-rounding, shows what it brings. (Dropped: feeding the error of each block back into the columns after
it by the inputs' second moments. Full moments of a sample this short made the result worse; with the off-diagonal ones
shrunk to a tenth or a third it was a little better than without, for a square matrix per layer to keep.)
"""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from zipfile import BadZipFile

import numpy as np
import torch

from .gguf_model import GgufModel, StoredTensor
from .linear import DenseLinear, load_weights
from .model import Llama

SAMPLE_TEXT = Path(__file__).parents[1] / "data" / "calibration.txt"
PIECE = 256  # tokens fed at once; bounds the attention scores

Importance = dict[str, np.ndarray]  # layer name to the mean squares of its input, float32 (state_size,)


class ObservedLinear(DenseLinear):
    """A dense linear layer that adds up the squares of its input."""

    def __init__(self, stored: StoredTensor) -> None:
        super().__init__(stored.dense(), torch.float32)
        self.name = stored.name
        self.squares = np.zeros(self.state_size)

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        self.squares += x.cpu().double().square().sum(dim=0).numpy()
        return super().__call__(x)


def measure_importance(model: GgufModel, text: str, progress: Callable[[int], None] | None = None) -> Importance:
    """Importance of each linear layer's columns from the dense model reading `text`; progress is told of tokens."""
    weights = load_weights(model, ObservedLinear)
    llama = Llama(model, weights, torch.float32, fused=False)
    tokens = model.tokenizer.encode(text)
    for start in range(0, len(tokens), PIECE):
        piece = tokens[start : start + PIECE]
        llama.forward(piece, llama.new_cache(len(piece)), last_only=False)
        if progress is not None:
            progress(len(piece))
    return {linear.name: (linear.squares / len(tokens)).astype(np.float32) for linear in weights.all()}


def load_importance(model: GgufModel, cache: Path, progress: Callable[[int], None] | None = None) -> Importance:
    """Importance under the shipped sample text, kept in the file `cache` (.npz) for the next run."""
    text = SAMPLE_TEXT.read_text()
    source = f"{model.path.stat().st_size} {model.path.stat().st_mtime_ns} {text}"
    try:
        with np.load(cache) as stored:
            if str(stored["source"]) == source:
                return {name: stored[name] for name in stored.files if name != "source"}
    except (OSError, ValueError, KeyError, BadZipFile):
        pass  # missing, damaged or of another model: measured again
    importance = measure_importance(model, text, progress)
    cache.parent.mkdir(parents=True, exist_ok=True)
    np.savez(cache, source=np.array(source), **importance)
    return importance
