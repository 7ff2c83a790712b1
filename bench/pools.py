"""What OpenMP's threads, which the framework's CPU operators run on, and the device's take from each other.

A program on the CPU alone, with and without importing corvane, in turn; and a loop of CPU operators and launches, as it
comes and with OMP_WAIT_POLICY=passive, where OpenMP's threads sleep at once. Needs no device but the build:

    PYTHONPATH=build/python:python .venv/bin/python bench/pools.py
"""

from __future__ import annotations

import argparse
import json
import os
import statistics
import subprocess
import sys
import time
from collections.abc import Callable

import torch

ROUNDS = 9


def median_us(call: Callable[[], object], calls: int = 300) -> float:
    times = []
    for _ in range(calls):
        start = time.perf_counter()
        call()
        times.append(time.perf_counter() - start)
    return statistics.median(times) * 1e6


def cpu_alone() -> dict[str, float]:
    """Microseconds of operators of several sizes, one after the other as a model has them."""
    x, weight = torch.randn(64, 1024), torch.randn(1024, 1024)
    narrow, row = torch.randn(576), torch.randn(1, 1024)
    wide = torch.randn(1 << 20)

    def layer() -> torch.Tensor:
        return torch.nn.functional.layer_norm(x + torch.relu(x @ weight), (1024,))

    return {
        "x + y, 576": median_us(lambda: narrow + narrow, 20000),
        "x + y, a million": median_us(lambda: wide + wide),
        "one row @ 1024 x 1024": median_us(lambda: row @ weight, 1000),
        "a layer, 64 rows": median_us(layer),
    }


def with_corvane() -> dict[str, float]:
    import corvane  # noqa: F401

    return cpu_alone()


def between_launches() -> dict[str, float]:
    """Microseconds of a launch and of the CPU's operator before it, each in their own loop and in turn."""
    import corvane
    import host_xpu

    wide = torch.randn(1 << 20)
    packed = torch.randint(0, 16, (34 * 2048 * 2048 // 64,), dtype=torch.uint8).to("xpu")
    x = torch.randn(1, 2048).to("xpu")

    def launch() -> None:
        corvane.forward_new(x, packed, 2, 1)
        host_xpu.synchronize()

    found = {"launch": median_us(launch)}
    launches, operators = [], []
    for _ in range(300):
        start = time.perf_counter()
        wide + wide
        between = time.perf_counter()
        launch()
        launches.append(time.perf_counter() - between)
        operators.append(between - start)
    found["launch after an operator"] = statistics.median(launches) * 1e6
    found["operator after a launch"] = statistics.median(operators) * 1e6
    return found


def run(job: str, **environment: str) -> dict[str, float]:
    command = [sys.executable, __file__, "--job", job]
    return json.loads(subprocess.check_output(command, env={**os.environ, **environment}, text=True))


def compare(title: str, names: tuple[str, str], first: Callable[[], dict], second: Callable[[], dict]) -> None:
    rounds = [(first(), second()) for _ in range(ROUNDS)]
    print(f"| {title} | {names[0]}, us | {names[1]}, us | ratio |\n|---|---:|---:|---:|")
    for what in rounds[0][0]:
        pairs = [(one[what], other[what]) for one, other in rounds]
        one, other = (statistics.median(column) for column in zip(*pairs, strict=True))
        ratio = statistics.median(b / a for a, b in pairs)
        print(f"| {what} | {one:.2f} | {other:.2f} | {ratio:.2f} |")
    print()


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    jobs = {job.__name__: job for job in (cpu_alone, with_corvane, between_launches)}
    parser.add_argument("--job", choices=list(jobs), help="what one of the processes does")
    options = parser.parse_args()
    if options.job is not None:
        print(json.dumps(jobs[options.job]()))
        return
    print(f"PyTorch {torch.__version__}, medians of {ROUNDS} pairs\n")
    compare("CPU alone", ("without", "with corvane"), lambda: run("cpu_alone"), lambda: run("with_corvane"))
    compare(
        "CPU and device in turn", ("OpenMP passive", "as it comes"),
        lambda: run("between_launches", OMP_WAIT_POLICY="passive"), lambda: run("between_launches"),
    )  # fmt: skip


if __name__ == "__main__":
    main()
