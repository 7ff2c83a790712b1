"""The Llama runtime on a tiny random model: reading, rotary order, packed and dense, fused and plain."""

import json
import math
from pathlib import Path

import gguf
import numpy as np
import pytest
import tiny_llama
import torch
from reference import formats as reference
from safetensors.torch import save_file

import host_xpu

from corvane_runtime import PackedLinear, generate, load, load_folder, load_gguf, save, summary
from corvane_runtime.formats import FORMATS, PUBLIC_BLOCKS
from corvane_runtime.generate import Speed
from corvane_runtime.llama import GgufWeights, Llama
from corvane_runtime.llama.folder import rope_divisors
from corvane_runtime.llama.gguf_file import half_split_order
from corvane_runtime.llama.model import FUSED_QKV_FORMATS, LayerStep, attention, fused_mlp_formats, rotate
from corvane_runtime.weights import ModelError

PACKABLE = [name for name, format_ in FORMATS.items() if format_.can_pack]
TOKENS = [5, 200, 31, 31, 90, 262, 7]
LLAMA_3 = {
    "rope_type": "llama3",
    "factor": 8.0,
    "low_freq_factor": 1.0,
    "high_freq_factor": 4.0,
    "original_max_position_embeddings": 80,
}

# Logits of two runs that round differently in float. Each of the 15 products on a token's way sums at most 512 terms,
# so its relative error is near sqrt(512) * 2^-24, and random weights do not amplify it: 2^-24 * 23 * 15, with a factor
# of 8 for the largest of many logits.
FLOAT_TOLERANCE = 8 * 15 * 23 * 2.0**-24


def of_the_same_values(path: Path, packed: Llama) -> Llama:
    """A dense model with the values that the packed one holds, read back by the reference."""
    dense = load_gguf(path)
    for name, layer in packed.named_modules():
        if isinstance(layer, PackedLinear):
            shape = layer.out_features, layer.in_features
            values = reference.decode(layer.format, layer.weight.cpu().numpy(), *shape, half_factor=True)
            dense.get_submodule(name).weight.copy_(torch.from_numpy(values.astype(np.float32)))
    return dense


def logits(llama: Llama, tokens=TOKENS, pieces: int | None = None) -> torch.Tensor:
    """Logits after each token, (tokens, vocabulary); the tokens are fed in pieces of so many, one by one by default."""
    cache = llama.new_cache(len(tokens))
    step = pieces or 1
    parts = [llama.forward(tokens[i : i + step], cache, last_only=False) for i in range(0, len(tokens), step)]
    return torch.cat(parts).cpu()


def assert_close(got: torch.Tensor, expected: torch.Tensor, tolerance: float) -> None:
    assert got.shape == expected.shape
    assert torch.isfinite(got).all()
    assert (got - expected).abs().max() <= tolerance * expected.abs().max()


# --- reading ---------------------------------------------------------------------------------------------------------


def test_half_split_order_by_hand():
    assert half_split_order(1, 8).tolist() == [0, 2, 4, 6, 1, 3, 5, 7]
    assert half_split_order(2, 4).tolist() == [0, 2, 1, 3, 4, 6, 5, 7]


def test_half_split_rows_rotate_as_neighbours_did(source):
    """A rotated query of the file's rows, neighbours turned, is the rotated query of the model's rows, reordered."""
    name = "model.layers.0.self_attn.q_proj.weight"
    stored = np.asarray(source.stored(name).data).astype(np.float64)
    x = np.random.default_rng(1).normal(size=tiny_llama.HIDDEN)
    heads, size, position = tiny_llama.HEADS, tiny_llama.HEAD_SIZE, 5
    pairs = (stored @ x).reshape(heads, size // 2, 2)
    turn = np.exp(1j * position * tiny_llama.ROPE_BASE ** (-2 * np.arange(size // 2) / size))
    turned = (pairs[:, :, 0] + 1j * pairs[:, :, 1]) * turn
    neighbours = np.stack([turned.real, turned.imag], axis=2).reshape(heads, size)

    ours = (source.dense(name) @ torch.from_numpy(x.astype(np.float32))).view(1, heads, 1, size)
    rotation = torch.from_numpy(np.stack([turn.real, turn.imag])[:, None]).float()
    got = rotate(ours, rotation)[0, :, 0].numpy()
    order = half_split_order(heads, size).reshape(heads, size) % size
    np.testing.assert_allclose(got, np.take_along_axis(neighbours, order, axis=1), atol=1e-4)


def test_rotation_by_hand():
    x = torch.tensor([[[[1.0, 2.0, 3.0, 4.0]]]])
    quarter_and_none = torch.tensor([[[0.0, 1.0]], [[1.0, 0.0]]])  # cosines, sines: 90 degrees and 0
    assert rotate(x, quarter_and_none).tolist() == [[[[-3.0, 2.0, 1.0, 4.0]]]]


def test_attention_is_causal_and_grouped():
    rng = torch.Generator().manual_seed(0)
    query, keys = torch.randn(1, 4, 3, 8, generator=rng), torch.randn(1, 2, 5, 8, generator=rng)
    values = torch.randn(1, 2, 5, 8, generator=rng)
    got = attention(query.to("xpu"), keys.to("xpu"), values.to("xpu")).cpu()
    for head in range(4):
        for row in range(3):
            seen = 5 - 3 + row + 1
            scores = (keys[0, head // 2, :seen].double() @ query[0, head, row].double()) / math.sqrt(8)
            expected = scores.softmax(dim=0) @ values[0, head // 2, :seen].double()
            assert (got[row, head * 8 : head * 8 + 8] - expected).abs().max() < 1e-5


def test_refusals_name_the_cause(tmp_path):
    not_a_model = tmp_path / "text.gguf"
    not_a_model.write_bytes(b"this is no model" * 100)
    with pytest.raises(ModelError, match=r"text\.gguf: cannot be read as a GGUF file"):
        GgufWeights(not_a_model)
    with pytest.raises(ModelError, match="architecture is falcon"):
        GgufWeights(tiny_llama.write_model(tmp_path / "falcon.gguf", architecture="falcon"))


def with_number(path: Path, before: bytes, number: int, size: int) -> None:
    """Puts a number of some bytes behind others in a file."""
    data = path.read_bytes()
    at = data.index(before) + len(before)
    path.write_bytes(data[:at] + number.to_bytes(size, "little") + data[at + size :])


def stored(rows: int, value: float = 0.0) -> dict:
    values = np.full((rows, tiny_llama.HIDDEN), value, dtype=np.float32)
    return {"blocks": {"blk.0.ffn_up": (values, gguf.GGMLQuantizationType.F32)}}


UINT32, INT32, STRING, ARRAY = (int(kind).to_bytes(4, "little") for kind in (4, 5, 8, 9))
# What write_model is told, what is put into its file, and the refusal.
GGUF_DAMAGE = {
    "array beyond the end": ({}, (b"token_type" + ARRAY + INT32, 1 << 40, 8), "ends before the 1099511627776 elements"),
    "value beyond the end": ({}, (b"tokenizer.ggml.model" + STRING, 1 << 40, 8), "ends before byte"),
    "layers without tensors": ({}, (b"llama.block_count" + UINT32, 1 << 23, 4), "of which the last has no"),
    "merge of no token": ({}, (b"th ", 7, 1), "damaged.gguf: .* out of vocabulary"),
    "no context": ({}, (b"llama.context_length" + UINT32, 0, 4), "context is 0"),
    "heads that share no keys": ({"sizes": (4, 3, 512)}, None, "do not share 3 keys"),
    "weight of other rows": (stored(16), None, r"holds \(16, 256\), the model needs"),
    "rows for other heads": ({}, (b"attention.head_count" + UINT32, 8, 4), "8 heads need 64 each"),
    "weight that is no number": (stored(tiny_llama.MLP, math.nan), None, "0.mlp.up_proj: q4_0: .* not a number"),
}


@pytest.mark.parametrize("kind", GGUF_DAMAGE)
def test_damaged_files_are_refused_by_what_is_wrong(tmp_path, kind):
    model, number, text = GGUF_DAMAGE[kind]
    path = tiny_llama.write_model(tmp_path / "damaged.gguf", **model)
    if number is not None:
        with_number(path, *number)
    with pytest.raises(ModelError, match=text):
        load_gguf(path, "q4_0")


FOLDER_DAMAGE = {
    "layers without tensors": ("config.json", {"num_hidden_layers": 1 << 23}, "of which the last has no"),
    "size that is no number": ("config.json", {"hidden_size": "x"}, r"config\.json"),
    "size beyond all": ("config.json", {"intermediate_size": 1 << 40}, "mlp is 1099511627776"),
    "epsilon that is no number": ("config.json", {"rms_norm_eps": math.nan}, "nan is no"),
    "scaling that is no object": ("config.json", {"rope_scaling": [8.0]}, r"config\.json"),
    "division by nothing": ("config.json", {"rope_scaling": {"rope_type": "linear", "factor": 0}}, "divided by 0"),
    "index without a map": ("model.safetensors.index.json", {"weight_map": 1}, "cannot be read as an index"),
    "no ends": ("chat.json", {"begin": None, "chat_template": None}, "does not describe a conversation"),
    "begin beyond all": ("chat.json", {"begin": 1 << 70, "ends": [1], "chat_template": None}, "is no token"),
    "begin without a token": ("chat.json", {"begin": 9999, "ends": [1], "chat_template": None}, "no token 9999"),
    "end that is no token": ("chat.json", {"begin": None, "ends": ["</s>"], "chat_template": None}, "is no token"),
}


@pytest.mark.parametrize("kind", FOLDER_DAMAGE)
def test_damaged_folders_are_refused_by_what_is_wrong(source, model_path, tmp_path, kind):
    name, change, text = FOLDER_DAMAGE[kind]
    folder = write_folder(tmp_path, load_gguf(model_path), "llama")
    source.tokenizer().save(folder)
    about = json.loads((folder / name).read_text()) if name == "config.json" else {}
    (folder / name).write_text(json.dumps({**about, **change}))
    with pytest.raises(ModelError, match=text):
        load_folder(folder)


def test_missing_tensor_is_named(source):
    with pytest.raises(ModelError, match=r"no tensor blk\.9\.attn_q\.weight"):
        source.dense("model.layers.9.self_attn.q_proj.weight")


def test_grid_formats_need_a_file_that_holds_them(model_path):
    with pytest.raises(ModelError, match="iq2_xxs"):
        load_gguf(model_path, "iq2_xxs")


def test_packing_tells_all_elements(model_path):
    told = []
    packed = summary(load_gguf(model_path, "q4_0", progress=told.append))
    elements = sum(rows * columns for rows, columns in (layer.shape for layer in packed.layers))
    assert sum(told) == elements
    assert packed.bytes * 64 == elements * 34
    assert packed.formats() == {"q4_0": 7 * tiny_llama.LAYERS + 1}


def family_vectors(architecture: str) -> dict[str, np.ndarray]:
    """What a layer of the architecture has beside the weights of a Llama, and for a Llama the divisors of Llama 3."""
    rng, kv_rows = np.random.default_rng(4), tiny_llama.KV_HEADS * tiny_llama.HEAD_SIZE
    if architecture == "llama":
        return {"rope_freqs.weight": np.array(rope_divisors(LLAMA_3, tiny_llama.ROPE_BASE, tiny_llama.HEAD_SIZE))}
    sizes = {
        "mistral": {},
        "qwen2": {"attn_q.bias": tiny_llama.HIDDEN, "attn_k.bias": kv_rows, "attn_v.bias": kv_rows},
        "qwen3": {"attn_q_norm.weight": tiny_llama.HEAD_SIZE, "attn_k_norm.weight": tiny_llama.HEAD_SIZE},
    }[architecture]
    layers = range(tiny_llama.LAYERS)
    return {f"blk.{i}.{name}": rng.uniform(0.5, 1.5, size) for i in layers for name, size in sizes.items()}


def write_folder(folder: Path, model: Llama, kind: str) -> Path:
    """A dense model as transformers writes it."""
    embedding = torch.from_numpy(model.model.embed_tokens.weight.numpy().view(np.float32))
    tensors = {name: tensor.cpu() for name, tensor in model.state_dict().items() if name != "lm_head.weight"}
    save_file({**tensors, "model.embed_tokens.weight": embedding}, folder / "model.safetensors")
    about = {
        "model_type": kind, "num_hidden_layers": tiny_llama.LAYERS, "hidden_size": tiny_llama.HIDDEN,
        "num_attention_heads": tiny_llama.HEADS, "num_key_value_heads": tiny_llama.KV_HEADS,
        "intermediate_size": tiny_llama.MLP, "vocab_size": tiny_llama.VOCABULARY, "max_position_embeddings": 128,
        "rms_norm_eps": 1e-5, "rope_theta": tiny_llama.ROPE_BASE, "tie_word_embeddings": True,
        "rope_scaling": LLAMA_3 if kind == "llama" else None,
    }  # fmt: skip
    (folder / "config.json").write_text(json.dumps(about))
    return folder


@pytest.mark.parametrize("architecture", ["llama", "mistral", "qwen2", "qwen3"])
def test_files_and_folders_of_all_families_agree_and_decode_fused(architecture, tmp_path):
    path = tiny_llama.write_model(
        tmp_path / "model.gguf", architecture=architecture, vectors=family_vectors(architecture)
    )
    dense = load_gguf(path)
    expected = logits(dense)
    folder = write_folder(tmp_path, dense, architecture)
    assert_close(logits(load_folder(folder)), expected, FLOAT_TOLERANCE)

    packed = load_gguf(path, "q4_0").prepare(many_rows=False)
    step = LayerStep(packed.model.layers[0], True, packed.config)
    assert (step.fused_qkv, step.fused_mlp) == (architecture in ("mistral", "qwen2"), True)
    assert_close(logits(packed), logits(packed.prepare(fused=False, many_rows=False)), FLOAT_TOLERANCE)
    save(packed, tmp_path / "saved")
    assert torch.equal(logits(load(tmp_path / "saved").prepare()), logits(packed.prepare()))


def test_frequencies_of_llama_3_by_hand():
    """Waves of 1, 10, 100 tokens times 2 pi, of a first context of 80: kept, in between, and divided."""
    found = rope_divisors(LLAMA_3, 1000.0, 6)
    kept = (80 / (20 * math.pi) - 1) / (4 - 1)
    np.testing.assert_allclose(found, [1, 1 / (kept + (1 - kept) / 8), 8])
    assert rope_divisors({"rope_type": "linear", "factor": 2}, 1000.0, 4) == [2, 2]
    assert rope_divisors({}, 1000.0, 4) is None


# --- running ---------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", PACKABLE)
def test_packed_runtime_agrees_with_dense_weights_of_the_same_values(model_path, name):
    packed = load_gguf(model_path, name).prepare(fused=False, many_rows=False)
    # q2_k quantises its input to 8 bits a 32-element block: 1/254 of the block's extreme, near 3 standard deviations,
    # against sums that grow as the errors do.
    tolerance = 15**0.5 * 3 / 254 if name == "q2_k" else FLOAT_TOLERANCE
    assert_close(logits(packed), logits(of_the_same_values(model_path, packed)), tolerance)


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16, torch.float64], ids=str)
def test_dtypes_agree_within_their_precision(model_path, dtype):
    model = load_gguf(model_path, "q4_0")
    expected = logits(model.prepare(fused=False, many_rows=False))
    got = logits(model.prepare(dtype, fused=False, many_rows=False))
    # The float run is within FLOAT_TOLERANCE itself; sums of up to 512 roundings in T, over the 15 products.
    epsilon = max(torch.finfo(dtype).eps, torch.finfo(torch.float32).eps)
    assert_close(got, expected, 8 * 15**0.5 * 512**0.5 * epsilon / 2 + FLOAT_TOLERANCE)


def test_prompt_in_one_call_agrees_with_token_by_token(model_path, dense):
    one_by_one = logits(dense)
    for pieces in (7, 3):
        assert_close(logits(dense, pieces=pieces), one_by_one, FLOAT_TOLERANCE)
    assert_close(
        dense.forward(TOKENS, dense.new_cache(len(TOKENS))).cpu(), one_by_one[-1:], FLOAT_TOLERANCE
    )  # the last
    packed = load_gguf(model_path, "q5_0")  # many rows of it take no path that rounds to less than float
    one_call = logits(packed, pieces=7)
    assert_close(one_call, logits(packed.prepare(fused=False, many_rows=False)), FLOAT_TOLERANCE)


@pytest.mark.parametrize("prompt_dtype", [torch.float32, torch.bfloat16])
def test_long_prompt_is_read_in_pieces_of_its_own_dtype(model_path, prompt_dtype):
    model = load_gguf(model_path, "q5_0").prepare(prompt_dtype=prompt_dtype)
    tokens = [n * 7 % model.config.vocabulary for n in range(270)]  # a whole piece and another
    expected = model.prepare(many_rows=False).forward(tokens, model.new_cache(270), last_only=False)
    got = model.prepare(prompt_dtype=prompt_dtype).forward(tokens, model.new_cache(270), last_only=False)
    exact = prompt_dtype == torch.float32
    assert_close(got.cpu(), expected.cpu(), FLOAT_TOLERANCE if exact else 8 * 15**0.5 * 512**0.5 * 2.0**-8)
    assert exact or not torch.equal(got, expected)
    assert_close(model.forward(tokens, model.new_cache(270)).cpu(), got[-1:].cpu(), FLOAT_TOLERANCE)  # the last alone


def test_cache_too_small_is_refused(dense):
    cache = dense.new_cache(3)
    dense.forward(TOKENS[:3], cache)
    with pytest.raises(ValueError, match=r"3 \+ 1 tokens do not fit a cache of 3"):
        dense.forward([1], cache)


@pytest.mark.parametrize("name", ["fp6", "fp6_k", "fp8_e4m3"])
def test_packed_prompt_of_a_dtype_without_expansion_is_widened(model_path, name):
    llama = load_gguf(model_path, name).prepare(torch.bfloat16)
    tolerance = 8 * 15**0.5 * 512**0.5 * 2.0**-8
    assert_close(logits(llama, pieces=7), logits(llama, pieces=1), tolerance)


def grid_file(path: Path, architecture: str = "llama") -> Path:
    """The tiny model with iq2_xxs weights, and q2_k for the values, as the fused projection reads them."""
    blocks = {}
    for seed, (name, (rows, columns)) in enumerate(tiny_llama.shapes().items()):
        format_name = "q2_k" if name.endswith("attn_v") else "iq2_xxs"
        if name != "token_embd":
            packed = reference.random_weight(format_name, rows, columns, seed, scale=2 * columns**-0.5)
            blocks[name] = packed.reshape(rows, -1), PUBLIC_BLOCKS[format_name]
    vectors = {} if architecture == "llama" else family_vectors(architecture)
    return tiny_llama.write_model(path, blocks, architecture, vectors=vectors)


def test_biases_of_grid_projections_are_not_lost(tmp_path):
    """The fused projection in iq2_xxs adds none."""
    formats = {"*.v_proj": "q2_k", "lm_head": "q8_0", "*": "iq2_xxs"}
    model = load_gguf(grid_file(tmp_path / "grid.gguf", "qwen2"), formats).prepare(many_rows=False)
    got = logits(model)
    assert_close(got, logits(model.prepare(fused=False, many_rows=False)), 15**0.5 * 3 / 254)


@pytest.mark.parametrize("name", sorted(FUSED_QKV_FORMATS))
def test_fused_decoding_agrees_with_plain_and_launches_less(model_path, tmp_path, name):
    if name == "iq2_xxs":
        formats = {"*.v_proj": "q2_k", "lm_head": "q8_0", "*": "iq2_xxs"}
        model = load_gguf(grid_file(tmp_path / "grid.gguf"), formats)
    else:
        model = load_gguf(model_path, name)
    model.prepare(many_rows=False)
    steps = [LayerStep(layer, True, model.config) for layer in model.model.layers]
    assert all(step.fused_qkv for step in steps)
    assert all(step.fused_mlp == (name in fused_mlp_formats()) for step in steps)
    # Inputs quantised to 8 bits may round to the neighbouring code after another order of summation.
    tolerance = 15**0.5 * 3 / 254 if name == "iq2_xxs" else FLOAT_TOLERANCE
    with host_xpu.record_launches() as fused_launches:
        got = logits(model)
    greedy = [list(generate(model, TOKENS, 8, set(), Speed()))]
    model.prepare(fused=False, many_rows=False)
    with host_xpu.record_launches() as plain_launches:
        expected = logits(model)
    greedy.append(list(generate(model, TOKENS, 8, set(), Speed())))
    assert_close(got, expected, tolerance)
    if name != "iq2_xxs":
        each = len(TOKENS)
        assert len(fused_launches) == each * (4 * tiny_llama.LAYERS + 1)
        assert len(plain_launches) == each * (7 * tiny_llama.LAYERS + 1)
        assert greedy[0] == greedy[1]


def test_stored_blocks_are_read_in_their_order(tmp_path):
    """Query rows stored as blocks come out reordered like dense ones, without being decoded on the way."""
    rows, columns = tiny_llama.shapes()["blk.0.attn_q"]
    packed = reference.random_weight("q2_k", rows, columns, seed=3).reshape(rows, -1)
    kind = gguf.GGMLQuantizationType.Q2_K
    path = tiny_llama.write_model(tmp_path / "blocks.gguf", {"blk.0.attn_q": (packed, kind)})
    layer = load_gguf(path, "q2_k").model.layers[0].self_attn.q_proj
    assert layer.error == 0
    taken = layer.weight.cpu().numpy().reshape(rows, -1)
    assert (taken == packed[half_split_order(tiny_llama.HEADS, tiny_llama.HEAD_SIZE)]).all()
