"""Fuzzer of the loaders: a small model as a GGUF file, as save() writes it and as transformers does, in each input with
something changed about its JSON, its header or its bytes. The answer is a whole model or a ModelError, within 20 seconds
and a gigabyte. Each input is loaded in a process of its own and follows from a seed and its number.

    PYTHONPATH=build/python:python:tests/python .venv/bin/python fuzz/loaders.py [inputs] [--seed N] [--first N]
"""

from __future__ import annotations

import argparse
import collections
import json
import os
import random
import resource
import shutil
import signal
import sys
import tempfile
import traceback
from collections.abc import Callable
from pathlib import Path

import tiny_llama
import torch
from safetensors.torch import save_file

from corvane_runtime import ModelError, load, load_folder, load_gguf, save
from corvane_runtime.llama.gguf_file import GgufWeights

ODD = [None, True, -1, 0, 1, 3, 64, 1 << 20, 1 << 31, 1 << 62, 1 << 70, 0.5, 1e308, float("nan"), "", "x", "../x", "F64",
       "float64", "linear", "llama3", "q8_0", "fp6_k", [], [0, 0], [1 << 40, 1 << 40], {}, {"x": 1}]  # fmt: skip
HEADER = 12000  # bytes of the GGUF file before its tensors
SECONDS, MEMORY = 20, 1 << 30  # of the processor, and above what the process has before


def places(value: object) -> list[tuple[dict | list, str | int]]:
    """Every member of every object and list in a JSON value."""
    members = value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ()
    return [at for key, inner in members for at in [(value, key), *places(inner)]]


def change_json(text: bytes, pick: random.Random) -> bytes:
    value = json.loads(text)
    for _ in range(pick.choice([1, 1, 2])):
        at = places(value)
        if not at:
            break
        owner, key = pick.choice(at)
        kind = pick.random()
        if kind < 0.2:
            del owner[key]
        elif kind < 0.4:  # what stands elsewhere in the file
            other, name = pick.choice(at)
            owner[key] = json.loads(json.dumps(other[name]))
        else:
            owner[key] = pick.choice(ODD)
    return json.dumps(value).encode()


def change_bytes(data: bytes, pick: random.Random, most: int) -> bytes:
    changed = bytearray(data)
    kind = pick.random()
    if kind < 0.1:
        return bytes(changed[: pick.randrange(len(changed))])
    for _ in range(pick.choice([1, 1, 3])):
        at = pick.randrange(min(most, len(changed)))
        if kind < 0.5:
            width = pick.choice([1, 4, 8])
            odd = pick.choice([0, 1, 2, 12, 255, 1 << 31, 1 << 40, (1 << 63) - 1, (1 << 64) - 1]) % (1 << 8 * width)
            changed[at : at + width] = odd.to_bytes(width, "little")
        elif kind < 0.9:
            changed[at] ^= 1 << pick.randrange(8)
        else:
            del changed[at : at + pick.randint(1, 9)]
    return bytes(changed)


def change_file(path: Path, pick: random.Random) -> None:
    data = path.read_bytes()
    if path.suffix == ".json" and pick.random() < 0.85:
        changed = change_json(data, pick)
    elif path.suffix == ".safetensors" and pick.random() < 0.7:
        size = int.from_bytes(data[:8], "little")
        header = change_json(data[8 : 8 + size], pick)
        changed = len(header).to_bytes(8, "little") + header + data[8 + size :]
    else:
        changed = change_bytes(data, pick, HEADER)
    path.write_bytes(changed)


def models(folder: Path) -> list[tuple[Path, Callable]]:
    """Folders with the same model three times, and how each is loaded."""
    places = [folder / kind for kind in ("gguf", "saved", "shards")]
    for place in places:
        place.mkdir()
    file = tiny_llama.write_model(places[0] / "model.gguf", sizes=(2, 1, 256))
    save(load_gguf(file, "q4_0"), places[1])
    source, model = GgufWeights(file), load_gguf(file)
    model.tokenizer.save(places[2])
    tensors = [(name, source.dense(name)) for name in model.state_dict() if name in source]
    shards = {f"model-{i}.safetensors": dict(tensors[i::2]) for i in range(2)}
    for name, shard in shards.items():
        save_file({key: value.contiguous() for key, value in shard.items()}, places[2] / name)
    weight_map = {key: name for name, shard in shards.items() for key in shard}
    (places[2] / "model.safetensors.index.json").write_text(json.dumps({"metadata": {}, "weight_map": weight_map}))
    config = {"model_type": "llama", "num_hidden_layers": 2, "num_attention_heads": 2, "num_key_value_heads": 1,
              "hidden_size": 256, "head_dim": 64, "intermediate_size": 256, "vocab_size": tiny_llama.VOCABULARY,
              "max_position_embeddings": 128, "rms_norm_eps": 1e-5, "rope_theta": 1e4, "tie_word_embeddings": True,
              "rope_scaling": {"rope_type": "llama3", "factor": 8.0, "low_freq_factor": 1.0, "high_freq_factor": 4.0,
                               "original_max_position_embeddings": 64}}  # fmt: skip
    (places[2] / "config.json").write_text(json.dumps(config))
    loaders = [lambda p: load_gguf(p / "model.gguf", "q4_0"), load, load_folder]
    for place, loader in zip(places, loaders, strict=True):
        whole(loader(place))
    return list(zip(places, loaders, strict=True))


def whole(model: torch.nn.Module) -> None:
    """AssertionError: a model that is not filled, or that makes no logits of a token."""
    missing = [name for name, tensor in model.state_dict(keep_vars=True).items() if tensor.is_meta]
    assert not missing, f"a model without {missing[0]}"
    logits = model([1], model.new_cache(2))
    assert logits.shape == (1, model.config.vocabulary), f"logits {tuple(logits.shape)}"
    if model.tokenizer is not None:
        model.tokenizer.decode(model.tokenizer.encode("the é"))


def answer(place: Path, loader: Callable) -> int:
    """In a process of its own: 0 for a model, 1 for a refusal, 2 with what else it was on standard error."""
    try:
        pages = int(Path("/proc/self/statm").read_text().split()[0])
        resource.setrlimit(resource.RLIMIT_AS, (pages * resource.getpagesize() + MEMORY,) * 2)
        signal.signal(signal.SIGPROF, signal.SIG_DFL)
        signal.setitimer(signal.ITIMER_PROF, SECONDS)
        whole(loader(place))
    except ModelError:
        return 1
    except BaseException:
        traceback.print_exc()
        return 2
    return 0


def outcome(place: Path, loader: Callable, pick: random.Random) -> int:
    """What came of a model with a file changed: as answer(), or a signal's number, negative."""
    with tempfile.TemporaryDirectory() as folder:
        changed = Path(folder) / place.name
        shutil.copytree(place, changed)
        change_file(pick.choice(sorted(changed.iterdir())), pick)
        child = os.fork()
        if child == 0:
            os._exit(answer(changed, loader))
        return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("inputs", nargs="?", type=int, default=1000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--first", type=int, default=0)
    options = parser.parse_args()
    counts: collections.Counter = collections.Counter()
    with tempfile.TemporaryDirectory() as folder:
        known = models(Path(folder))
        for number in range(options.first, options.first + options.inputs):
            place, loader = known[number % len(known)]
            status = outcome(place, loader, random.Random(f"{options.seed} {number}"))
            what = {0: "models", 1: "refusals"}.get(status, "failures")
            counts[f"{place.name}: {what}"] += 1
            if what == "failures":
                print(f"input {number} ({place.name}) ended with {status}: --seed {options.seed} --first {number} 1",
                      file=sys.stderr)  # fmt: skip
    print("loaders:", ", ".join(f"{count} {what}" for what, count in sorted(counts.items())))
    failures = sum(count for what, count in counts.items() if what.endswith("failures"))
    print(f"loaders: {failures} failed" if failures else "loaders: passed")
    return int(failures > 0)


if __name__ == "__main__":
    sys.exit(main())
