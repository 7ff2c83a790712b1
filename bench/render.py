"""Writes the measurements of `scripts/bench.sh [--peers] --json FILE` into docs/performance.md, and draws its plot.

Usage: .venv/bin/python bench/render.py FILE
"""

from __future__ import annotations

import argparse
import json
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402
from measure import table  # noqa: E402
from peers import about_line, model_table, product_table  # noqa: E402

DOCS = Path(__file__).resolve().parents[1] / "docs"
PAGE, PLOT = DOCS / "performance.md", DOCS / "performance.png"
DTYPES = ("float", "half", "bfloat16", "double")


def milliseconds(row: dict) -> str:
    return f"{row['median'] * 1e3:.2f}"


def ratio(row: dict, what: str) -> str:
    return f"{row['against'][what]:.2f}"


def one_row(rows: dict[str, dict]) -> str:
    names = list(dict.fromkeys(name.split()[0] for name in rows))
    cells = []
    for name in names:
        by_dtype = [rows[f"{name} {dtype}"] for dtype in DTYPES]
        times = [f"{milliseconds(row)} ({ratio(row, 'read')})" for row in by_dtype]
        cells.append([name, f"{by_dtype[0]['gigabytes'] * 1e3:.1f}", *times, ratio(by_dtype[0], "dense float")])
    return table(["format", "MB", *DTYPES, "`float` to dense"], cells)


def several_rows(rows: dict[str, dict]) -> str:
    counts = list(dict.fromkeys(name.split()[1] for name in rows))
    cells = []
    for count in counts:
        of_count = {name.split()[0]: (name, row) for name, row in rows.items() if name.split()[1] == count}
        kernel = " / ".join(dict.fromkeys(name.split(", ")[1] for name, _ in of_count.values()))
        times = [f"{milliseconds(of_count[d][1])} ({ratio(of_count[d][1], 'dense float')})" for d in DTYPES[:3]]
        cells.append([count, *times, f"`{kernel}`"])
    return table(["rows", *DTYPES[:3], "first kernel"], cells)


def expansion(rows: dict[str, dict]) -> str:
    names = list(dict.fromkeys(name.split()[0] for name in rows))
    cells = []
    for name in names:
        pair = [rows[f"{name} to {dtype}"] for dtype in ("float", "half")]
        cells.append([name, *(f"{milliseconds(row)} ({ratio(row, 'fill speed')})" for row in pair)])
    return table(["format", "to `float`", "to `half`"], cells)


def fused(rows: dict[str, dict]) -> str:
    cells = []
    for dtype in DTYPES[:3]:
        pair = [rows[f"layer, {dtype}, {way}"] for way in ("fused", "separate")]
        cells.append([dtype, *(f"{milliseconds(row)} ({ratio(row, 'read')})" for row in pair)])
    return table(["", "fused", "separate calls"], cells)


def linear(rows: dict[str, dict]) -> str:
    counts = list(dict.fromkeys(name.split()[1] for name in rows))
    cells = [
        [count, *(f"{milliseconds(rows[f'{d} {count} rows'])} ({ratio(rows[f'{d} {count} rows'], 'dense float')})"
                  for d in DTYPES)]
        for count in counts
    ]  # fmt: skip
    return table(["rows", *DTYPES], cells)


def plot(rows: dict[str, dict]) -> None:
    """A line for each format, by packed bytes: time of one row by dtype, and of a plain read of the bytes."""
    of_float = {name.split()[0]: row for name, row in rows.items() if name.split()[1] == "float"}
    formats = sorted(of_float, key=lambda name: of_float[name]["gigabytes"], reverse=True)
    figure, axis = pyplot.subplots(figsize=(7.2, 4.8), constrained_layout=True)
    reads = [of_float[name]["median"] / of_float[name]["against"]["read"] * 1e3 for name in formats]
    axis.scatter(reads, formats, s=90, marker="|", color="black", label="plain read")
    for dtype, marker, face in zip(DTYPES[:3], "o^s", (None, "none", "none")):
        times = [rows[f"{name} {dtype}"]["median"] * 1e3 for name in formats]
        axis.scatter(
            times, formats, s=28, marker=marker, facecolors=face, edgecolors=f"C{DTYPES.index(dtype)}", label=dtype
        )
    axis.set_xlabel("one row, ms")
    axis.set_xlim(left=0)
    axis.grid(axis="y", linewidth=0.4)
    axis.legend(fontsize=8)
    figure.savefig(PLOT, dpi=110)


def peer_parts(measured: dict) -> dict[str, str]:
    return {
        "peers": about_line(measured),
        "peer products": product_table(measured["products"]),
        "peer models": model_table(measured["models"]),
    }


def kernel_parts(about: dict, sections: dict[str, dict[str, dict]]) -> dict[str, str]:
    speeds = [row["gigabytes"] * row["against"]["read"] / row["median"] for row in sections["one-row"].values()]
    return {
        "about": f"Commit {about['commit']}, {about['processor_name']}, {about['threads']} threads, "
        f"device name \"{about['device']}\", {about['rounds']} rounds. "
        f"The plain read, quickest with a hint {about['ahead']} bytes ahead (0: without), ran at {min(speeds):.0f} to "
        f"{max(speeds):.0f} GB/s: the ratios to it move with it.",
        "one-row": one_row(sections["one-row"]),
        "rows": several_rows(sections["rows"]),
        "expand": expansion(sections["expand"]),
        "fused": fused(sections["fused"]),
        "linear": linear(sections["linear"]),
    }


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("file", type=Path)
    measured = json.loads(parser.parse_args().file.read_text())
    if "models" in measured:
        parts = peer_parts(measured)
    else:
        sections: dict[str, dict[str, dict]] = {}
        for row in measured["rows"]:
            sections.setdefault(row["section"], {})[row["name"]] = row
        parts = kernel_parts(measured["about"], sections)
        plot(sections["one-row"])
    page = PAGE.read_text()
    for name, text in parts.items():
        begin, end = f"<!-- {name} -->", f"<!-- end of {name} -->"
        before, rest = page.split(begin)
        page = f"{before}{begin}\n{text}\n{end}{rest.split(end)[1]}"
    PAGE.write_text(page)


if __name__ == "__main__":
    main()
