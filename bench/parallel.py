"""Tokens a second of a model that 1, 2 and 4 processes share, the cost of their exchanges, and a cost model fitted to both.

Writes two models of random weights (0.8 billion of them in 16 layers, and the half of that), packs them in q4_0, and
removes them afterwards. The figures behind docs/scaling.md are printed by

    PYTHONPATH=build/python:python .venv/bin/python bench/parallel.py

`--keep FOLDER` keeps the models there for the next run.
"""

from __future__ import annotations

import argparse
import json
import os
import socket
import statistics
import subprocess
import sys
import time
from pathlib import Path

import torch

PROMPT, TOKENS, ROUNDS = list(range(1, 9)), 48, 3
SUM_SIZES = (2048, 8192, 65536, 1048576)  # elements of float


def free_port() -> int:
    with socket.socket() as found:
        found.bind(("127.0.0.1", 0))
        return found.getsockname()[1]


def run(count: int, threads: int, job: str, folder: Path | None = None) -> dict:
    """What rank 0 of so many processes prints for a job."""
    common = {"WORLD_SIZE": str(count), "MASTER_ADDR": "127.0.0.1", "MASTER_PORT": str(free_port())}
    command = [sys.executable, __file__, "--job", job, *([] if folder is None else ["--keep", str(folder)])]
    processes = [
        subprocess.Popen(
            command,
            env={**os.environ, **common, "RANK": str(rank), "OMP_NUM_THREADS": str(threads)},
            stdout=subprocess.PIPE,
            text=True,
        )
        for rank in range(count)
    ]
    outputs = [process.communicate()[0] for process in processes]
    if any(process.returncode for process in processes):
        raise SystemExit(f"{job} with {count} processes failed")
    return json.loads(outputs[0].splitlines()[-1])


def link_of_this_process():  # noqa: ANN201
    import torch.distributed as dist

    from corvane_runtime.parallel import link_to

    dist.init_process_group("gloo")
    return link_to()


def decode(folder: Path) -> dict:
    """Milliseconds of a token, the median of some rounds, and what a token takes from the link."""
    from corvane_runtime import load, summary

    link = link_of_this_process() if int(os.environ["WORLD_SIZE"]) > 1 else None
    model = load(folder, link=link)
    rounds = []
    for _ in range(ROUNDS):
        cache = model.new_cache(len(PROMPT) + TOKENS)
        token = model.likeliest(PROMPT, cache)
        start = time.perf_counter()
        for _ in range(TOKENS):
            token = model.likeliest([token], cache)
        rounds.append((time.perf_counter() - start) / TOKENS * 1e3)
    found = {"ms": statistics.median(rounds), "bytes": summary(model).bytes}
    if link is not None:
        link.close()
    return found


def exchange(_: Path | None) -> dict:
    """Microseconds of a sum by elements, the median of many."""
    link = link_of_this_process()
    found = {}
    for size in SUM_SIZES:
        values, times = torch.zeros(size).to("xpu"), []
        for _ in range(max(50, 2_000_000 // size)):
            start = time.perf_counter()
            link.sum(values)
            times.append(time.perf_counter() - start)
        found[str(size)] = statistics.median(times) * 1e6
    link.close()
    return found


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--job", choices=("decode", "exchange"))
    parser.add_argument("--keep", type=Path)
    options = parser.parse_args()
    with torch.no_grad():
        print(json.dumps(globals()[options.job](options.keep)))
