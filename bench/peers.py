"""Corvane against what a person would use instead: PyTorch's int4 product, and llama-cpp-python on the same GGUF files.

Engines run in processes of their own and take turns; one begins when no other takes processor time any more. Started
by `scripts/bench.sh --peers`, which makes the environments; bench/render.py writes the tables into docs/performance.md.
"""

from __future__ import annotations

import argparse
import json
import os
import random
import statistics
import subprocess
import time
from collections import Counter
from collections.abc import Iterable
from pathlib import Path

import gguf
import numpy as np
from measure import commit, processor_name, table

WORKER = Path(__file__).with_name("peer_worker.py")
MODELS = Path("build/models")
ENVIRONMENTS = {  # interpreter and PYTHONPATH
    "peer": ("build/peer-venv/bin/python", ""),
    "debian": (".venv/bin/python", "build/python:python"),
    "pypi": ("build/torch-venv/bin/python", "build/torch/python:python"),
}
ROWS = (1, 4, 8, 32, 64, 128)
PROMPT, DECODED = 128, 64
Q4_0 = gguf.GGMLQuantizationType.Q4_0

Tensors = Iterable[tuple[str, np.ndarray, gguf.GGMLQuantizationType]]


class Worker:
    """A process that serves one engine."""

    def __init__(self, environment: str, kind: str, *arguments: str) -> None:
        interpreter, path = ENVIRONMENTS[environment]
        self.process = subprocess.Popen(
            [interpreter, WORKER, kind, *arguments], env={**os.environ, "PYTHONPATH": path}, text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )  # fmt: skip
        self.about = self.ask("about")

    def ask(self, *request: object) -> object:
        print(json.dumps(request), file=self.process.stdin, flush=True)
        if not (answer := self.process.stdout.readline()):
            raise SystemExit(f"bench: the process of {' '.join(map(str, self.process.args))} ended")
        return json.loads(answer)

    def ticks(self) -> int:
        """Processor time taken so far, in ticks of 10 ms."""
        fields = Path(f"/proc/{self.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])

    def close(self) -> None:
        self.process.stdin.close()
        self.process.wait()


def settle(workers: Iterable[Worker]) -> None:
    """Waits until the processes sleep: threads of a pool may wait busily, on a core that the next one needs."""
    workers, before = list(workers), None
    while before != (now := [worker.ticks() for worker in workers]):
        before = now
        time.sleep(0.1)


def middle(values: Iterable[float], digits: int = 4) -> float:
    return float(f"{statistics.median(values):.{digits}g}")


# --- files --------------------------------------------------------------------------------------------------------


def write_file(
    path: Path, fields: dict[str, gguf.ReaderField], numbers: dict[str, int | float], tensors: Tensors
) -> None:
    """A GGUF file of the architecture llama; it stands in its place when it is whole."""
    partial = path.with_suffix(".partial")
    writer = gguf.GGUFWriter(partial, "llama")
    for name, field in fields.items():
        writer.add_key_value(name, field.contents(), field.types[0], field.types[-1] if field.types[1:] else None)
    for name, number in numbers.items():
        kind = gguf.GGUFValueType.UINT32 if isinstance(number, int) else gguf.GGUFValueType.FLOAT32
        writer.add_key_value(name, number, kind)
    for name, values, kind in tensors:
        writer.add_tensor(name, values, raw_dtype=kind)
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    partial.rename(path)


def in_q4_0(source: gguf.GGUFReader) -> Tensors:
    """A file's tensors with all that are quantised in q4_0, the embedding and so the output head among them."""
    for tensor in source.tensors:
        if tensor.tensor_type == gguf.GGMLQuantizationType.F32:
            yield tensor.name, tensor.data, tensor.tensor_type
        else:
            yield tensor.name, gguf.quantize(gguf.dequantize(tensor.data, tensor.tensor_type), Q4_0), Q4_0


def random_tensors(sizes: dict[str, int], vocabulary: int) -> Tensors:
    """Weights of a tied model: random codes, and scales that keep the size of what goes through."""
    generator = np.random.default_rng(0)
    hidden, mlp = sizes["embedding_length"], sizes["feed_forward_length"]
    heads, kv_heads = sizes["attention.head_count"], sizes["attention.head_count_kv"]

    def weight(rows: int, columns: int) -> np.ndarray:
        blocks = generator.integers(0, 256, (rows, columns // 32, 18), dtype=np.uint8)  # a half, 32 codes of 4 bits
        scale = np.float16(1 / (4.6 * columns**0.5))  # 4.6: the deviation of the codes
        blocks[:, :, :2] = np.frombuffer(scale.tobytes(), np.uint8)
        return blocks.reshape(rows, -1)

    def norm() -> np.ndarray:
        return np.ones(hidden, np.float32)

    yield "token_embd.weight", weight(vocabulary, hidden), Q4_0
    yield "output_norm.weight", norm(), gguf.GGMLQuantizationType.F32
    for i in range(sizes["block_count"]):
        yield f"blk.{i}.attn_norm.weight", norm(), gguf.GGMLQuantizationType.F32
        yield f"blk.{i}.ffn_norm.weight", norm(), gguf.GGMLQuantizationType.F32
        shapes = {
            "attn_q": (hidden, hidden),
            "attn_k": (hidden // heads * kv_heads, hidden),
            "attn_v": (hidden // heads * kv_heads, hidden),
            "attn_output": (hidden, hidden),
            "ffn_gate": (mlp, hidden),
            "ffn_up": (mlp, hidden),
            "ffn_down": (hidden, mlp),
        }
        for name, shape in shapes.items():
            yield f"blk.{i}.{name}.weight", weight(*shape), Q4_0


def model_files(demo_model: Path) -> dict[str, Path]:
    """The models by their names in the table; those that are not there yet are written."""
    source = gguf.GGUFReader(demo_model)
    small, large = MODELS / "SmolLM2-135M-Instruct.Q4_0.gguf", MODELS / "random-0.8B.Q4_0.gguf"
    own = ("GGUF.", "general.architecture", "general.file_type")
    if not small.exists():
        kept = {name: field for name, field in source.fields.items() if not name.startswith(own)}
        write_file(small, kept, {"general.file_type": int(gguf.LlamaFileType.MOSTLY_Q4_0)}, in_q4_0(source))
    if not large.exists():
        sizes = {"block_count": 16, "embedding_length": 2048, "feed_forward_length": 5632, "context_length": 2048,
                 "attention.head_count": 32, "attention.head_count_kv": 8, "rope.dimension_count": 64}  # fmt: skip
        vocabulary = len(source.fields["tokenizer.ggml.tokens"].data)
        numbers = {f"llama.{name}": size for name, size in sizes.items()} | {
            "llama.vocab_size": vocabulary, "llama.rope.freq_base": 10000.0,
            "llama.attention.layer_norm_rms_epsilon": 1e-5,
            "general.file_type": int(gguf.LlamaFileType.MOSTLY_Q4_0),
        }  # fmt: skip
        kept = {name: field for name, field in source.fields.items() if name.startswith("tokenizer.")}
        write_file(large, kept, numbers, random_tensors(sizes, vocabulary))
    return {"135 million, as published": demo_model, "135 million, q4_0": small, "822 million, q4_0": large}


# --- measurements -------------------------------------------------------------------------------------------------


def measure_products(threads: int, rounds: int) -> list[dict]:
    worker, found = Worker("pypi", "products", str(threads)), []
    for rows in ROWS:
        of_rounds = [worker.ask("products", rows) for _ in range(rounds)]
        ratio = middle(each["corvane"] / each["peer"] for each in of_rounds)
        found.append({"rows": rows, **{key: middle(each[key] for each in of_rounds) for key in of_rounds[0]},
                      "ratio": ratio, "about": worker.about})  # fmt: skip
    worker.close()
    return found


def measure_model(name: str, file: Path, threads: int, rounds: int) -> list[dict]:
    workers = {"peer": Worker("peer", "llama-cpp", str(threads), str(file))}
    workers |= {each: Worker(each, "corvane", str(threads), str(file)) for each in ("debian", "pypi")}
    reader = gguf.GGUFReader(file)
    kinds = Counter(tensor.tensor_type.name.lower() for tensor in reader.tensors if len(tensor.shape) > 1)
    workers["peer"].about["weights"] = ", ".join(f"{kind} x {count}" for kind, count in kinds.most_common())
    tokens = random.Random(0).choices(range(1000, 40000), k=PROMPT + DECODED)
    prompt, following = tokens[:PROMPT], tokens[PROMPT:]

    expected = set(workers["peer"].ask("likeliest", prompt))
    for each, worker in workers.items():
        common = len(expected & set(worker.ask("likeliest", prompt)))
        assert common >= 20, f"{name}, {each}: {common} of the hundred likeliest tokens are the peer's: wrong logits"
    of_rounds: dict[str, list[dict]] = {each: [] for each in workers}
    for i in range(rounds + 1):
        for each, worker in workers.items():
            settle(workers.values())
            speeds = worker.ask("speeds", prompt, following)
            if i:  # the first round sets up what later ones find
                of_rounds[each].append(speeds)
    rows = []
    for each, worker in workers.items():
        row = {"model": name, **worker.about}
        for what in ("prompt", "decode"):
            pairs = zip(of_rounds[each], of_rounds["peer"], strict=True)
            row[what] = middle(speeds[what] for speeds in of_rounds[each])
            row[f"{what}_ratio"] = middle(own[what] / peer[what] for own, peer in pairs)
            row[f"{what}_rounds"] = [round(speeds[what], 2) for speeds in of_rounds[each]]
        if each != "peer":
            settle(workers.values())
            row["kernel_share"] = round(worker.ask("kernel_share", prompt, following), 3)
        rows.append(row)
    for worker in workers.values():
        worker.close()
    return rows


# --- tables -------------------------------------------------------------------------------------------------------


def product_table(rows: list[dict]) -> str:
    cells = []
    for row in rows:
        speeds = {each: row["multiply_adds"] / row[each] for each in ("peer", "corvane")}
        times = [f"{row[each] * 1e3:.2f} ({speeds[each] / 1e9:.0f})" for each in speeds]
        ratio = f"{row['ratio']:.2f}"
        shares = [f"{speed / row['peak']:.0%}" for speed in speeds.values()]
        cells.append([str(row["rows"]), *times, f"**{ratio}**" if row["ratio"] > 1 else ratio, " / ".join(shares)])
    return table(["rows", "PyTorch int4", "corvane q4_0", "time to PyTorch's", "of the peak, both"], cells)


def model_table(rows: list[dict]) -> str:
    cells = []
    for row in rows:
        ratios = [row["prompt_ratio"], row["decode_ratio"]]
        speeds = [f"{row['prompt']:.0f}", f"{row['decode']:.1f}"]
        if "kernel_share" in row:
            marked = [f"**{ratio:.2f}**" if ratio < 1 else f"{ratio:.2f}" for ratio in ratios]
            speeds = [f"{speed} ({ratio})" for speed, ratio in zip(speeds, marked)]
        share = f"{row['kernel_share']:.0%}" if "kernel_share" in row else ""
        cells.append([row["model"], row["engine"], row["weights"], *speeds, share])
    return table(["model", "engine", "weights", "prompt, tokens/s", "decode, tokens/s", "kernels"], cells)


def about_line(measured: dict) -> str:
    about, products, models = measured["about"], measured["products"], measured["models"]
    ratios = [1 / row["ratio"] for row in products]
    ratios += [row[f"{what}_ratio"] for row in models if "kernel_share" in row for what in ("prompt", "decode")]
    slower = sum(ratio < 1 for ratio in ratios)
    peak = middle((row["peak"] / 1e9 for row in products), 3)
    return (
        f"Commit {about['commit']}, {about['processor_name']}, {about['threads']} threads, device name "
        f"\"{about['device']}\", {about['rounds']} rounds. Corvane is the slower one in {slower} of {len(ratios)} "
        f"comparisons. Peak of BFloat16 pair products: {peak:.0f} billion multiply-adds a second."
    )


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("demo_model", type=Path)
    parser.add_argument("--json", metavar="FILE", help="write the measurements there too")
    parser.add_argument("--rounds", type=int, default=5, metavar="N", help="the numbers shown are medians of N rounds")
    arguments = parser.parse_args()
    rounds, files = max(1, arguments.rounds), model_files(arguments.demo_model)
    cores, wanted = len(os.sched_getaffinity(0)), os.environ.get("OMP_NUM_THREADS", "")
    threads = min(cores, int(wanted)) if wanted.isdigit() and int(wanted) else cores
    products = measure_products(threads, rounds)
    print(product_table(products), end="\n\n", flush=True)
    models = []
    for name, file in files.items():
        models += measure_model(name, file, threads, rounds)
        print(model_table(models[-3:]), end="\n\n", flush=True)
    about = {"commit": commit(), "device": products[0]["about"]["device"], "processor_name": processor_name(),
             "threads": threads, "rounds": rounds}  # fmt: skip
    measured = {"about": about, "products": products, "models": models}
    print(about_line(measured))
    if arguments.json:
        Path(arguments.json).write_text(json.dumps(measured, indent=1))


if __name__ == "__main__":
    main()
