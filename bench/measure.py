"""Timing for the benchmarks: candidates in alternation, medians with their spread; and what was measured where."""

from __future__ import annotations

import statistics
import subprocess
import time
from collections.abc import Callable
from typing import NamedTuple


class Timing(NamedTuple):
    """Seconds of one call: median, and the quartiles around it."""

    median: float
    low: float
    high: float


def timing_of(seconds: list[float]) -> Timing:
    low, median, high = statistics.quantiles(seconds, n=4)
    return Timing(median, low, high)


def alternate(
    candidates: dict[str, Callable[[int], object]], runs: int = 25, seconds: float = 2.0
) -> dict[str, Timing]:
    """Times each candidate(i) in turn, i counting up, so that noise of the machine meets all of them alike.

    Stops after `runs` rounds, or after `seconds` once five rounds are there. The first round is not counted.
    """
    time.sleep(0.1)  # threads of other pools (numpy's, OpenBLAS's) wait busily for some milliseconds after their work
    taken: dict[str, list[float]] = {name: [] for name in candidates}
    start = time.perf_counter()
    for i in range(runs + 1):
        for name, call in candidates.items():
            before = time.perf_counter()
            call(i)
            if i:
                taken[name].append(time.perf_counter() - before)
        if i >= 5 and time.perf_counter() - start > seconds:
            break
    return {name: timing_of(times) for name, times in taken.items()}


def commit() -> str:
    return subprocess.run(["git", "rev-parse", "--short", "HEAD"], capture_output=True, text=True).stdout.strip()


def processor_name() -> str:
    with open("/proc/cpuinfo") as file:
        names = [line.split(":", 1)[1].strip() for line in file if line.startswith("model name")]
    return names[0] if names else "unknown processor"


def table(head: list[str], rows: list[list[str]]) -> str:
    """In Markdown."""
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)
