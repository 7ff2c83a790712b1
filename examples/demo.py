"""Generates text with a Llama model whose linear layers are packed to low-bit weights, and says what it cost.

Run through scripts/demo.sh, which builds the modules and fetches the model.
"""

from __future__ import annotations

import argparse
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

from llama import device  # noqa: F401  isort: skip  (first: it says what to do when a module is missing)
import torch
from llama.calibrate import SAMPLE_TEXT, Importance, load_importance
from llama.generate import Speed, clock, generate, perplexity
from llama.gguf_model import GgufModel, ModelError
from llama.linear import Weights, load_dense, load_packed, model_elements
from llama.model import Llama
from packers import FORMATS
from report import Result, comparison_table, format_mix, launch_table, plot_comparison, size_line, speed_lines
from tqdm import tqdm

import host_xpu

ROOT = Path(__file__).parents[1]
PARAGRAPH = ROOT / "examples" / "data" / "paragraph.txt"  # the text of all perplexities; no part of the sample text
PLOT = ROOT / "docs" / "formats.png"
DTYPES = {"float": torch.float32, "half": torch.float16, "bfloat16": torch.bfloat16}


def parse_options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="scripts/demo.sh", description=__doc__.splitlines()[0])
    parser.add_argument("--gguf", type=Path, help="model file to use instead of the one that is fetched")
    parser.add_argument("--prompt", default="Why is the sky blue?", help="what to ask the model (default: %(default)s)")
    parser.add_argument("--raw", action="store_true", help="continue the prompt as it is, without the chat form")
    parser.add_argument("--tokens", type=int, default=80, help="most tokens to generate (default: %(default)s)")
    parser.add_argument("--temperature", type=float, default=0.0, help="0 takes the likeliest token (the default)")
    parser.add_argument("--seed", type=int, default=0, help="for sampling at a temperature above 0")
    parser.add_argument("--format", choices=sorted(FORMATS), default="q4_0", help="of weights (default: %(default)s)")
    parser.add_argument("--dense", action="store_true", help="dense weights of the chosen dtype instead of packed ones")
    parser.add_argument("--dtype", choices=DTYPES, default="float", help="of inputs and caches (default: %(default)s)")
    parser.add_argument("--no-fused", action="store_true", help="decode without the fused operators")
    parser.add_argument("--token-by-token", action="store_true", help="feed the prompt in calls of one row")
    parser.add_argument("--plain-rounding", action="store_true", help="pack without the inputs' importance")
    parser.add_argument("--perplexity", action="store_true", help="of a paragraph, packed against dense; no generation")
    parser.add_argument("--compare", action="store_true", help=f"all formats as a table, and a plot in {PLOT.name}")
    options = parser.parse_args()
    if options.tokens < 1:
        parser.error("--tokens must be at least 1")
    if options.gguf is None:
        parser.error("--gguf FILE is needed here; scripts/demo.sh fetches a model by itself")
    return options


class Demo:
    """An opened model and the options that all runs share."""

    def __init__(self, options: argparse.Namespace) -> None:
        self.options = options
        self.model = GgufModel(options.gguf)
        self.dtype = DTYPES[options.dtype]
        self._importance: Importance | None = None

    def importance(self) -> Importance | None:
        """Importance of the inputs, measured at the first use of a model and kept beside the built files."""
        if self._importance is None and not self.options.plain_rounding:
            tokens = len(self.model.tokenizer.encode(SAMPLE_TEXT.read_text()))
            cache = ROOT / "build" / "models" / f"{self.model.path.stem}.importance.npz"
            with progress_bar("reading the sample text", tokens, "token") as advance:
                self._importance = load_importance(self.model, cache, advance)
        return self._importance

    def pack(self, format_name: str) -> Weights:
        importance = self.importance()
        with progress_bar(f"packing {format_name}", model_elements(self.model), "weight") as advance:
            return load_packed(self.model, format_name, importance, advance)

    def llama(self, weights: Weights) -> Llama:
        options = self.options
        return Llama(self.model, weights, self.dtype, not options.no_fused, not options.token_by_token)

    def generate(self) -> None:
        """Stream text for the prompt, then the figures."""
        options, tokenizer = self.options, self.model.tokenizer
        weights = load_dense(self.model, self.dtype) if options.dense else self.pack(options.format)
        llama, speed = self.llama(weights), Speed()
        prompt = tokenizer.encode(options.prompt if options.raw else tokenizer.chat(options.prompt))
        print(f"\n{options.prompt}\n")
        with host_xpu.record_launches() as launches:
            prefill_launches = 0

            def counted():
                nonlocal prefill_launches
                for token in generate(
                    llama, prompt, options.tokens, tokenizer.ends, speed, options.temperature, options.seed
                ):
                    prefill_launches = prefill_launches or len(launches)
                    yield token

            for piece in tokenizer.stream(counted()):
                print(piece, end="", flush=True)
        print("\n")
        print(speed_lines(speed, "one call" if llama.many_rows else "token by token"))
        print(size_line(weights))
        print(f"device    {host_xpu.device_name()}, {options.dtype} inputs\n")
        decode_launches = launches[prefill_launches:]
        if decode_launches:
            print("launches while decoding")
            print(launch_table(decode_launches, speed.decode_tokens))

    def measure(self, name: str, weights: Weights) -> Result:
        """Perplexity of the paragraph, decode speed from the same run, prompt speed from one more."""
        tokens, llama, speed = self.model.tokenizer.encode(PARAGRAPH.read_text().strip()), self.llama(weights), Speed()
        value = perplexity(llama, tokens, speed)
        cache = llama.new_cache(len(tokens))
        start = clock()
        llama.forward(tokens, cache)
        speed.prefill_tokens, speed.prefill_seconds = len(tokens), clock() - start
        return Result(name, format_mix(weights), weights.bytes, value, speed)

    def compare(self, names: list[str]) -> list[Result]:
        """Measure the formats in turn and the dense weights last; a format that the model cannot have is left out."""
        results = []
        for name in names:
            try:
                results.append(self.measure(name, self.pack(name)))
            except ModelError as error:
                print(f"{name}: left out: {error}", file=sys.stderr)
            except RuntimeError as error:
                print(f"{name}: left out: the module refused it: {str(error).splitlines()[0]}", file=sys.stderr)
        results.append(self.measure("dense", load_dense(self.model, self.dtype)))
        return results


@contextmanager
def progress_bar(title: str, total: int, unit: str) -> Iterator[Callable[[int], None]]:
    """A bar on standard error, none where that is no terminal; yields a function that is told of work done."""
    with tqdm(total=total, desc=title, unit=unit, unit_scale=True, disable=None, leave=False) as bar:
        yield bar.update


def main() -> None:
    options = parse_options()
    try:
        demo = Demo(options)
        with torch.no_grad():
            if options.compare:
                results = demo.compare(list(FORMATS))
                print(comparison_table(results))
                plot_comparison(results, PLOT)
                print(f"plot in {PLOT.relative_to(ROOT)}")
            elif options.perplexity:
                print(comparison_table(demo.compare([options.format])))
            else:
                demo.generate()
    except (ModelError, FileNotFoundError) as error:
        raise SystemExit(f"demo: {error}") from error
    except KeyboardInterrupt:
        raise SystemExit("\ndemo: stopped") from None


if __name__ == "__main__":
    main()
