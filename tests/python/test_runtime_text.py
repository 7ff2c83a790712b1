"""What the runtime makes of text: tokenizer, generation, perplexity, importance of inputs, launch table."""

import numpy as np
import pytest
import tiny_llama
import torch

from corvane_runtime import load_gguf, load_importance, measure_importance, perplexity, save_importance
from corvane_runtime.cli.report import launch_table
from corvane_runtime.generate import Speed, generate
from corvane_runtime.tokenizer import ChatTokenizer, mark_control_tokens, sentence_piece_bpe
from corvane_runtime.weights import ModelError

TOKENS = [5, 200, 31, 31, 90, 262, 7]


@pytest.fixture(scope="module")
def tokenizer(source) -> ChatTokenizer:
    return source.tokenizer()


def test_text_survives_the_tokenizer(tokenizer):
    text = "The thé 2024 in the\n  дом 😀 <|im_end|> end"
    numbers = tokenizer.encode(text)
    assert tokenizer.decode(numbers) == text.replace("<|im_end|>", "")
    names = tiny_llama.tokens()
    assert numbers.count(1) == 1  # the control token whole
    assert names.index("Ġthe") in numbers
    assert all(numbers.count(names.index(digit)) for digit in "204")


def test_stream_holds_a_character_until_it_is_whole(tokenizer):
    assert list(tokenizer.stream(tokenizer.encode("a😀b"))) == ["a", "😀", "b"]


def piece_tokenizer() -> ChatTokenizer:
    pieces = ["<unk>", "<s>", "</s>"] + [f"<0x{byte:02X}>" for byte in range(256)]
    pieces += ["▁", "t", "h", "e", "th", "he", "the", "▁the"]
    scores = [0.0] * 259 + [-10.0, -11.0, -12.0, -13.0, -2.0, -1.0, -3.0, -4.0]
    core = sentence_piece_bpe(pieces, scores, space_first=True)
    mark_control_tokens(core, pieces, [3, 3, 3] + [1] * (len(pieces) - 3))
    return ChatTokenizer(core, begin=1, ends={2})


def test_pieces_are_merged_by_score_and_unknown_ones_are_bytes():
    tokenizer = piece_tokenizer()
    # "he" (-1) goes before "th" (-2); then "t" + "he" and the leading space.
    assert tokenizer.encode("the") == [1, 259 + 7]
    assert tokenizer.encode("é") == [1, 259, 3 + 0xC3, 3 + 0xA9]
    assert tokenizer.decode(tokenizer.encode("the thé")) == "the thé"
    assert "".join(tokenizer.stream(tokenizer.encode("the thé the", begin=False))) == "the thé the"


def test_chat_renders_the_template_of_the_file(tokenizer):
    whole = tokenizer.encode(
        "<|im_start|>system\nBe brief.<|im_end|>\n<|im_start|>user\nthe<|im_end|>\n<|im_start|>assistant\n"
    )
    assert tokenizer.chat("the") == whole


@pytest.mark.parametrize("template", ["{{ raise_exception('roles must alternate') }}", "{% for %}", "{{ 1 + 'a' }}"])
def test_a_template_that_fails_is_an_error_of_the_model(tokenizer, template):
    broken = ChatTokenizer(tokenizer.core, None, {1}, template)
    with pytest.raises(ModelError, match="chat template failed"):
        broken.chat("the")


def test_a_template_runs_in_a_sandbox(tokenizer):
    template = "{{ ''.__class__.__mro__[1].__subclasses__() }}"
    with pytest.raises(ModelError, match="chat template failed"):
        ChatTokenizer(tokenizer.core, None, {1}, template).chat("the")


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


def test_perplexity_by_hand(model_path):
    """With equal logits for all tokens the perplexity is the size of the vocabulary."""
    model = load_gguf(model_path)
    model.lm_head.weight.zero_()
    assert perplexity(model, TOKENS, Speed()) == pytest.approx(tiny_llama.VOCABULARY)


def test_importance_is_the_mean_square_of_inputs_and_is_kept(model_path, tmp_path):
    model = load_gguf(model_path).prepare(fused=False)
    importance = measure_importance(model, "the house")
    embedded = model.model.embed_tokens(model.tokenizer.encode("the house")).cpu().double()
    weight = model.model.layers[0].input_layernorm.weight.cpu()
    normed = embedded / (embedded.square().mean(dim=1, keepdim=True) + 1e-5).sqrt() * weight
    for part in ("q_proj", "k_proj", "v_proj"):
        found = importance[f"model.layers.0.self_attn.{part}"]
        np.testing.assert_allclose(found, normed.square().mean(dim=0), rtol=1e-4)
    linears = [name for name, module in model.named_modules() if isinstance(module, torch.nn.Linear)]
    assert list(importance) == linears

    cache = tmp_path / "importance.npz"
    assert load_importance(cache) is None
    save_importance(importance, cache, "this text")
    kept = load_importance(cache, "this text")
    assert all((kept[name] == importance[name]).all() for name in importance)
    assert load_importance(cache, "another text") is None
    cache.write_bytes(b"PK damaged")
    assert load_importance(cache) is None


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
