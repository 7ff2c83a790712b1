"""Tokens a second of a model that 1, 2 and 4 processes share, the cost of their exchanges, and a cost model fitted to both.

Writes two models of random weights (0.8 billion of them in 16 layers, and the half of that), packs them in q4_0, and
removes them afterwards. The figures behind docs/scaling.md are printed by

    PYTHONPATH=build/python:python .venv/bin/python bench/parallel.py

`--keep FOLDER` keeps the models there for the next run.
"""

from __future__ import annotations

import argparse
import itertools
import json
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

import numpy as np
import torch

COUNTS, LAYERS, CORES = (1, 2, 4), (16, 8), len(os.sched_getaffinity(0))
PROMPT, TOKENS = list(range(1, 9)), 80
MACHINES, BYTES_A_WEIGHT = (1, 2, 4, 8), 34 / 64  # of q4_0
MODELS = {"8 billion": (8e9, 32, 4096), "70 billion": (70e9, 80, 8192), "400 billion": (400e9, 126, 16384)}
SUM_SIZES = (2048, 8192, 65536, 1048576)  # elements of float


def free_port() -> int:
    with socket.socket() as found:
        found.bind(("127.0.0.1", 0))
        return found.getsockname()[1]


def run(count: int, threads: int, job: str, folder: Path | None = None) -> dict:
    """What rank 0 of so many processes prints for a job."""
    port, world = str(free_port()), str(count)
    common = {"WORLD_SIZE": world, "LOCAL_WORLD_SIZE": world, "MASTER_ADDR": "127.0.0.1", "MASTER_PORT": port}
    command = [sys.executable, __file__, "--job", job, *([] if folder is None else ["--keep", str(folder)])]
    processes = [
        subprocess.Popen(
            command,
            env={**os.environ, **common, "RANK": str(rank), "LOCAL_RANK": str(rank), "OMP_NUM_THREADS": str(threads)},
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
    from corvane_runtime.parallel import begin, link_to

    begin()
    return link_to()


def decode(folder: Path) -> dict:
    """Milliseconds of a token, medians; of them in kernels; bytes held."""
    import host_xpu

    from corvane_runtime import load, summary

    link = link_of_this_process() if int(os.environ["WORLD_SIZE"]) > 1 else None
    model = load(folder, link=link)
    cache = model.new_cache(len(PROMPT) + 2 * TOKENS)
    token, times, kernels = model.likeliest(PROMPT, cache), [], []
    for _ in range(TOKENS):
        start = time.perf_counter()
        token = model.likeliest([token], cache)
        times.append((time.perf_counter() - start) * 1e3)
    for _ in range(TOKENS):
        with host_xpu.record_launches() as launches:
            token = model.likeliest([token], cache)
        kernels.append(sum(launch.duration_ns for launch in launches) / 1e6)
    medians = {"ms": statistics.median(times), "kernels": statistics.median(kernels)}
    found = {**medians, "bytes": summary(model).bytes}
    if link is not None:
        link.close()
    return found


def exchange(_: Path | None) -> dict:
    """Microseconds of a sum by elements, and of a step of the ring that sums over more than two processes.

    Between kernels, as in a model: the caches are full of weights then, and processes come at unlike times.
    """
    import corvane

    link = link_of_this_process()
    weights = [torch.zeros(4096 * 4096 // 64 * 34 // link.count, dtype=torch.uint8).to("xpu") for _ in range(16)]
    row = torch.zeros(1, 4096).to("xpu")
    turn = itertools.count()

    def kernel() -> None:
        corvane.forward_new(row, weights[next(turn) % len(weights)], 2, 1)

    found = {}
    for size in SUM_SIZES:
        found[str(size)] = median_us(lambda values: link.sum(values), size, kernel)
    # What a sum of more than two processes consists of: the engine's ring has 2 (n - 1) steps, of two processes two.
    ring = median_us(lambda values: link.finish(link.group.allreduce([link.sent(values)])), SUM_SIZES[0], kernel)
    found["step"] = ring / (2 * (link.count - 1))
    link.close()
    return found


def median_us(exchange: Callable[[torch.Tensor], object], size: int, before: Callable[[], None]) -> float:
    """Microseconds of an exchange of so many elements, each after `before`: the median of many."""
    values, times = torch.zeros(1, size).to("xpu"), []
    for _ in range(max(50, min(1000, 2_000_000 // size))):
        before()
        start = time.perf_counter()
        exchange(values)
        times.append(time.perf_counter() - start)
    return statistics.median(times) * 1e6


def token_ms(point: dict, read: float, layer: float, head: float, sums: dict[int, float]) -> float:
    """The cost model: milliseconds of a token, as docs/scaling.md states it.

    `read` is ms a packed byte, `layer` and `head` what a layer and a token cost besides, `sums` the ms of an exchange by
    number of processes. Processes beyond the cores take turns.
    """
    turns = max(1.0, point["count"] / CORES)
    exchanges = 2 * point["layers"] + 1 if point["count"] > 1 else 0
    own = read * point["bytes"] / point["count"] + layer * point["layers"] + head
    return turns * own + exchanges * sums.get(point["count"], 0.0)


def fit(points: list[dict], sums: dict[int, float]) -> tuple[float, float, float]:
    """Read, layer and head of the model: what kernels take in one process, and least squares of relative errors."""
    alone = [point for point in points if point["count"] == 1]
    read = sum(point["kernels"] for point in alone) / sum(point["bytes"] for point in alone)
    rows, targets = [], []
    for point in points:
        turns = max(1.0, point["count"] / CORES)
        rows.append([turns * point["layers"] / point["ms"], turns / point["ms"]])
        targets.append(1 - token_ms(point, read, 0.0, 0.0, sums) / point["ms"])
    layer, head = np.linalg.lstsq(np.array(rows), np.array(targets), rcond=None)[0].tolist()
    if head < 0:
        head = 0.0
        layer = float(np.linalg.lstsq(np.array(rows)[:, :1], np.array(targets), rcond=None)[0][0])
    return read, layer, head


def measure(place: Path) -> None:
    points, sums = [], {}
    for count in COUNTS[1:]:
        times = run(count, 1, "exchange")
        sums[count] = times[str(SUM_SIZES[0])] / 1e3
        sizes = ", ".join(f"{4 * size // 1024} KiB {times[str(size)]:.0f} us" for size in SUM_SIZES)
        print(f"{count} processes, a sum: {sizes}; a step of the ring {times['step']:.0f} us")
        if count == 2:
            largest = SUM_SIZES[-1]
            pair, step, rate = sums[2], times["step"] / 1e3, 4 * largest / (times[str(largest)] * 1e-6)
    for layers in LAYERS:
        folder = place / f"{layers}-layers"
        if not folder.is_dir():
            write_packed(folder, layers)
        two_threads = run(1, 2, "decode", folder)["ms"]
        print(f"{layers} layers, one process with two threads: {two_threads:.1f} ms a token")
        for count in COUNTS:
            points.append({"layers": layers, "count": count, **run(count, 1, "decode", folder)})
            points[-1]["bytes"] *= count
            if count == 2:
                print(f"  two processes with a thread each have {two_threads / points[-1]['ms']:.2f} of its speed")
    read, layer, head = fit(points, sums)
    print(
        f"read {1e-6 / read if read else 0:.1f} GB/s a core, {1e3 * layer:.0f} us a layer, {1e3 * head:.0f} us a token"
    )
    for point in points:
        expected = token_ms(point, read, layer, head, sums)
        error = expected / point["ms"] - 1
        print(
            f"{point['layers']} layers, {point['count']} processes: measured {point['ms']:.1f} ms, "
            f"model {expected:.1f} ms ({error:+.0%})"
        )

    for delay in (0.0, 0.1):
        print(f"\ntokens a second, machines like this one, {delay} ms between them\n")
        print("| weights | " + " | ".join(f"{n}" for n in MACHINES) + " | fastest at |\n|---|" + "---|" * 5)
        for name, (weights, layers, width) in MODELS.items():
            found = {}
            for n in range(1, 65):
                # Of a machine, its cores read together. Two swap in one way there, a ring goes there once a step.
                way = pair + delay if n == 2 else 2 * (n - 1) * (step + delay)
                sent = 2 * (n - 1) / n * 4 * width / rate * 1e3
                exchanges = 0.0 if n == 1 else (2 * layers + 1) * (way + sent)
                found[n] = read * weights * BYTES_A_WEIGHT / (n * CORES) + layer * layers + head + exchanges
            best = min(found, key=found.get)
            cells = " | ".join(f"{1e3 / found[n]:.2f}" for n in MACHINES)
            print(f"| {name} | {cells} | {best} ({1e3 / found[best]:.2f}) |")


def write_packed(folder: Path, layers: int) -> None:
    """A model of random weights in q4_0."""
    import model_files

    from corvane_runtime import load_folder, save

    with tempfile.TemporaryDirectory() as dense:
        model_files.SIZES["layers"] = layers
        model_files.write_model(Path(dense))
        save(load_folder(dense, "q4_0"), folder)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--job", choices=("decode", "exchange"), help="what one of the processes does")
    parser.add_argument("--keep", type=Path, help="where the models are kept for the next run")
    options = parser.parse_args()
    if options.job is not None:
        with torch.no_grad():
            print(json.dumps(globals()[options.job](options.keep)))
    elif options.keep is not None:
        options.keep.mkdir(exist_ok=True)
        measure(options.keep)
    else:
        with tempfile.TemporaryDirectory() as place:
            measure(Path(place))


if __name__ == "__main__":
    main()
