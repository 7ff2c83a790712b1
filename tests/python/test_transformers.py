"""Models of transformers, made here with random weights, generate on the device what they generate on the CPU."""

import pytest
import torch

transformers = pytest.importorskip("transformers")

SIZES = {
    "vocab_size": 96,
    "hidden_size": 64,
    "intermediate_size": 96,
    "num_hidden_layers": 2,
    "num_attention_heads": 4,
    "num_key_value_heads": 4,
    "max_position_embeddings": 64,
}
MODELS = {
    "llama": ("Llama", {}),
    "grouped heads": ("Mistral", {"num_key_value_heads": 2}),
    "experts": ("Mixtral", {"num_key_value_heads": 2, "num_local_experts": 4, "num_experts_per_tok": 2}),
}


@pytest.mark.parametrize("dtype", [torch.float, torch.half, torch.bfloat16], ids=str)
@pytest.mark.parametrize("attention", ["eager", "sdpa"])
@pytest.mark.parametrize("name", MODELS)
def test_tokens_are_those_of_the_cpu(name, attention, dtype):
    family, changes = MODELS[name]
    config = getattr(transformers, f"{family}Config")(**{**SIZES, **changes}, attn_implementation=attention)
    torch.manual_seed(1)
    model = getattr(transformers, f"{family}ForCausalLM")(config).to(dtype).eval()
    prompt = torch.tensor([[1, 5, 9, 33]])
    options = {"max_new_tokens": 12, "do_sample": False, "pad_token_id": 0}
    expected = model.generate(prompt, attention_mask=torch.ones_like(prompt), **options)
    prompt = prompt.to("xpu")
    found = model.to("xpu").generate(prompt, attention_mask=torch.ones_like(prompt), **options)
    assert found.is_xpu and found.tolist() == expected.tolist()
