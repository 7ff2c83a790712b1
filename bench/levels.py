"""The levels of a portable build against each other, and against a build for this machine's own processor.

Each candidate is a process of its own that waits for its turn, and all meet each line in turn, round by round: noise of
the machine meets them alike. A table of ratios: time of a level / time of the native build, less is faster.
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

K = N = 4096
STREAMED = 128 << 20  # bytes of copies that a line goes round: more than the caches hold
CALLS = 8  # of a turn, which gives their median
FORMATS = ("q4_0", "q8_0", "q4_k", "fp6", "iq2_xxs")
LINES = [
    *(f"one-row {name} {dtype}" for name in FORMATS for dtype in ("float", "half", "bfloat16")),
    *(f"systolic q4_0 {dtype}" for dtype in ("float", "half", "bfloat16")),
    *(f"expand {name} {dtype}" for name in FORMATS for dtype in ("float", "half")),
]


def prepared(line: str) -> Callable[[int], float]:
    """Seconds of call i of a line: of its kernel for the expansions, which have no operator of their own."""
    import corvane
    import host_xpu
    import torch
    from reference.random_weights import random_weight
    from reference.registry import FORMATS as registry

    section, name, dtype = line.split()
    packed = torch.from_numpy(random_weight(name, N, K, 0))
    copies = [packed.to("xpu") for _ in range(max(2, -(-STREAMED // packed.numel())))]
    rows = {"one-row": 1, "systolic": 16, "expand": 128}[section]
    x = torch.randn(rows, K).to(getattr(torch, dtype)).to("xpu")

    def call(i: int) -> float:
        # A profiler: the weight is expanded before the product, and not on the way.
        profiler = torch.autograd.profiler.profile(enabled=section == "expand")
        start = time.perf_counter()
        with host_xpu.record_launches() as launches, profiler:
            corvane.forward_new(x, copies[i % len(copies)], registry[name].qtype, rows)
        seconds = time.perf_counter() - start
        return launches[0].duration_ns / 1e9 if section == "expand" else seconds

    return call


def work() -> None:
    """A candidate: reads a line's name, answers with the seconds of a turn."""
    call, of_line = None, None
    for request in sys.stdin:
        if request != of_line:
            call, of_line = prepared(request.strip()), request
            call(0)
        print(json.dumps(statistics.median(call(i) for i in range(CALLS))), flush=True)


class Candidate:
    def __init__(self, packages: str, level: str | None = None):
        environment = {**os.environ, "PYTHONPATH": os.pathsep.join([packages, "tests"])}
        if level is not None:
            environment["CORVANE_ISA"] = level
        self.process = subprocess.Popen(
            [sys.executable, __file__, "--work"],
            env=environment,
            text=True,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )

    def __call__(self, line: str) -> float:
        print(line, file=self.process.stdin, flush=True)
        answer = self.process.stdout.readline()
        if not answer:
            sys.exit(f"a candidate ended with status {self.process.wait()}")
        return json.loads(answer)


def levels_of(packages: str) -> list[str]:
    code = "from host_xpu import _levels; print(*_levels.offered)"
    environment = {**os.environ, "PYTHONPATH": packages}
    return subprocess.check_output([sys.executable, "-c", code], env=environment, text=True).split()


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=9, help="turns of each candidate on a line (default: 9)")
    parser.add_argument("--lines", nargs="+", default=LINES, metavar="LINE", help="of those that the table shows")
    arguments = parser.parse_args()
    native, portable = "build/python", "build/portable/python"
    candidates = {"native": Candidate(native)}
    candidates |= {level: Candidate(portable, level) for level in levels_of(portable)}
    levels = list(candidates)[1:]
    print(f"| time / native | native ms | {' | '.join(levels)} |\n|---|---:|{'---:|' * len(levels)}")
    ratios: dict[str, list[list[float]]] = {}
    for line in arguments.lines:
        rounds = [[candidate(line) for candidate in candidates.values()] for _ in range(arguments.rounds + 1)][1:]
        of_line = [statistics.median(turn[n] / turn[0] for turn in rounds) for n in range(1, len(candidates))]
        ratios.setdefault(line.split()[0], []).append(of_line)
        milliseconds = statistics.median(turn[0] for turn in rounds) * 1e3
        print(f"| {line} | {milliseconds:.3f} | {' | '.join(f'{ratio:.2f}' for ratio in of_line)} |", flush=True)
    for section, of_section in ratios.items():
        means = [statistics.geometric_mean(of_level) for of_level in zip(*of_section)]
        print(f"| {section}, geometric mean | | {' | '.join(f'{mean:.3f}' for mean in means)} |")


if __name__ == "__main__":
    work() if sys.argv[1:] == ["--work"] else main()
