"""Benchmarks of corvane, as ratios to a plain read or fill of the same bytes and to the dense product.

Weights are streamed: calls go round copies of more than the caches hold. Results are checked before they are timed.
"""

from __future__ import annotations

import argparse
import functools
import json

import bench_memory
import corvane
import host_xpu
import numpy as np
import torch
from layer import Layer
from measure import Timing, alternate, commit, processor_name, timing_of
from reference.formats import decode
from reference.random_weights import random_weight
from reference.registry import FORMATS

K = N = 4096
STREAMED = 256 << 20  # bytes that a round of copies takes
LAYER_BYTES = 61_000_000  # about those of a layer of bench_fused
DTYPES = {"float": torch.float, "half": torch.half, "bfloat16": torch.bfloat16, "double": torch.double}

AHEAD = (0, 1024, 4096, 16384, 65536)  # bytes that a plain read asks for in advance; the quickest distance counts

rows: list[dict] = []
selected = list(FORMATS)


def report(section: str, name: str, timing: Timing, against: dict[str, float], gigabytes: float | None = None) -> None:
    """Keeps one measurement. `against`: ratios by what they are to."""
    rows.append({"section": section, "name": name, **timing._asdict(), "gigabytes": gigabytes, "against": against})


def show(row: dict) -> None:
    rate = "" if row["gigabytes"] is None else f"{row['gigabytes'] / row['median']:7.1f} GB/s"
    ratios = "  ".join(f"{ratio:5.2f} x {what}" for what, ratio in row["against"].items())
    spread = f"{row['median'] * 1e3:8.3f} ms ({row['low'] * 1e3:.3f}-{row['high'] * 1e3:.3f})"
    print(f"{row['section']:10} {row['name']:26} {spread:32} {rate:13} {ratios}", flush=True)


def run(section: str, rounds: int) -> None:
    """Measures a section some times and keeps each line's median: another process takes one of the rounds, not all."""
    before = rows.copy()
    rows.clear()
    for _ in range(rounds):
        SECTIONS[section]()
    measured: dict[str, list[dict]] = {}
    for row in rows:
        measured.setdefault(row["name"], []).append(row)
    rows[:] = before
    for of_line in measured.values():
        rows.append(sorted(of_line, key=lambda row: row["median"])[(len(of_line) - 1) // 2])
        show(rows[-1])


@functools.cache
def quickest_distance() -> int:
    """Of AHEAD, how far a plain read of memory has to look to be quickest."""
    memory = torch.ones(STREAMED, dtype=torch.uint8).to("xpu")
    candidates = {
        str(ahead): lambda _, ahead=ahead: bench_memory.read(memory.data_ptr(), STREAMED, ahead) for ahead in AHEAD
    }
    times = alternate(candidates, runs=15)
    return int(min(times, key=lambda ahead: times[ahead].median))


def best_read(tensor: torch.Tensor) -> None:
    """A plain read of a tensor, as quick as it gets here."""
    bench_memory.read(tensor.data_ptr(), tensor.numel(), quickest_distance())


class Copies:
    """A packed weight, often enough in memory that no cache holds it when its turn comes again."""

    def __init__(self, name: str, n: int = N, k: int = K):
        self.format = FORMATS[name]
        self.data = random_weight(name, n, k, 0)
        count = max(2, -(-STREAMED // self.data.size))
        self.tensors = [torch.from_numpy(self.data).to("xpu") for _ in range(count)]
        self.gigabytes = self.data.size / 1e9

    def __call__(self, i: int) -> torch.Tensor:
        return self.tensors[i % len(self.tensors)]

    def read(self, i: int) -> None:
        best_read(self(i))


def check(y: torch.Tensor, x: torch.Tensor, copies: Copies, n: int = N, k: int = K) -> None:
    """A result must be what the bytes say, roughly: the tests do it exactly."""
    expected = x.cpu().double().numpy() @ decode(copies.format.name, copies.data, n, k).T
    error = np.abs(y.cpu().double().numpy() - expected).max() / max(np.abs(expected).max(), 1e-9)
    assert error < 0.2, f"{copies.format.name}: wrong result, relative error {error}"


def bench_one_row() -> None:
    """One input row on every format and dtype, against a plain read of the packed bytes and the dense float product."""
    dense_weights = [torch.randn(N, K).to("xpu") for _ in range(STREAMED // (4 * N * K))]
    dense_x = torch.randn(1, K).to("xpu")
    # By itself: its 67 MB in between would leave the other candidates cold caches.
    dense_time = alternate(
        {"dense": lambda i: torch.nn.functional.linear(dense_x, dense_weights[i % len(dense_weights)])}
    )["dense"].median
    for name in selected:
        fmt, copies = FORMATS[name], Copies(name)
        for dtype_name, dtype in DTYPES.items():
            x = torch.randn(1, K).to(dtype).to("xpu")
            check(corvane.forward_new(x, copies(0), fmt.qtype, 1), x, copies)
            times = alternate(
                {"read": copies.read, "call": lambda i, x=x: corvane.forward_new(x, copies(i + 7), fmt.qtype, 1)}
            )
            call = times["call"].median
            against = {"read": call / times["read"].median, "dense float": call / dense_time}
            report("one-row", f"{name} {dtype_name}", times["call"], against, copies.gigabytes)


def bench_call() -> None:
    """What a call costs when there is next to nothing to compute."""
    x, w = torch.randn(1, 64).to("xpu"), torch.from_numpy(random_weight("q4_0", 64, 64, 0)).to("xpu")

    def thousand(_: int) -> None:
        for _ in range(1000):
            corvane.forward_new(x, w, 2, 1)

    times = alternate({"call": thousand})
    report("call", "1000 calls, 64 x 64", times["call"], {})


def dense_seconds(row_count: int, weight: torch.Tensor) -> float:
    """CPU PyTorch's float product on as many threads as the device has.

    By itself: its threads wait busily for a while after each product, on the cores that another candidate would need.
    """
    x = torch.randn(row_count, weight.size(1))
    return alternate({"dense": lambda _: torch.nn.functional.linear(x, weight)})["dense"].median


def bench_linear() -> None:
    """The framework's linear on XPU tensors against CPU PyTorch's float product."""
    weight = torch.randn(N, K) * 0.02
    for row_count in (8, 32, 128):
        dense_time, candidates = dense_seconds(row_count, weight), {}
        for name, dtype in DTYPES.items():
            x, w = torch.randn(row_count, K).to(dtype).to("xpu"), weight.to(dtype).to("xpu")
            candidates[name] = lambda _, x=x, w=w: torch.nn.functional.linear(x, w)
        times = alternate(candidates)
        for name in DTYPES:
            against = {"dense float": times[name].median / dense_time}
            report("linear", f"{name} {row_count} rows", times[name], against)


def bench_rows() -> None:
    """Several rows on q4_0: whichever path this device class takes, against the dense float product."""
    copies, weight = Copies("q4_0"), torch.randn(N, K) * 0.02
    for dtype_name in ("float", "half", "bfloat16"):
        dtype = DTYPES[dtype_name]
        for row_count in (1, 2, 4, 7, 8, 16, 32, 64, 128, 256):
            x = torch.randn(row_count, K).to(dtype).to("xpu")
            check(corvane.forward_new(x, copies(0), 2, row_count), x, copies)
            with host_xpu.record_launches() as records:
                corvane.forward_new(x, copies(0), 2, row_count)
            kernel = records[0].kernel
            dense_time = dense_seconds(row_count, weight)
            times = alternate(
                {
                    "one row": lambda i, x=x[:1]: corvane.forward_new(x, copies(i), 2, 1),
                    "call": lambda i, x=x: corvane.forward_new(x, copies(i + 7), 2, x.size(0)),
                },
            )
            call = times["call"].median
            against = {"dense float": call / dense_time, "one row": call / times["one row"].median}
            report("rows", f"{dtype_name} {row_count} rows, {kernel}", times["call"], against)


def bench_expand() -> None:
    """Expansion of the weight in front of a product, into memory used before, against a plain fill of the same bytes.

    Kernel times of the launch records, as the expansion of most formats has no operator of its own. A profiler sees to
    it that the weight is expanded before the product, and not on the way.
    """
    row_count = 128  # beyond the systolic path
    for name in selected:
        copies = Copies(name)
        for dtype_name in ("float", "half"):
            x = torch.randn(row_count, K).to(DTYPES[dtype_name]).to("xpu")
            out = torch.empty(N, K, dtype=x.dtype, device="xpu")
            size = out.numel() * out.element_size()
            kernel_seconds: list[float] = []

            def expand(i: int, x=x, copies=copies, kernel_seconds=kernel_seconds) -> None:
                with host_xpu.record_launches() as launches, torch.autograd.profiler.profile():
                    corvane.forward_new(x, copies(i), copies.format.qtype, row_count)
                [launch] = launches
                kernel_seconds.append(launch.duration_ns / 1e9)

            expand(0)
            fill = lambda _, out=out, size=size: bench_memory.fill(out.data_ptr(), size)  # noqa: E731
            times = alternate({"fill": fill, "call": expand})
            kernel = timing_of(kernel_seconds[2:])  # without the call above and the round that is not counted
            report("expand", f"{name} to {dtype_name}", kernel, {"fill speed": times["fill"].median / kernel.median},
                   size / 1e9)  # fmt: skip


def bench_fused() -> None:
    """QKV and gated MLP of a layer in two launches, against the same in separate calls and a read of the weights."""
    for dtype_name in ("float", "half", "bfloat16"):
        dtype = DTYPES[dtype_name]
        layers = [Layer(seed, dtype) for seed in range(-(-STREAMED // LAYER_BYTES))]
        x = torch.randn(1, K).to(dtype).to("xpu")
        for fused, separate in zip(layers[0].fused(x), [tensor.clone() for tensor in layers[0].separate(x)]):
            error = (fused.double() - separate.double()).norm() / separate.double().norm()
            assert error < 0.05, f"fused and separate results differ by {error}"

        def read(i: int, layers: list[Layer] = layers) -> None:
            for weight in layers[i % len(layers)].weights:
                best_read(weight)

        times = alternate(
            {
                "read": read,
                "fused": lambda i, layers=layers, x=x: layers[(i + 1) % len(layers)].fused(x),
                "separate": lambda i, layers=layers, x=x: layers[(i + 2) % len(layers)].separate(x),
            }
        )
        for name in ("fused", "separate"):
            against = {"read": times[name].median / times["read"].median}
            report("fused", f"layer, {dtype_name}, {name}", times[name], against, layers[0].bytes / 1e9)


SECTIONS = {
    "call": bench_call,
    "one-row": bench_one_row,
    "rows": bench_rows,
    "linear": bench_linear,
    "expand": bench_expand,
    "fused": bench_fused,
}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--json", metavar="FILE", help="write the measurements there too")
    parser.add_argument("--only", nargs="+", choices=SECTIONS, default=list(SECTIONS), metavar="SECTION",
                        help=f"of {', '.join(SECTIONS)}")  # fmt: skip
    parser.add_argument("--formats", nargs="+", choices=FORMATS, default=selected, metavar="FORMAT",
                        help="of the sections one-row and expand: " + ", ".join(FORMATS))  # fmt: skip
    parser.add_argument("--rounds", type=int, default=1, metavar="N", help="measure each section N times; the lines "
                        "shown are medians of the rounds")  # fmt: skip
    arguments = parser.parse_args()
    selected[:] = arguments.formats
    torch.set_num_threads(bench_memory.threads())
    about = {"commit": commit(), "device": host_xpu.device_name(), "processor_name": processor_name(),
             "threads": bench_memory.threads(), "shape": [N, K],
             "rounds": max(1, arguments.rounds), "ahead": quickest_distance()}  # fmt: skip
    print(" ".join(f"{key} {value}" for key, value in about.items()))
    print("ratios are times (less is faster); 'fill speed' is a speed (more is faster); spread: quartiles\n")
    for section in arguments.only:
        run(section, max(1, arguments.rounds))
    if arguments.json:
        with open(arguments.json, "w") as file:
            json.dump({"about": about, "rows": rows}, file, indent=1)


if __name__ == "__main__":
    main()
