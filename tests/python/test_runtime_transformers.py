"""A model of transformers, loaded packed, saved, loaded again. Runs where a transformers that knows the framework is."""

import copy
import importlib.util

import host_xpu
import numpy as np
import pytest
import torch

from corvane_runtime import (
    CorvaneConfig,
    PackedLinear,
    fuse_,
    generate,
    load,
    load_folder,
    measure_importance,
    quantize_,
    save,
    save_importance,
    summary,
)
from corvane_runtime.generate import Speed
from corvane_runtime.llama.model import BLOCK_FORMATS_FUSED
from corvane_runtime.transformers_models import HAS_TRANSFORMERS

TOKENS = [5, 6, 7, 8]


def test_config_refuses_unknown_formats_without_transformers():
    assert CorvaneConfig({"lm_head": None, "*": "q4_k"}).format["*"] == "q4_k"
    with pytest.raises(ValueError, match="no format 'q9'"):
        CorvaneConfig("q9")


ready = HAS_TRANSFORMERS and importlib.util.find_spec("accelerate") is not None
needs_transformers = pytest.mark.skipif(not ready, reason="no transformers for this framework")


@pytest.fixture(params=[True, False], ids=["tied", "untied"])
def folder(request, tmp_path):
    from transformers import LlamaConfig, LlamaForCausalLM

    torch.manual_seed(0)
    sizes = {"vocab_size": 320, "hidden_size": 256, "intermediate_size": 512, "num_hidden_layers": 2}
    config = LlamaConfig(**sizes, num_attention_heads=4, num_key_value_heads=2, tie_word_embeddings=request.param)
    LlamaForCausalLM(config).save_pretrained(tmp_path / "dense")
    return tmp_path / "dense"


def logits_of(model) -> torch.Tensor:
    with torch.no_grad():
        return model(torch.tensor([TOKENS]).to("xpu")).logits[0].cpu()


@needs_transformers
def test_every_way_to_a_packed_model_gives_the_same(folder, tmp_path):
    from transformers import AutoModelForCausalLM

    packed = AutoModelForCausalLM.from_pretrained(folder, quantization_config=CorvaneConfig("q4_0"), device_map="xpu")
    assert summary(packed).formats() == {"q4_0": 15}
    assert isinstance(packed.lm_head, PackedLinear)
    expected = logits_of(packed)

    packed.save_pretrained(tmp_path / "saved")
    again = AutoModelForCausalLM.from_pretrained(tmp_path / "saved", device_map="xpu")
    assert torch.equal(logits_of(again), expected)

    swapped = quantize_(AutoModelForCausalLM.from_pretrained(folder), "q4_0").to("xpu")
    assert torch.equal(logits_of(swapped), expected)
    save(swapped, tmp_path / "ours")
    assert torch.equal(logits_of(load(tmp_path / "ours")), expected)

    own = load_folder(folder, "q4_0")
    got = own.forward(TOKENS, own.new_cache(4), last_only=False).cpu()
    assert (got - expected).abs().max() < 1e-5 * expected.abs().max()
    options = {"max_new_tokens": 12, "do_sample": False, "eos_token_id": None}
    for cache in ("dynamic", "static"):
        tokens = packed.generate(torch.tensor([TOKENS]).to("xpu"), cache_implementation=cache, **options)
        assert tokens[0, 4:].tolist() == list(generate(own, TOKENS, 12, set(), Speed()))


@needs_transformers
def test_layers_are_kept_dense_by_name_and_pattern(folder):
    from transformers import AutoModelForCausalLM

    config = CorvaneConfig({"*.down_proj": "q6_k", "*.o_proj": None, "*": "fp6"}, modules_to_not_convert=["lm_head"])
    packed = AutoModelForCausalLM.from_pretrained(folder, quantization_config=config, device_map="xpu")
    assert summary(packed).formats() == {"fp6": 10, "dense": 3, "q6_k": 2}


def tiny(family: str, **changes):
    import transformers

    sizes = {"vocab_size": 320, "hidden_size": 256, "intermediate_size": 512, "num_hidden_layers": 2}
    heads = {"num_attention_heads": 4, "num_key_value_heads": 2}
    torch.manual_seed(0)
    config = getattr(transformers, f"{family}Config")(**sizes, **heads, **changes)
    return getattr(transformers, f"{family}ForCausalLM")(config).eval()


ROPE = {"rope_theta": 1000.0, "factor": 8.0, "original_max_position_embeddings": 16}


@needs_transformers
@pytest.mark.parametrize(
    ("family", "changes"),
    [
        ("Llama", {"attention_bias": True, "mlp_bias": True}),
        (
            "Llama",
            {"rope_parameters": {**ROPE, "rope_type": "llama3", "low_freq_factor": 1.0, "high_freq_factor": 4.0}},
        ),
        ("Llama", {"rope_parameters": {**ROPE, "rope_type": "linear"}}),
        ("Mistral", {"sliding_window": None}),
        ("Qwen2", {}),
        ("Qwen3", {"head_dim": 64}),
    ],
)
def test_own_runtime_computes_what_transformers_does(family, changes, tmp_path):
    model = tiny(family, **changes)
    with torch.no_grad():  # biases and norms start out as zeros and ones
        for name, parameter in model.named_parameters():
            if parameter.dim() == 1:
                parameter.uniform_(0.5, 1.5)
    model.save_pretrained(tmp_path)
    tokens = [(7 * i) % 320 for i in range(40)]
    expected = model(torch.tensor([tokens])).logits[0].detach()
    own = load_folder(tmp_path)
    found = own.forward(tokens, own.new_cache(40), last_only=False).cpu()
    assert (found - expected).abs().max() < 2e-5 * expected.abs().max()


@needs_transformers
@pytest.mark.parametrize("cache", ["dynamic", "static"])
@pytest.mark.parametrize(
    ("family", "format"),
    [("Llama", name) for name in sorted(BLOCK_FORMATS_FUSED)]
    + [("Mistral", "q4_0"), ("Qwen2", "q4_0"), ("Qwen3", "q4_0"), ("Gemma", "q4_0"), ("Llama", "q4_1")],
)
def test_fused_operators_choose_the_same_tokens(family, format, cache):
    model = quantize_(tiny(family, **({"head_dim": 64} if family == "Gemma" else {})), format).to("xpu")
    prompt = torch.tensor([TOKENS]).to("xpu")
    options = {"max_new_tokens": 12, "do_sample": False, "eos_token_id": None, "cache_implementation": cache}
    found = []
    for run in (model, fuse_(copy.deepcopy(model))):
        with host_xpu.record_launches() as launches:
            tokens = run.generate(prompt, attention_mask=torch.ones_like(prompt), disable_compile=True, **options)
        found.append((tokens.tolist(), len(launches)))
    assert found[0][0] == found[1][0]
    mlp = format in BLOCK_FORMATS_FUSED
    attention = mlp and cache == "static" and family in ("Llama", "Qwen2")
    # Two layers, eleven steps of one row: two launches for the gated half less one, three for the projections less one.
    assert found[0][1] - found[1][1] == 2 * 11 * (mlp + 2 * attention)


@needs_transformers
def test_importance_is_that_of_the_own_runtime_and_is_used(folder, tmp_path):
    from transformers import AutoModelForCausalLM

    def encode(text: str) -> list[int]:
        return [ord(letter) % 320 for letter in text]

    text, measured = "what is measured" * 20, []
    for model in (AutoModelForCausalLM.from_pretrained(folder), load_folder(folder).prepare(fused=False)):
        measured.append(measure_importance(model, text, encode))
    assert measured[0].keys() == measured[1].keys()
    for name, values in measured[0].items():
        np.testing.assert_allclose(values, measured[1][name], rtol=1e-3)
    save_importance(measured[0], tmp_path / "importance.npz")
    config = CorvaneConfig("q4_0", importance=str(tmp_path / "importance.npz"))
    packed = AutoModelForCausalLM.from_pretrained(folder, quantization_config=config, device_map="xpu")
    own = load_folder(folder, "q4_0", importance=measured[0])
    plain = load_folder(folder, "q4_0")
    got, expected, other = (
        model.get_submodule("model.layers.1.mlp.down_proj").weight.cpu() for model in (packed, own, plain)
    )
    assert torch.equal(got, expected) and not torch.equal(got, other)
