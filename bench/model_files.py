"""Peak memory of packing a safetensors model, and the time of loading it again against a plain read of its file.

The model has random weights: 0.8 billion of them in 16 layers. It is written into a folder that is removed afterwards. Run
it with

    PYTHONPATH=build/python:python .venv/bin/python bench/model_files.py
"""

from __future__ import annotations

import json
import resource
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import torch
from safetensors.torch import save_file

SIZES = {"hidden": 2048, "layers": 16, "mlp": 5632, "heads": 32, "kv_heads": 8, "vocabulary": 32000}
RUNS = 5


def write_model(folder: Path) -> int:
    """Write the model in bfloat16, one file a layer; gives the bytes of its largest linear layer in float."""
    generator = torch.Generator().manual_seed(0)

    def random(*shape: int) -> torch.Tensor:
        return torch.randn(shape, generator=generator).mul_(0.02).to(torch.bfloat16)

    hidden, mlp, kv = SIZES["hidden"], SIZES["mlp"], SIZES["hidden"] // SIZES["heads"] * SIZES["kv_heads"]
    for i in range(SIZES["layers"]):
        layer = {
            "self_attn.q_proj": random(hidden, hidden),
            "self_attn.k_proj": random(kv, hidden),
            "self_attn.v_proj": random(kv, hidden),
            "self_attn.o_proj": random(hidden, hidden),
            "mlp.gate_proj": random(mlp, hidden),
            "mlp.up_proj": random(mlp, hidden),
            "mlp.down_proj": random(hidden, mlp),
            "input_layernorm": torch.ones(hidden),
            "post_attention_layernorm": torch.ones(hidden),
        }
        tensors = {f"model.layers.{i}.{name}.weight": values for name, values in layer.items()}
        save_file(tensors, folder / f"layer-{i:02}.safetensors")
    outer = {"model.embed_tokens.weight": random(SIZES["vocabulary"], hidden), "model.norm.weight": torch.ones(hidden)}
    save_file({**outer, "lm_head.weight": random(SIZES["vocabulary"], hidden)}, folder / "outer.safetensors")
    about = {
        "model_type": "llama",
        "num_hidden_layers": SIZES["layers"],
        "hidden_size": hidden,
        "num_attention_heads": SIZES["heads"],
        "num_key_value_heads": SIZES["kv_heads"],
        "intermediate_size": mlp,
        "vocab_size": SIZES["vocabulary"],
        "max_position_embeddings": 2048,
        "rms_norm_eps": 1e-5,
    }
    (folder / "config.json").write_text(json.dumps(about))
    return 4 * max(SIZES["vocabulary"], mlp) * hidden


def resident() -> int:
    """Bytes of memory that the process holds and that no file stands behind."""
    status = Path("/proc/self/status").read_text().split()
    return int(status[status.index("RssAnon:") + 1]) * 1024


def pack(folder: Path, packed: Path) -> None:
    """Pack in q4_0, save, and print the peak of the memory that was taken meanwhile, and what the model's weights are."""
    from corvane_runtime import load_folder, save, summary

    before, peak, done = resident(), 0, threading.Event()

    def watch() -> None:
        nonlocal peak
        while not done.wait(0.002):
            peak = max(peak, resident())

    watcher = threading.Thread(target=watch)
    watcher.start()
    model = load_folder(folder, "q4_0")
    done.set()
    watcher.join()
    save(model, packed)
    embedding = model.model.embed_tokens.weight.numel()
    print(json.dumps({"peak": peak - before, "packed": summary(model).bytes, "embedding": embedding}))


def load(packed: Path) -> None:
    """Load and read in turn; the files are in the page cache in both cases."""
    import corvane_runtime

    for _ in range(RUNS):
        start = time.perf_counter()
        for file in packed.iterdir():
            file.read_bytes()
        read = time.perf_counter() - start
        start = time.perf_counter()
        corvane_runtime.load(packed)
        print(f"read {read:.2f} s, load {time.perf_counter() - start:.2f} s")
    print(f"largest memory of the process {resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024:.0f} MB")


def main() -> None:
    if len(sys.argv) > 1:
        {"pack": pack, "load": load}[sys.argv[1]](*map(Path, sys.argv[2:]))
        return
    with tempfile.TemporaryDirectory() as place:
        folder, packed = Path(place, "dense"), Path(place, "packed")
        folder.mkdir()
        largest = write_model(folder)
        command = [sys.executable, __file__]
        out = subprocess.run([*command, "pack", folder, packed], check=True, capture_output=True, text=True).stdout
        found = json.loads(out)
        bound = found["packed"] + found["embedding"] + 2 * largest + 300_000_000
        print(
            f"packing: peak {found['peak'] / 1e6:.0f} MB; packed weights, embedding, the largest layer in float twice"
        )
        print(f"  and 300 MB are {bound / 1e6:.0f} MB")
        subprocess.run([*command, "load", packed], check=True)


if __name__ == "__main__":
    main()
