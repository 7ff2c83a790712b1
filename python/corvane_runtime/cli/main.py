"""The options of the command `corvane` and its exit status: 2 for a wrong use, 1 for what else goes wrong."""

from __future__ import annotations

import argparse
import sys
from collections.abc import Callable
from pathlib import Path

from ..formats import FORMATS
from ..weights import ModelError
from . import commands
from .models import DTYPES


def whole(least: int) -> Callable[[str], int]:
    def number(text: str) -> int:
        if int(text) < least:
            raise argparse.ArgumentTypeError(f"must be at least {least}")
        return int(text)

    return number


def add_command(
    subparsers: argparse._SubParsersAction, run: Callable, text: str, example: str
) -> argparse.ArgumentParser:
    form = argparse.RawDescriptionHelpFormatter
    name = run.__name__
    parser = subparsers.add_parser(
        name, help=text, description=text, epilog=f"example:\n  {example}", formatter_class=form
    )
    parser.set_defaults(run=run)
    return parser


def add_model(parser: argparse.ArgumentParser, dtype: bool = True) -> None:
    parser.add_argument("model", metavar="MODEL", help="a GGUF file, a folder of transformers, or one that pack wrote")
    parser.add_argument("--format", choices=sorted(FORMATS), help="to pack the weights in (default: q4_0)")
    parser.add_argument("--plain-rounding", action="store_true", help="pack without the inputs' importance")
    if dtype:
        parser.add_argument(
            "--dense", action="store_true", help="dense weights of the chosen dtype instead of packed ones"
        )
        parser.add_argument(
            "--dtype", choices=DTYPES, default="float", help="of inputs and caches (default: %(default)s)"
        )
        parser.add_argument(
            "--prompt-dtype",
            choices=DTYPES,
            help="of the linear layers' inputs while a prompt is read (default: bfloat16 for float and half)",
        )
        parser.add_argument("--no-fused", action="store_true", help="decode without the fused operators")
        parser.add_argument("--token-by-token", action="store_true", help="feed the prompt in calls of one row")


def add_sampling(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--temperature", type=float, default=0.0, help="0 takes the likeliest token (the default)")
    parser.add_argument("--seed", type=int, default=0, help="for sampling at a temperature above 0")


def make_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="corvane", description="Low-bit language models on the XPU device.")
    subparsers = parser.add_subparsers(required=True, metavar="COMMAND")

    one = add_command(
        subparsers, commands.generate, "Stream text for a prompt.",
        'corvane generate model.gguf --prompt "Why is the sky blue?" --format q4_k',
    )  # fmt: skip
    add_model(one)
    one.add_argument("--prompt", default="Why is the sky blue?", help="what to ask the model (default: %(default)s)")
    one.add_argument("--raw", action="store_true", help="continue the prompt as it is, without the chat template")
    one.add_argument("--tokens", type=whole(1), default=80, help="most tokens to generate (default: %(default)s)")
    one.add_argument(
        "--figures", action="store_true", help="print the prompt too, and speed, sizes and launches behind"
    )
    one.add_argument(
        "--tensor-parallel", action="store_true", help="share the model with the other processes that torchrun started"
    )
    one.add_argument(
        "--time-limit", type=whole(1), default=120, metavar="SECONDS",
        help="for the processes of --tensor-parallel to answer each other (default: %(default)s)",
    )  # fmt: skip
    add_sampling(one)

    one = add_command(
        subparsers, commands.chat, "Talk with a model; Ctrl-C stops an answer, Ctrl-D the program.",
        "corvane chat model.gguf --temperature 0.7",
    )  # fmt: skip
    add_model(one)
    one.add_argument("--system", help="text of the system turn")
    one.add_argument("--tokens", type=whole(1), default=512, help="most tokens of an answer (default: %(default)s)")
    one.add_argument("--context", type=whole(16), help="tokens of conversation to remember (default: up to 4096)")
    add_sampling(one)

    one = add_command(
        subparsers, commands.pack, "Pack a model into a folder, which the other commands load at once.",
        "corvane pack model.gguf model-q4_k --format q4_k",
    )  # fmt: skip
    add_model(one, dtype=False)
    one.add_argument("folder", type=Path, metavar="FOLDER", help="to be made")

    one = add_command(
        subparsers, commands.bench, "Measure the speed of reading a prompt and of decoding.",
        "corvane bench model.gguf --format q4_0 --tokens 64 --json",
    )  # fmt: skip
    add_model(one)
    one.add_argument("--prompt-tokens", type=whole(1), default=128, help="tokens of the prompt (default: %(default)s)")
    one.add_argument("--tokens", type=whole(1), default=64, help="tokens to decode (default: %(default)s)")
    one.add_argument("--json", action="store_true", help="one line of JSON")

    one = add_command(
        subparsers, commands.perplexity, "Perplexity of a text, packed against dense.",
        "corvane perplexity model.gguf --format nf4",
    )  # fmt: skip
    add_model(one)
    one.add_argument("--text", type=Path, help="file to read instead of the paragraph that comes along")
    one.add_argument("--compare", action="store_true", help="all formats as a table")
    one.add_argument("--plot", type=Path, metavar="PNG", help="plot the table too")

    add_command(subparsers, commands.info, "Versions, device and formats, for reports of faults.", "corvane info")
    return parser


def main(arguments: list[str] | None = None) -> None:
    options = make_parser().parse_args(arguments)
    try:
        options.run(options)
    except BrokenPipeError:
        sys.stderr.close()
        raise SystemExit(1) from None
    except (ModelError, OSError, ValueError, RuntimeError, ImportError, MemoryError) as error:
        text = str(error).splitlines()[0] if str(error) else type(error).__name__
        raise SystemExit(f"corvane: {text}") from error
    except KeyboardInterrupt:
        raise SystemExit("\ncorvane: stopped") from None
