"""Prints what each packed format makes of a model's real weights: bits per weight and round-trip error.

The error is the relative root-mean-square difference between a weight and its packed form read back, over all linear
layers that the format can hold; no importance of columns is used, so it measures the format and its scale search
alone. Run: .venv/bin/python examples/format_error.py --gguf FILE
"""

from __future__ import annotations

import argparse
from pathlib import Path

import numpy as np
from llama.gguf_model import GgufModel, layer_names
from packers import FORMATS, Format
from tqdm import tqdm


def squared_error(format_: Format, weight: np.ndarray) -> tuple[float, float]:
    """Squared norms of the error and of the weight."""
    rest = format_.unpack(format_.pack(weight), *weight.shape) - weight
    return float(np.vdot(rest, rest)), float(np.vdot(weight, weight))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--gguf", type=Path, required=True, help="the model file")
    parser.add_argument("--layers", type=int, default=4, help="layers to look at, spread over the model (default 4)")
    options = parser.parse_args()
    model = GgufModel(options.gguf)
    chosen = np.unique(np.linspace(0, model.config.layers - 1, options.layers).round().astype(int))
    names = [name for name in layer_names(model.config) if int(name.split(".")[1]) in chosen]
    formats = [format_ for format_ in FORMATS.values() if format_.encode is not None]
    sums = {format_.name: np.zeros(2) for format_ in formats}
    for name in tqdm(names, desc="packing", unit="weight", disable=None):
        weight = model.stored(name).dense()
        for format_ in formats:
            if weight.shape[1] % format_.block_elements == 0:
                sums[format_.name] += squared_error(format_, weight)
    kinds = sorted({model.stored(name).kind.name for name in names})
    print(f"{len(names)} weights of layers {', '.join(map(str, chosen))}, stored in the file as {', '.join(kinds)}")
    print(f"{'format':<10} {'bits/weight':>11} {'relative RMS error':>19}")
    for format_ in formats:
        error, norm = sums[format_.name]
        value = f"{np.sqrt(error / norm):.4f}" if norm else "rows too short"
        print(f"{format_.name:<10} {format_.block_bytes * 8 / format_.block_elements:>11.3f} {value:>19}")


if __name__ == "__main__":
    main()
