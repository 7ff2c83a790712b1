"""What the example runtime makes of text: tokenizer, generation, perplexity, importance of inputs, launch table."""

import numpy as np
import pytest
import tiny_llama
import torch

from llama import calibrate
from llama.generate import Speed, generate, perplexity
from llama.gguf_model import layer_names
from llama.linear import DenseLinear, load_dense
from llama.model import Llama
from report import launch_table

TOKENS = [5, 200, 31, 31, 90, 262, 7]


def test_text_survives_the_tokenizer(model):
    text = "The thé 2024 in the\n  дом 😀 <|im_end|> end"
    numbers = model.tokenizer.encode(text)
    assert model.tokenizer.decode(numbers) == text.replace("<|im_end|>", "")
    names = tiny_llama.tokens()
    assert numbers.count(1) == 1  # the control token whole
    assert names.index("Ġthe") in numbers
    assert all(numbers.count(names.index(digit)) for digit in "204")


def test_stream_holds_a_character_until_it_is_whole(model):
    numbers = model.tokenizer.encode("a😀b")
    assert list(model.tokenizer.stream(numbers)) == ["a", "😀", "b"]


def test_chat_form_takes_the_system_turn_of_the_file(model):
    assert model.tokenizer.chat("Hello") == (
        "<|im_start|>system\nBe brief.<|im_end|>\n<|im_start|>user\nHello<|im_end|>\n<|im_start|>assistant\n"
    )


def test_generation_counts_ends_and_repeats(dense):
    speed = Speed()
    first = list(generate(dense, TOKENS, 6, set(), speed))
    assert (len(first), speed.prefill_tokens, speed.decode_tokens) == (6, len(TOKENS), 5)
    assert first == list(generate(dense, TOKENS, 6, set(), Speed()))
    greedy = dense.forward(TOKENS + first, dense.new_cache(13), last_only=False)[6:-1].argmax(dim=1).tolist()
    assert first == greedy
    ended = list(generate(dense, TOKENS, 6, {first[2]}, Speed()))
    assert ended == first[: first.index(first[2])]
    sampled = [list(generate(dense, TOKENS, 6, set(), Speed(), 1.0, seed)) for seed in (1, 1, 2)]
    assert sampled[0] == sampled[1] != sampled[2]


def test_perplexity_by_hand(model):
    """With equal logits for all tokens the perplexity is the size of the vocabulary."""
    weights = load_dense(model, torch.float32)
    weights.head = DenseLinear(np.zeros((tiny_llama.VOCABULARY, tiny_llama.HIDDEN), dtype=np.float32), torch.float32)
    assert perplexity(Llama(model, weights, torch.float32), TOKENS, Speed()) == pytest.approx(tiny_llama.VOCABULARY)


def test_importance_is_the_mean_square_of_inputs_and_is_kept(model, tmp_path, monkeypatch):
    importance = calibrate.measure_importance(model, "the house")
    numbers = model.tokenizer.encode("the house")
    embedded = model.stored("token_embd").dense(np.array(numbers)).astype(np.float64)
    normed = embedded / np.sqrt((embedded**2).mean(axis=1, keepdims=True) + 1e-5) * model.vector("blk.0.attn_norm")
    for part in ("attn_q", "attn_k", "attn_v"):
        np.testing.assert_allclose(importance[f"blk.0.{part}"], (normed**2).mean(axis=0), rtol=1e-4)
    assert set(importance) == {*layer_names(model.config), "token_embd"}

    cache = tmp_path / "kept" / "importance.npz"
    monkeypatch.setattr(calibrate, "measure_importance", lambda *_: importance)
    calibrate.load_importance(model, cache)
    monkeypatch.setattr(calibrate, "measure_importance", lambda *_: pytest.fail("measured again"))
    kept = calibrate.load_importance(model, cache)
    assert all((kept[name] == importance[name]).all() for name in importance)
    cache.write_bytes(b"PK damaged")
    monkeypatch.setattr(calibrate, "measure_importance", lambda *_: importance)
    assert calibrate.load_importance(model, cache).keys() == importance.keys()


def test_launch_table_adds_up():
    record = type("record", (), {})
    launches = []
    for kernel, nanoseconds in (("a", 1_000_000), ("b", 500_000), ("a", 3_000_000)):
        launches.append(record())
        launches[-1].kernel, launches[-1].duration_ns = kernel, nanoseconds
    lines = [line.split() for line in launch_table(launches, steps=2).splitlines()[1:]]
    assert lines == [
        ["a", "2", "1.0", "4.0", "2000.0"],
        ["b", "1", "0.5", "0.5", "500.0"],
        ["all", "3", "1.5", "4.5", "1500.0"],
    ]
