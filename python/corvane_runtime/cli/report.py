"""Tables of the command: kernel launches with times, sizes, and the comparison of all formats with its plot."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Protocol

from ..generate import Speed
from ..quantize import Summary


class Launch(Protocol):
    """What the table reads of a record of host_xpu.record_launches()."""

    kernel: str
    duration_ns: int


def launch_table(launches: Sequence[Launch], steps: int) -> str:
    """Launches by kernel: how many, how many a step, total and mean time. `steps` is the number of tokens decoded."""
    times: dict[str, list[int]] = {}
    for launch in launches:
        times.setdefault(launch.kernel, []).append(launch.duration_ns)
    lines = [f"{'kernel':<44} {'launches':>8} {'a token':>8} {'total ms':>9} {'mean us':>8}"]
    rows = sorted(times.items(), key=lambda item: -sum(item[1]))
    rows.append(("all", [duration for durations in times.values() for duration in durations]))
    for kernel, durations in rows:
        total, count = sum(durations), max(len(durations), 1)
        per_token = len(durations) / max(steps, 1)
        lines.append(
            f"{kernel:<44} {len(durations):>8} {per_token:>8.1f} {total / 1e6:>9.1f} {total / count / 1e3:>8.1f}"
        )
    return "\n".join(lines)


def megabytes(count: int) -> str:
    return f"{count / 1e6:.1f} MB"


def format_mix(packed: Summary) -> str:
    """The formats of a model's linear layers with their counts, such as "q4_k x 30, q4_1 x 181"."""
    return ", ".join(f"{name} x {count}" for name, count in packed.formats().items())


def size_line(packed: Summary) -> str:
    dense = 4 * sum(layer.shape[0] * layer.shape[1] for layer in packed.layers)
    return (
        f"weights   {megabytes(packed.bytes)} ({format_mix(packed)}), "
        f"as dense float {megabytes(dense)}: {dense / packed.bytes:.1f} times as much"
    )


def speed_lines(speed: Speed, way: str) -> str:
    return (
        f"prefill   {speed.prefill_tokens} tokens, {speed.prefill:.1f} tokens/s ({way})\n"
        f"decode    {speed.decode_tokens} tokens, {speed.decode:.1f} tokens/s"
    )


@dataclass(frozen=True)
class Result:
    """One line of the comparison."""

    name: str
    mix: str
    bytes: int
    perplexity: float
    speed: Speed


def comparison_table(results: Sequence[Result]) -> str:
    """A table in Markdown, so that it can stand in a document as it is."""
    lines = [
        "| format | layers | bytes | perplexity | tokens/s, one row | tokens/s, prompt |",
        "|---|---|---:|---:|---:|---:|",
    ]
    for result in results:
        lines.append(
            f"| {result.name} | {result.mix} | {megabytes(result.bytes)} | {result.perplexity:.2f} "
            f"| {result.speed.decode:.1f} | {result.speed.prefill:.1f} |"
        )
    return "\n".join(lines)


def plot_comparison(results: Sequence[Result], path: Path) -> None:
    """Perplexity over packed bytes and decoding speed over packed bytes, as a PNG."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot, ticker

    packed = [result for result in results if result.name != "dense"]
    dense = [result for result in results if result.name == "dense"]
    figure, axes = pyplot.subplots(1, 2, figsize=(9.6, 4.0), constrained_layout=True)
    panels = (
        ("perplexity", lambda result: result.perplexity, axes[0]),
        ("tokens per second, one row", lambda result: result.speed.decode, axes[1]),
    )
    for label, value, axis in panels:
        axis.scatter([result.bytes / 1e6 for result in packed], [value(result) for result in packed], s=18)
        for result in packed:
            axis.annotate(
                result.name, (result.bytes / 1e6, value(result)), (3, 3), textcoords="offset points", fontsize=7
            )
        for result in dense:
            axis.axhline(value(result), color="gray", linewidth=0.8, linestyle="--", label="dense float")
        axis.margins(x=0.12)  # room for the names
        axis.set_xlabel("packed weights, MB")
        axis.set_ylabel(label)
        axis.legend(loc="best", fontsize=7)
    axes[0].set_yscale("log")  # the coarsest formats are far above the rest
    axes[0].yaxis.set_major_formatter(ticker.ScalarFormatter())
    axes[0].yaxis.set_minor_formatter(ticker.ScalarFormatter())
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=110)
    pyplot.close(figure)
