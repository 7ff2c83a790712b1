"""Prints what each packed format makes of a model's real weights: bits per weight and round-trip error.

The error is the relative root-mean-square difference between a weight and its packed form read back, over all linear
layers that the format can hold; no importance of columns is used, so it measures the format and its scale search
alone. Run: PYTHONPATH=build/python:python .venv/bin/python examples/format_error.py --gguf FILE
"""

from __future__ import annotations

import argparse
from pathlib import Path

import numpy as np
from corvane_runtime import FORMATS, Format
from corvane_runtime.llama import GgufWeights
from corvane_runtime.llama.gguf_file import PARTS
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
    source = GgufWeights(options.gguf)
    chosen = np.unique(np.linspace(0, source.config.layers - 1, options.layers).round().astype(int))
    parts = [part for part in PARTS if part.endswith("_proj")]
    names = [f"model.layers.{layer}.{part}.weight" for layer in chosen for part in parts]
    formats = [format_ for format_ in FORMATS.values() if format_.can_pack]
    sums = {format_.name: np.zeros(2) for format_ in formats}
    for name in tqdm(names, desc="packing", unit="weight", disable=None):
        weight = source.dense(name).numpy()
        for format_ in formats:
            if weight.shape[1] % format_.block_elements == 0:
                sums[format_.name] += squared_error(format_, weight)
    kinds = sorted({source.stored(name).tensor_type.name for name in names})
    print(f"{len(names)} weights of layers {', '.join(map(str, chosen))}, stored in the file as {', '.join(kinds)}")
    print(f"{'format':<10} {'bits/weight':>11} {'relative RMS error':>19}")
    for format_ in formats:
        error, norm = sums[format_.name]
        value = f"{np.sqrt(error / norm):.4f}" if norm else "rows too short"
        print(f"{format_.name:<10} {format_.bits:>11.3f} {value:>19}")


if __name__ == "__main__":
    main()
