"""The command `corvane`: conversations, comparisons, exit status."""

import re
import signal
from itertools import count

import pytest
import torch

from corvane_runtime import FORMATS, generate, load_gguf, perplexity
from corvane_runtime.cli import commands
from corvane_runtime.cli.main import main
from corvane_runtime.generate import Speed


def converse(monkeypatch, path, lines: list, interrupted_at: int) -> None:
    """Say the lines to the model in float q8_0, and press Ctrl-C when so many tokens have been chosen."""
    said, chosen, choose = iter(lines), count(1), commands.choose

    def next_line(prompt: str) -> str:
        line = next(said, EOFError)
        if isinstance(line, str):
            return line
        raise line

    def choosing(*arguments: object) -> int:
        if next(chosen) == interrupted_at:
            signal.raise_signal(signal.SIGINT)
        return choose(*arguments)

    # A shell starts what it runs in the background with the signal ignored.
    before = signal.signal(signal.SIGINT, signal.default_int_handler)
    monkeypatch.setattr("builtins.input", next_line)
    monkeypatch.setattr(commands, "choose", choosing)
    try:
        main(["chat", str(path), "--format", "q8_0", "--plain-rounding", "--tokens", "6", "--context", "120"])
    finally:
        signal.signal(signal.SIGINT, before)


def test_ctrl_c_stops_the_answer_and_the_conversation_goes_on(model_path, monkeypatch, capsys):
    converse(monkeypatch, model_path, ["the", KeyboardInterrupt, "", "he"], interrupted_at=4)
    model = load_gguf(model_path, "q8_0")
    tokenizer = model.tokenizer

    def answer(messages: list, tokens: int) -> str:
        said = list(generate(model, tokenizer.chat(messages), tokens, tokenizer.ends, Speed()))
        return "".join(tokenizer.stream(iter(said))), tokenizer.decode(said)

    messages = [{"role": "user", "content": "the"}]
    first, kept = answer(messages, 3)
    messages += [{"role": "assistant", "content": kept}, {"role": "user", "content": "he"}]
    shown = capsys.readouterr().out
    assert shown.startswith(first)
    assert shown.rstrip("\n").endswith(answer(messages, 6)[0].rstrip("\n"))


def test_a_long_conversation_forgets_its_oldest_turns(model_path, monkeypatch, capsys):
    converse(monkeypatch, model_path, ["the " * 10] * 4 + ["x" * 500], interrupted_at=0)
    found = capsys.readouterr()
    assert "this text takes" in found.err and "the context has 120" in found.err
    assert found.out.count("\n") >= 4


def test_perplexity_compares_all_formats_that_the_model_can_have(model_path, tmp_path, capsys):
    text = tmp_path / "text.txt"
    text.write_text("the house in the")
    main(["perplexity", str(model_path), "--compare", "--plain-rounding", "--text", str(text)])
    found = capsys.readouterr()
    left_out = set(re.findall(r"^(\w+): left out", found.err, re.MULTILINE))
    assert left_out == {name for name, kind in FORMATS.items() if not kind.can_pack}
    rows = [[cell.strip() for cell in line.strip("| ").split("|")] for line in found.out.splitlines() if "|" in line]
    table = {row[0]: float(row[3]) for row in rows[2:]}
    assert set(table) == set(FORMATS) - left_out | {"dense"}
    dense = load_gguf(model_path)
    expected = perplexity(dense, dense.tokenizer.encode(text.read_text()), Speed())
    assert table["dense"] == pytest.approx(expected, abs=0.006)


@pytest.mark.parametrize(
    ("arguments", "status", "text"),
    [
        (["generate"], 2, "required"),
        (["generate", "x.gguf", "--format", "q9"], 2, "q9"),
        (["generate", "x.gguf", "--tokens", "0"], 2, "at least 1"),
        (["generate", "x.gguf"], "corvane: x.gguf: there is no such file or folder", ""),
        (["pack", "x.gguf", "/dev/null"], "corvane: /dev/null: exists and is not an empty folder", ""),
    ],
)
def test_exit_status_and_one_line_of_cause(arguments, status, text, capsys):
    with pytest.raises(SystemExit) as ended:
        main(arguments)
    assert ended.value.code == status  # a text becomes a line on standard error and status 1
    assert text in capsys.readouterr().err


def test_generate_prints_the_text_alone(model_path, capsys):
    main(["generate", str(model_path), "--raw", "--prompt", "the", "--tokens", "5", "--plain-rounding"])
    model = load_gguf(model_path, "q4_0")
    with torch.no_grad():
        tokens = generate(model, model.tokenizer.encode("the"), 5, model.tokenizer.ends, Speed())
        assert capsys.readouterr().out == "".join(model.tokenizer.stream(tokens)) + "\n"
