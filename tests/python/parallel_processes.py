"""Several processes of one model for the tests: how they are started, and what each of them does.

python parallel_processes.py JOB JSON     with the variables that torchrun sets
"""

from __future__ import annotations

import json
import os
import socket
import struct
import subprocess
import sys
from collections.abc import Sequence
from pathlib import Path

ROOT = Path(__file__).parents[2]
LIMIT = 600  # seconds for a group's exchanges, where a test does not say otherwise
TOKENS = [5, 200, 31, 31, 90, 262, 7]


def environment() -> dict[str, str]:
    paths = f"{ROOT / 'python'}:{os.environ.get('PYTHONPATH', '')}"
    return {**os.environ, "PYTHONPATH": paths, "OMP_NUM_THREADS": "1"}


def free_port() -> int:
    with socket.socket() as found:
        found.bind(("127.0.0.1", 0))
        return found.getsockname()[1]


def start(count: int, command: Sequence[str], *more: Sequence[str]) -> list[subprocess.Popen]:
    """Start so many processes of a group, each with one thread; `more` has further arguments for each rank."""
    port = str(free_port())
    found = []
    for rank in range(count):
        own = {"RANK": str(rank), "WORLD_SIZE": str(count), "MASTER_ADDR": "127.0.0.1", "MASTER_PORT": port}
        own |= {"LOCAL_RANK": str(rank), "LOCAL_WORLD_SIZE": str(count)}
        variables = {**environment(), **own}
        line = [sys.executable, *command, *(more[rank] if rank < len(more) else [])]
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        found.append(subprocess.Popen(line, env=variables, text=True, **pipes))
    return found


def finish(processes: list[subprocess.Popen], seconds: float = LIMIT) -> list[tuple[int, str, str]]:
    """Exit status, output and errors of each; whatever still runs is killed."""
    try:
        outputs = [process.communicate(timeout=seconds) for process in processes]
    finally:
        for process in processes:
            process.kill()
    return [(process.returncode, *output) for process, output in zip(processes, outputs, strict=True)]


def run(count: int, job: str, **arguments: object) -> list[dict]:
    """What each of so many processes gave back for a job, one of the functions below."""
    results = finish(start(count, [__file__, job, json.dumps(arguments, default=str)]))
    assert [status for status, _, _ in results] == [0] * count, "\n".join(errors for _, _, errors in results)
    return [json.loads(output.splitlines()[-1]) for _, output, _ in results]


# --- what they do ----------------------------------------------------------------------------------------------------


def tcp_bytes() -> int:
    """Bytes of payload that all TCP connections of this process have sent, as the kernel counts them."""
    total = 0
    for entry in os.listdir("/proc/self/fd"):
        try:
            is_socket = os.readlink(f"/proc/self/fd/{entry}").startswith("socket:")
        except OSError:
            continue
        if not is_socket:
            continue
        with socket.socket(fileno=os.dup(int(entry))) as found:
            if found.family in (socket.AF_INET, socket.AF_INET6) and found.type == socket.SOCK_STREAM:
                information = found.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 256)
                total += struct.unpack_from("Q", information, 200)[0]  # tcpi_bytes_sent
    return total


def group():  # noqa: ANN201
    from corvane_runtime.parallel import begin, link_to

    begin(LIMIT)
    return link_to()


def held(model) -> int:  # noqa: ANN001
    from corvane_runtime import PackedLinear

    return sum(layer.weight.numel() for layer in model.modules() if isinstance(layer, PackedLinear))


def figures(model) -> dict:  # noqa: ANN001
    """Logits after each token fed one by one, 32 greedy tokens and sampled ones, and the packed bytes."""
    import torch

    from corvane_runtime import generate
    from corvane_runtime.generate import Speed

    model.prepare(many_rows=False)
    cache = model.new_cache(len(TOKENS))
    logits = torch.cat([model.forward([token], cache) for token in TOKENS])
    return {
        "logits": logits.cpu().tolist(),
        "greedy": list(generate(model, TOKENS, 32, set(), Speed())),
        "sampled": list(generate(model, TOKENS, 8, set(), Speed(), temperature=1.0, seed=3)),
        "cache": list(cache.keys[0].shape),
        "bytes": held(model),
    }


def saved(folders: list[str]) -> list[dict]:
    """Figures of models that save() wrote."""
    from corvane_runtime import load

    link = group()
    found = [figures(load(folder, link=link)) for folder in folders]
    link.close()
    return found


def shares(source: str, folder: str, packed: str, importance: str) -> dict[str, list[str]]:
    """Tensors of shares, had in other ways, that differ from those of a saved model: of a GGUF file and of a folder of
    transformers, packed here, and of a whole model, cut here."""
    import torch

    from corvane_runtime import load, load_folder, load_gguf, load_importance
    from corvane_runtime.parallel import shard_

    link = group()
    expected = load(packed, link=link).state_dict()
    columns = load_importance(importance)
    ways = {
        "file": lambda: load_gguf(source, "q4_0", columns, link=link),
        "folder": lambda: load_folder(folder, "q4_0", columns, link=link),
        "whole": lambda: shard_(load(packed)),
    }
    found = {}
    for name, way in ways.items():
        got = way().state_dict()
        assert list(got) == list(expected)
        found[name] = [key for key in got if not torch.equal(got[key], expected[key])]
    link.close()
    return found


def transformers_model(folder: str, cut: bool) -> dict:
    """Logits of a token, and greedy tokens over both kinds of caches, of a model of transformers that quantize_ packed."""
    import torch
    from transformers import AutoModelForCausalLM

    from corvane_runtime import fuse_, quantize_
    from corvane_runtime.parallel import shard_

    model = fuse_(quantize_(AutoModelForCausalLM.from_pretrained(folder), "q4_0").to("xpu"))
    if cut:
        group()
        shard_(model)
    tokens = torch.tensor([TOKENS]).to("xpu")
    options = {"max_new_tokens": 12, "do_sample": False, "eos_token_id": None, "disable_compile": True}
    # One row, since several are multiplied in half.
    found = {"logits": model(tokens[:, :1]).logits[0].cpu().tolist(), "bytes": held(model)}
    for cache in ("dynamic", "static"):
        found[cache] = model.generate(tokens, cache_implementation=cache, **options)[0].tolist()
    return found


def sent(folder: str) -> dict:
    """What decoding a token takes: exchanges, bytes that go into them, and bytes that the kernel has sent."""
    from corvane_runtime import load

    link = group()
    model = load(folder, link=link)
    cache = model.new_cache(64)
    token = model.likeliest(TOKENS, cache)
    link.watch.close()  # the signs of life are no part of a token
    before = link.sums, link.gathers, link.payload, tcp_bytes()
    for _ in range(20):
        token = model.likeliest([token], cache)
    after = link.sums, link.gathers, link.payload, tcp_bytes()
    return dict(zip(("sums", "gathers", "payload", "tcp"), ((b - a) / 20 for a, b in zip(before, after)), strict=True))


if __name__ == "__main__":
    import torch

    with torch.no_grad():
        print(json.dumps(globals()[sys.argv[1]](**json.loads(sys.argv[2]))))
