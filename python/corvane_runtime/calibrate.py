"""Measures which inputs of each linear layer carry weight, so that a packer spends its precision there.

The dense model reads a sample text, and the mean square of every input element is kept: the error of a product is the
weight's error times the input, so a column's squared error counts by that. (Dropped: feeding the error of each block
back into the columns after it by the inputs' second moments. Full moments of a sample this short made the result worse;
with the off-diagonal ones shrunk to a tenth or a third it was a little better than without, for a square matrix per
layer to keep.)
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from zipfile import BadZipFile

import numpy as np
import torch
from torch import nn

from .formats import Progress
from .linear import PackedLinear
from .llama import Llama

SAMPLE_TEXT = Path(__file__).parent / "data" / "calibration.txt"
PIECE = 256  # tokens fed at once; bounds the attention scores

Importance = dict[str, np.ndarray]  # name of a layer to the mean squares of its input, float32 (in_features,)


@contextmanager
def observed_inputs(model: nn.Module) -> Iterator[Importance]:
    """Within, whatever runs through the model's linear layers is added up; the importance is there at the end."""
    squares: dict[str, torch.Tensor] = {}
    rows: dict[str, int] = {}
    importance: Importance = {}

    def observer(name: str) -> Callable[[nn.Module, tuple], None]:
        def observe(module: nn.Module, inputs: tuple) -> None:
            x = inputs[0].detach().reshape(-1, inputs[0].shape[-1]).cpu().double()
            squares[name] = squares.get(name, 0) + x.square().sum(dim=0)
            rows[name] = rows.get(name, 0) + x.shape[0]

        return observe

    layers = [(n, m) for n, m in model.named_modules() if isinstance(m, (nn.Linear, PackedLinear))]
    hooks = [module.register_forward_pre_hook(observer(name)) for name, module in layers]
    try:
        yield importance
    finally:
        for hook in hooks:
            hook.remove()
    importance.update({name: (total / rows[name]).float().numpy() for name, total in squares.items() if rows[name]})


def measure_importance(
    model: nn.Module,
    text: str | None = None,
    encode: Callable[[str], list[int]] | None = None,
    progress: Progress | None = None,
) -> Importance:
    """Importance of each linear layer's columns while the model reads a text, by default the one that comes along.

    `model` is a Llama of this package, or any module that is called with token numbers, int64 (1, tokens), on its
    first parameter's device, such as a model of transformers; the latter needs `encode`, which makes token numbers of
    a text. `progress` is told of tokens. For other inputs, run the model within observed_inputs(model).
    """
    text = SAMPLE_TEXT.read_text() if text is None else text
    if encode is None:
        tokenizer = getattr(model, "tokenizer", None)
        if tokenizer is None:
            raise ValueError("the model has no tokenizer: pass encode=, which makes token numbers of a text")
        encode = tokenizer.encode
    tokens = list(encode(text))
    with torch.no_grad(), observed_inputs(model) as importance:
        for start in range(0, len(tokens), PIECE):
            piece = tokens[start : start + PIECE]
            if isinstance(model, Llama):
                model.forward(piece, model.new_cache(len(piece)), last_only=False)
            else:
                device = next(model.parameters()).device
                model(torch.tensor([piece], dtype=torch.int64).to(device))
            if progress is not None:
                progress(len(piece))
    return importance


def save_importance(importance: Importance, path: str | Path, source: str = "") -> None:
    """Keep importance in a file (.npz); `source` says what it was measured on."""
    np.savez(path, source=np.array(source), **importance)


def load_importance(path: str | Path, source: str | None = None) -> Importance | None:
    """Importance from a file, None if it is missing, damaged, or was measured on another source than the given one."""
    try:
        with np.load(path, allow_pickle=False) as stored:
            if source is not None and str(stored["source"]) != source:
                return None
            return {name: stored[name] for name in stored.files if name != "source"}
    except (OSError, ValueError, KeyError, EOFError, BadZipFile):
        return None
