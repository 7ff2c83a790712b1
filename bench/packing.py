"""Prints the seconds that packing and unpacking 1 GiB of float weights take in each format, from a sixteenth of it.

Run: PYTHONPATH=build/python:python .venv/bin/python bench/packing.py
"""

from __future__ import annotations

import statistics
import time
from collections.abc import Callable

import numpy as np
from corvane_runtime import FORMATS

ROWS, COLUMNS, RUNS = 4096, 4096, 5


def seconds(work: Callable[[], object]) -> float:
    """Median of some runs, scaled to 1 GiB."""
    times = []
    for _ in range(RUNS):
        start = time.perf_counter()
        work()
        times.append(time.perf_counter() - start)
    return statistics.median(times) * (1 << 28) / (ROWS * COLUMNS)


def main() -> None:
    rng = np.random.default_rng(0)
    weight = (rng.standard_t(5, (ROWS, COLUMNS)) * 0.02).astype(np.float32)
    importance = np.exp(rng.normal(0, 1, COLUMNS)).astype(np.float32)
    print(f"{'format':<10} {'pack':>6} {'with importance':>16} {'unpack':>7}")
    for format_ in FORMATS.values():
        if format_.can_pack:
            packed = format_.pack(weight)
            plain, weighed = (seconds(lambda i=i: format_.pack(weight, i)) for i in (None, importance))
            back = seconds(lambda: format_.unpack(packed, ROWS, COLUMNS))
            print(f"{format_.name:<10} {plain:>6.1f} {weighed:>16.1f} {back:>7.1f}", flush=True)


if __name__ == "__main__":
    main()
