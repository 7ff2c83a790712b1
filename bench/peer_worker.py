"""What bench/peers.py measures: one engine in a process of its own, asked and answering by lines of JSON.

Each engine has the interpreter that it is installed for, hence the imports where they are used.
"""

from __future__ import annotations

import itertools
import json
import os
import statistics
import sys
import time
from collections.abc import Callable

import numpy as np

CONTEXT = 512
N = K = 4096
STREAMED = 256 << 20  # bytes of copies that the products go round: more than a cache holds


class LlamaCpp:
    """The peer, with the settings that it comes with."""

    def __init__(self, threads: int, file: str) -> None:
        import llama_cpp

        self.library = llama_cpp
        self.model = llama_cpp.Llama(
            file, n_ctx=CONTEXT, n_threads=threads, n_threads_batch=threads, verbose=False
        )  # fmt: skip
        self.about = {"engine": f"llama-cpp-python {llama_cpp.__version__}"}

    def begin(self) -> None:
        self.model.reset()

    def feed(self, tokens: list[int]) -> None:
        self.model.eval(tokens)

    def logits(self) -> np.ndarray:
        found = self.library.llama_get_logits_ith(self.model.ctx, -1)
        return np.ctypeslib.as_array(found, (self.model.n_vocab(),))


class Corvane:
    """corvane_runtime, as `corvane generate` runs a file but for the importance of inputs, which changes no speed."""

    def __init__(self, threads: int, file: str) -> None:
        import host_xpu
        import torch

        from corvane_runtime import load_gguf, summary

        torch.set_num_threads(threads)
        torch.set_grad_enabled(False)
        self.platform, self.model = host_xpu, load_gguf(file, "q4_0")
        weights = ", ".join(f"{name} x {count}" for name, count in summary(self.model).formats().items())
        engine = f"corvane, PyTorch {torch.__version__.split('+')[0]}"
        self.about = {"engine": engine, "weights": weights, "device": host_xpu.device_name()}

    def begin(self) -> None:
        self.cache = self.model.new_cache(CONTEXT)

    def feed(self, tokens: list[int]) -> None:
        self.found = self.model.forward(tokens, self.cache)
        self.platform.synchronize()

    def logits(self) -> np.ndarray:
        return self.found[0].cpu().numpy()

    def kernel_share(self, prompt: list[int], following: list[int]) -> float:
        """Of the time of decoding, the kernels' part; in a run of its own, since recording costs time."""
        self.begin()
        self.feed(prompt)
        with self.platform.record_launches() as launches:
            seconds = timed(lambda: [self.feed([token]) for token in following])
        return sum(launch.duration_ns for launch in launches) / 1e9 / seconds


class Products:
    """4096 x 4096 in BFloat16: PyTorch's own int4 product, groups of 64, and q4_0, whose blocks have 64 elements."""

    def __init__(self, threads: int) -> None:
        import bench_memory
        import corvane
        import host_xpu
        import torch

        from corvane_runtime import pack

        torch.set_num_threads(threads)
        torch.set_grad_enabled(False)
        self.torch, self.corvane, self.machine = torch, corvane, bench_memory
        self.about = {"engine": f"PyTorch {torch.__version__.split('+')[0]}", "device": host_xpu.device_name()}
        self.weight = torch.randn(N, K, generator=torch.Generator().manual_seed(0)) * 0.02
        groups = self.weight.view(N, K // 64, 64)
        scales = groups.abs().amax(dim=2) / 7
        codes = (groups / scales[..., None]).round().to(torch.int32).view(N, K) + 8
        packed = torch.ops.aten._convert_weight_to_int4pack_for_cpu(codes, 2)
        copies = STREAMED // packed.numel()
        self.scales = torch.stack([scales.T, torch.zeros_like(scales.T)], dim=2).to(torch.bfloat16).contiguous()
        self.peer_weights = [packed.clone() for _ in range(copies)]
        own = pack(self.weight, "q4_0")
        self.weights = [own.to("xpu") for _ in range(copies)]
        self.turn = itertools.count()

    def measure(self, rows: int) -> dict[str, float]:
        """Seconds of a call of each, its multiply-adds, and how many of those the machine can do in a second."""
        torch = self.torch
        x = torch.randn(rows, K).to(torch.bfloat16)
        on_device, expected = x.to("xpu"), x.float() @ self.weight.T

        def peer() -> torch.Tensor:
            weight = self.peer_weights[next(self.turn) % len(self.peer_weights)]
            return torch.ops.aten._weight_int4pack_mm_for_cpu(x, weight, 64, self.scales)

        def own() -> torch.Tensor:
            return self.corvane.forward_new(on_device, self.weights[next(self.turn) % len(self.weights)], 2, rows)

        for product in (peer, own):
            error = (product().cpu().float() - expected).norm() / expected.norm()
            assert error < 0.2, f"wrong result, relative error {error}"
        multiply_adds = 1 << 30
        peak = multiply_adds / seconds_of(lambda: self.machine.multiply_pairs(multiply_adds))
        work = rows * N * K
        return {"peer": seconds_of(peer), "corvane": seconds_of(own), "multiply_adds": work, "peak": peak}


def timed(call: Callable[[], object]) -> float:
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


def seconds_of(call: Callable[[], object]) -> float:
    """Median of calls in a row, after a pause: a neighbour's threads wait busily for some milliseconds after work."""
    time.sleep(0.2)
    call()
    return statistics.median(timed(call) for _ in range(min(40, max(5, int(0.2 / timed(call))))))


def speeds(engine: LlamaCpp | Corvane, prompt: list[int], following: list[int]) -> dict[str, float]:
    """Tokens a second of the prompt, and of tokens given one by one; choosing a token is not part of it."""
    engine.begin()
    prompt_seconds = timed(lambda: engine.feed(prompt))
    decode_seconds = timed(lambda: [engine.feed([token]) for token in following])
    return {"prompt": len(prompt) / prompt_seconds, "decode": len(following) / decode_seconds}


def likeliest(engine: LlamaCpp | Corvane, prompt: list[int]) -> list[int]:
    """The hundred tokens that the engine holds for likeliest after the prompt."""
    engine.begin()
    engine.feed(prompt)
    return engine.logits().argsort()[-100:].tolist()


def main() -> None:
    answers = os.fdopen(os.dup(1), "w", buffering=1)
    os.dup2(2, 1)  # what a library prints is no answer
    kind, threads, *file = sys.argv[1:]
    engine = {"llama-cpp": LlamaCpp, "corvane": Corvane, "products": Products}[kind](int(threads), *file)
    asked = {
        "about": lambda: engine.about,
        "products": lambda rows: engine.measure(rows),
        "speeds": lambda *tokens: speeds(engine, *tokens),
        "likeliest": lambda prompt: likeliest(engine, prompt),
        "kernel_share": lambda *tokens: engine.kernel_share(*tokens),
    }
    for line in sys.stdin:
        what, *arguments = json.loads(line)
        print(json.dumps(asked[what](*arguments)), file=answers)


if __name__ == "__main__":
    main()
