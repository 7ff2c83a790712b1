"""What the subcommands of `corvane` do, given their options."""

from __future__ import annotations

import argparse
import contextlib
import importlib.metadata
import json
import os
import platform
import sys
from collections.abc import Iterator
from pathlib import Path

import torch

from ..device import corvane, host_xpu
from ..formats import FORMATS
from ..generate import Speed, choose, clock
from ..generate import generate as generate_tokens
from ..generate import perplexity as perplexity_of
from ..llama import Llama
from ..parallel import Link
from ..quantize import summary
from ..storage import save
from ..weights import ModelError
from .group import processes
from .models import DEFAULT_FORMAT, DTYPES, ModelSource, tokenizer_of
from .report import Result, comparison_table, format_mix, launch_table, plot_comparison, size_line, speed_lines

PARAGRAPH = Path(__file__).parents[1] / "data" / "paragraph.txt"  # of all perplexities; no part of the sample text


def open_source(options: argparse.Namespace, link: Link | None = None) -> ModelSource:
    return ModelSource(options.model, not options.plain_rounding, link)


def prepared(model: Llama, options: argparse.Namespace) -> Llama:
    prompt_dtype = DTYPES[options.prompt_dtype] if options.prompt_dtype else None
    return model.prepare(DTYPES[options.dtype], not options.no_fused, not options.token_by_token, prompt_dtype)


def open_model(options: argparse.Namespace, link: Link | None = None) -> Llama:
    source = open_source(options, link)
    return prepared(source.dense() if options.dense else source.packed(options.format), options)


def generate(options: argparse.Namespace) -> None:
    """Stream text for the prompt; with --figures the prompt before, and speed, sizes and launches behind."""
    if options.tensor_parallel:
        with processes(options) as link:
            generate_with(options, link)
    else:
        generate_with(options, None)


def generate_with(options: argparse.Namespace, link: Link | None) -> None:
    model, speed = open_model(options, link), Speed()
    tokenizer = tokenizer_of(model)
    prompt = tokenizer.encode(options.prompt) if options.raw else tokenizer.chat(options.prompt)
    if options.figures:
        print(f"\n{options.prompt}\n")
    with torch.no_grad(), host_xpu.record_launches() if options.figures else contextlib.nullcontext([]) as launches:
        prefill_launches = 0

        def counted() -> Iterator[int]:
            nonlocal prefill_launches
            chosen = options.temperature, options.seed
            for token in generate_tokens(model, prompt, options.tokens, tokenizer.ends, speed, *chosen):
                prefill_launches = prefill_launches or len(launches)
                yield token

        for piece in tokenizer.stream(counted()):
            print(piece, end="", flush=True)
    print("\n" if options.figures else "")
    if not options.figures:
        return
    print(speed_lines(speed, "many rows a call" if model.many_rows else "token by token"))
    print(size_line(summary(model)))
    print(f"device    {host_xpu.device_name()}, {options.dtype} inputs\n")
    decode_launches = launches[prefill_launches:]
    if decode_launches:
        print("launches while decoding")
        print(launch_table(decode_launches, speed.decode_tokens))


def chat(options: argparse.Namespace) -> None:
    """A conversation: a line is a turn; the cache keeps what stays the same from turn to turn."""
    model = open_model(options)
    tokenizer = tokenizer_of(model)
    cache = model.new_cache(options.context or min(model.config.context, 4096))
    messages = [{"role": "system", "content": options.system}] if options.system else []
    first_turn = len(messages)
    read: list[int] = []  # tokens that the cache holds
    generator = torch.Generator().manual_seed(options.seed)
    while True:
        try:
            line = input("> ")
        except KeyboardInterrupt:
            print()
            continue
        except EOFError:
            print()
            return
        if not line.strip():
            continue
        messages.append({"role": "user", "content": line})
        prompt = tokenizer.chat(messages)
        while len(prompt) + 1 > cache.capacity and len(messages) > first_turn + 1:
            del messages[first_turn : first_turn + 2]  # the oldest turn and its answer
            prompt = tokenizer.chat(messages)
        if len(prompt) + 1 > cache.capacity:
            print(f"corvane: this text takes {len(prompt)} tokens, the context has {cache.capacity}", file=sys.stderr)
            messages.pop()
            continue
        same = next((i for i, (a, b) in enumerate(zip(read, prompt)) if a != b), min(len(read), len(prompt)))
        same = min(same, len(prompt) - 1)
        cache.cut(same)
        answer: list[int] = []
        count = min(options.tokens, cache.capacity - len(prompt))

        def answer_tokens() -> Iterator[int]:
            logits = model.forward(prompt[same:], cache)
            for _ in range(count):
                token = choose(logits, options.temperature, generator)
                if token in tokenizer.ends:
                    return
                answer.append(token)
                yield token
                logits = model.forward([token], cache)

        with torch.no_grad():
            try:
                for piece in tokenizer.stream(answer_tokens()):
                    print(piece, end="", flush=True)
            except KeyboardInterrupt:
                pass  # ends the answer, not the conversation
        print()
        read = [*prompt, *answer][: cache.length]
        messages.append({"role": "assistant", "content": tokenizer.decode(answer)})


def pack(options: argparse.Namespace) -> None:
    """Pack a model and write it, with its tokenizer."""
    if options.folder.exists() and (not options.folder.is_dir() or any(options.folder.iterdir())):
        raise ModelError(f"{options.folder}: exists and is not an empty folder")
    model = open_source(options).packed(options.format)
    save(model, options.folder)
    print(summary(model))


def bench(options: argparse.Namespace) -> None:
    """Prompt and decoding speed, over the sample paragraph's tokens, decoding whatever is likeliest."""
    source = open_source(options)
    model = prepared(source.dense() if options.dense else source.packed(options.format), options)
    text = tokenizer_of(model).encode(PARAGRAPH.read_text().strip())
    prompt = (text * (options.prompt_tokens // len(text) + 1))[: options.prompt_tokens]
    with torch.no_grad():
        list(generate_tokens(model, prompt[:8], 4, set(), Speed()))  # what a first call has to set up
        speed = Speed()
        list(generate_tokens(model, prompt, options.tokens + 1, set(), speed))
        # The share of kernels in decoding comes from a run of its own, since recording costs time.
        cache = model.new_cache(len(prompt) + options.tokens)
        logits = model.forward(prompt, cache)
        start = clock()
        with host_xpu.record_launches() as launches:
            for _ in range(options.tokens):
                logits = model.forward([int(logits.argmax())], cache)
        seconds = clock() - start
    found = summary(model)
    figures = {
        "model": source.name,
        "format": "dense" if options.dense else main_format(model),
        "dtype": options.dtype,
        "device": host_xpu.device_name(),
        "threads": thread_count(),
        "prompt_tokens": speed.prefill_tokens,
        "prompt_tokens_per_s": round(speed.prefill, 2),
        "tokens": speed.decode_tokens,
        "tokens_per_s": round(speed.decode, 2),
        "packed_bytes": found.bytes,
        "kernel_share": round(sum(launch.duration_ns for launch in launches) / 1e9 / seconds, 3),
    }
    if options.json:
        print(json.dumps(figures))
        return
    for key, value in figures.items():
        print(f"{key:<20} {value}")


def main_format(model: Llama) -> str:
    """The format of most layers."""
    return next(iter(summary(model).formats()))


def thread_count() -> int:
    """Cores that the device uses."""
    cores, wanted = len(os.sched_getaffinity(0)), os.environ.get("OMP_NUM_THREADS", "")
    return min(cores, int(wanted)) if wanted.isdigit() and int(wanted) else cores


def measure(model: Llama, name: str, text: str, options: argparse.Namespace) -> Result:
    """Perplexity of a text, decode speed from the same run, prompt speed from one more."""
    prepared(model, options)
    tokens, speed = tokenizer_of(model).encode(text), Speed()
    if len(tokens) < 2:
        raise ModelError("the text is too short: its perplexity needs two tokens")
    value = perplexity_of(model, tokens, speed)
    cache = model.new_cache(len(tokens))
    start = clock()
    model.forward(tokens, cache)
    speed.prefill_tokens, speed.prefill_seconds = len(tokens), clock() - start
    found = summary(model)
    return Result(name, format_mix(found), found.bytes, value, speed)


def perplexity(options: argparse.Namespace) -> None:
    """Packed and dense in turn; a format that the model cannot have is left out of the comparison."""
    source = open_source(options)
    text = (options.text or PARAGRAPH).read_text().strip()
    results = []
    with torch.no_grad():
        if source.is_saved or (options.dense and not options.compare):
            model = source.dense() if options.dense else source.packed(options.format)
            results.append(measure(model, "dense" if options.dense else main_format(model), text, options))
        else:
            names = list(FORMATS) if options.compare else [options.format or DEFAULT_FORMAT]
            for name in names:
                try:
                    results.append(measure(source.packed(name), name, text, options))
                except (ModelError, RuntimeError) as error:
                    if not options.compare:
                        raise
                    print(f"{name}: left out: {str(error).splitlines()[0]}", file=sys.stderr)
            results.append(measure(source.dense(), "dense", text, options))
    print(comparison_table(results))
    if options.plot:
        plot_comparison(results, options.plot)
        print(f"plot in {options.plot}")


def version_of(package: str) -> str:
    try:
        return importlib.metadata.version(package)
    except importlib.metadata.PackageNotFoundError:
        return "not installed"


def info(options: argparse.Namespace) -> None:
    """What a report of a fault should begin with."""
    del options
    packages = ("numpy", "gguf", "safetensors", "tokenizers", "transformers")
    lines = {
        "corvane": corvane.__version__,
        "torch": torch.__version__,
        **{package: version_of(package) for package in packages},
        "python": platform.python_version(),
        "system": platform.platform(),
        "device": host_xpu.device_name(),
        "threads": thread_count(),
        "formats": ", ".join(FORMATS),
    }
    settings = ("HOST_XPU_", "OMP_", "VOREL_", "TILE_", "TARN_")
    lines.update({name: value for name, value in sorted(os.environ.items()) if name.startswith(settings)})
    for key, value in lines.items():
        print(f"{key:<14} {value}")
