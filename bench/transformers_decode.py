"""A Llama model from a GGUF file through transformers: packed on XPU, against bfloat16 on the CPU and the own runtime.

Prints whether the greedy tokens are those of the package's own runtime, the perplexities of the shipped paragraph, and the
speed of generate() in pairs of runs. It needs a transformers that runs on the installed PyTorch. Run it with

    PYTHONPATH=build/torch/python:python build/torch-venv/bin/python bench/transformers_decode.py MODEL.gguf
"""

from __future__ import annotations

import copy
import statistics
import sys
import time
from pathlib import Path

import torch
from transformers import LlamaConfig, LlamaForCausalLM

import corvane_runtime
from corvane_runtime import fuse_, generate, load_gguf, perplexity, quantize_
from corvane_runtime.generate import Speed
from corvane_runtime.llama import GgufWeights

PARAGRAPH = Path(corvane_runtime.__file__).parent / "data" / "paragraph.txt"
TOKENS, PAIRS = 32, 5


def dense_model(source: GgufWeights) -> LlamaForCausalLM:
    """The file's model, float on the CPU."""
    about = source.config
    config = LlamaConfig(
        vocab_size=about.vocabulary,
        hidden_size=about.hidden,
        intermediate_size=about.mlp,
        num_hidden_layers=about.layers,
        num_attention_heads=about.heads,
        num_key_value_heads=about.kv_heads,
        head_dim=about.head_size,
        max_position_embeddings=about.context,
        rms_norm_eps=about.norm_epsilon,
        rope_parameters={"rope_type": "default", "rope_theta": about.rope_base},
        tie_word_embeddings=about.tied,
    )
    with torch.device("meta"):
        model = LlamaForCausalLM(config)
    names = model.state_dict()
    model = LlamaForCausalLM(config)
    model.load_state_dict({name: source.dense(name) for name in names})
    return model.eval()


def perplexity_of(model: LlamaForCausalLM, tokens: list[int]) -> float:
    """As the own runtime's: of each token after the first, fed one by one."""
    surprise, past = 0.0, None
    with torch.no_grad():
        for token, following in zip(tokens[:-1], tokens[1:], strict=True):
            out = model(torch.tensor([[token]]).to(model.device), past_key_values=past, use_cache=True)
            past, logits = out.past_key_values, out.logits[0, -1].float()
            surprise += float(logits.logsumexp(dim=0) - logits[following])
    return float(torch.tensor(surprise / (len(tokens) - 1), dtype=torch.float64).exp())


def decode(model: LlamaForCausalLM, prompt: list[int], cache: str, tokens: int = TOKENS) -> list[int]:
    numbers = torch.tensor([prompt]).to(model.device)
    options = {"cache_implementation": cache, "do_sample": False, "eos_token_id": None, "disable_compile": True}
    found = model.generate(
        numbers, attention_mask=torch.ones_like(numbers), pad_token_id=0, max_new_tokens=tokens, **options
    )
    return found[0, len(prompt) :].tolist()


def speed(model: LlamaForCausalLM, prompt: list[int], cache: str) -> float:
    """Tokens a second after the prompt: the difference of two runs of unlike lengths."""
    seconds = []
    for tokens in (1, TOKENS + 1):
        start = time.perf_counter()
        decode(model, prompt, cache, tokens)
        seconds.append(time.perf_counter() - start)
    return TOKENS / (seconds[1] - seconds[0])


def main() -> None:
    source = GgufWeights(sys.argv[1])
    dense = dense_model(source)
    own = load_gguf(sys.argv[1], "q4_0")
    plain = quantize_(copy.deepcopy(dense), "q4_0").to("xpu")
    fused = fuse_(copy.deepcopy(plain))
    prompt = own.tokenizer.chat("Why is the sky blue?")
    expected = list(generate(own, prompt, TOKENS, set(), Speed()))
    models = {"plain": (plain, "dynamic"), "fused": (fused, "dynamic"), "fused, static cache": (fused, "static")}
    for name, (model, cache) in models.items():
        print(f"{name}: {TOKENS} tokens as the own runtime's: {decode(model, prompt, cache) == expected}")

    text = own.tokenizer.encode(PARAGRAPH.read_text().strip())
    values = perplexity(own, text, Speed()), perplexity_of(plain, text), perplexity_of(fused, text)
    print("perplexity of own, plain, fused: {:.4f} {:.4f} {:.4f}".format(*values))

    models["bfloat16 on the CPU"] = dense.to(torch.bfloat16), "dynamic"
    found = [{name: speed(model, prompt, cache) for name, (model, cache) in models.items()} for _ in range(PAIRS)]
    for name in models:
        ratio = statistics.median(run[name] / run["bfloat16 on the CPU"] for run in found)
        median = statistics.median(run[name] for run in found)
        print(f"{name:<22} {median:6.1f} tokens/s, {ratio:.2f} of bfloat16 on the CPU (medians of {PAIRS} pairs)")


if __name__ == "__main__":
    main()
