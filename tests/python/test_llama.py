"""The example runtime on a tiny random model: reading, rotary order, packed and dense, fused and plain."""

import math
from pathlib import Path

import gguf
import numpy as np
import pytest
import tiny_llama
import torch
from reference import formats as reference

import host_xpu

from llama import device
from llama.generate import Speed, generate
from llama.gguf_model import GgufModel, ModelError, half_split_order, layer_names
from llama.linear import FALLBACK, DenseLinear, PackedLinear, load_packed, load_weights, model_elements, pack_linear
from llama.model import Llama, attention, rotate
from packers import FORMATS, PUBLIC_BLOCKS, take_over

PACKABLE = [name for name, format_ in FORMATS.items() if format_.encode is not None]
TOKENS = [5, 200, 31, 31, 90, 262, 7]

# Logits of two runs that round differently in float. Each of the 15 products on a token's way sums at most 512 terms,
# so its relative error is near sqrt(512) * 2^-24, and random weights do not amplify it: 2^-24 * 23 * 15, with a factor
# of 8 for the largest of many logits.
FLOAT_TOLERANCE = 8 * 15 * 23 * 2.0**-24


def unpacked_weights(model: GgufModel, format_name: str):
    """Dense weights with the values that the packed ones hold, read back by the reference."""

    def make(stored):
        packed = pack_linear(stored, format_name)
        shape = packed.output_size, packed.state_size
        values = reference.decode(packed.format_name, packed.weight.cpu().numpy(), *shape, half_factor=True)
        return DenseLinear(values.astype(np.float32), torch.float32)

    return load_weights(model, make)


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


def test_half_split_rows_rotate_as_neighbours_did(model):
    """A rotated query of the file's rows, neighbours turned, is the rotated query of the model's rows, reordered."""
    stored = model.stored("blk.0.attn_q").dense().astype(np.float64)
    x = np.random.default_rng(1).normal(size=tiny_llama.HIDDEN)
    heads, size, position = tiny_llama.HEADS, tiny_llama.HEAD_SIZE, 5
    pairs = (stored @ x).reshape(heads, size // 2, 2)
    turn = np.exp(1j * position * tiny_llama.ROPE_BASE ** (-2 * np.arange(size // 2) / size))
    turned = (pairs[:, :, 0] + 1j * pairs[:, :, 1]) * turn
    neighbours = np.stack([turned.real, turned.imag], axis=2).reshape(heads, size)

    ours = torch.from_numpy(model.linear("blk.0.attn_q").dense() @ x.astype(np.float32)).view(1, heads, 1, size)
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
        GgufModel(not_a_model)
    with pytest.raises(ModelError, match="architecture is falcon"):
        GgufModel(tiny_llama.write_model(tmp_path / "falcon.gguf", architecture="falcon"))


def test_missing_tensor_is_named(model):
    with pytest.raises(ModelError, match=r"no tensor blk\.9\.attn_q\.weight"):
        model.stored("blk.9.attn_q")


# --- packing ---------------------------------------------------------------------------------------------------------


def test_rows_too_short_for_super_blocks_fall_back(model):
    stored = model.stored("blk.0.attn_q")
    narrow = type(stored)(stored.name, stored.kind, 192, stored.data[:, :192])
    for wanted, instead in FALLBACK.items():
        assert pack_linear(narrow, wanted).format_name == instead
    with pytest.raises(ModelError, match="no whole number of 64-element blocks"):
        pack_linear(type(stored)(stored.name, stored.kind, 32, stored.data[:, :32]), "q4_0")


def test_grid_formats_need_a_file_that_holds_them(model):
    with pytest.raises(ModelError, match="iq2_xxs"):
        load_packed(model, "iq2_xxs")


def test_packing_tells_all_elements(model):
    told = []
    weights = load_packed(model, "q4_0", progress=told.append)
    assert sum(told) == model_elements(model) == weights.elements
    assert weights.bytes * 64 == weights.elements * 34
    assert weights.formats() == {"q4_0": len(layer_names(model.config)) + 1}


# --- running ---------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", PACKABLE)
def test_packed_runtime_agrees_with_dense_weights_of_the_same_values(model, name):
    packed = Llama(model, load_packed(model, name), torch.float32, fused=False, many_rows=False)
    same_values = Llama(model, unpacked_weights(model, name), torch.float32)
    # q2_k quantises its input to 8 bits a 32-element block: 1/254 of the block's extreme, near 3 standard deviations,
    # against sums that grow as the errors do.
    tolerance = 15**0.5 * 3 / 254 if name == "q2_k" else FLOAT_TOLERANCE
    assert_close(logits(packed), logits(same_values), tolerance)


@pytest.mark.parametrize("dtype", [torch.float16, torch.bfloat16, torch.float64], ids=str)
def test_dtypes_agree_within_their_precision(model, dtype):
    weights = load_packed(model, "q4_0")
    expected = logits(Llama(model, weights, torch.float32, fused=False, many_rows=False))
    got = logits(Llama(model, weights, dtype, fused=False, many_rows=False))
    # The float run is within FLOAT_TOLERANCE itself; sums of up to 512 roundings in T, over the 15 products.
    epsilon = max(torch.finfo(dtype).eps, torch.finfo(torch.float32).eps)
    assert_close(got, expected, 8 * 15**0.5 * 512**0.5 * epsilon / 2 + FLOAT_TOLERANCE)


def test_prompt_in_one_call_agrees_with_token_by_token(model, dense):
    one_by_one = logits(dense)
    for pieces in (7, 3):
        assert_close(logits(dense, pieces=pieces), one_by_one, FLOAT_TOLERANCE)
    assert_close(dense.forward(TOKENS, dense.new_cache(len(TOKENS))).cpu(), one_by_one[-1:], FLOAT_TOLERANCE)  # the last
    packed = load_packed(model, "q5_0")  # many rows of it take no path that rounds to less than float
    one_call = Llama(model, packed, torch.float32)
    assert one_call.many_rows
    one_by_one = logits(Llama(model, packed, torch.float32, fused=False, many_rows=False))
    assert_close(logits(one_call, pieces=7), one_by_one, FLOAT_TOLERANCE)


def test_cache_too_small_is_refused(dense):
    cache = dense.new_cache(3)
    dense.forward(TOKENS[:3], cache)
    with pytest.raises(ValueError, match=r"3 \+ 1 tokens do not fit a cache of 3"):
        dense.forward([1], cache)


@pytest.mark.parametrize("name", ["fp6", "fp6_k", "fp8_e4m3"])
def test_packed_prompt_of_a_dtype_without_expansion_goes_token_by_token(model, name):
    weights = load_packed(model, name)
    assert Llama(model, weights, torch.float32).many_rows
    llama = Llama(model, weights, torch.bfloat16)
    assert (logits(llama, pieces=7) == logits(llama, pieces=1)).all()


def grid_model(path: Path) -> GgufModel:
    """The tiny model with iq2_xxs weights, and q2_k for the values, as the fused projection reads them."""
    blocks = {}
    for seed, (name, (rows, columns)) in enumerate(tiny_llama.shapes().items()):
        format_name = "q2_k" if name.endswith("attn_v") else "iq2_xxs"
        if name != "token_embd":
            packed = reference.random_weight(format_name, rows, columns, seed, scale=2 * columns**-0.5)
            blocks[name] = packed.reshape(rows, -1), PUBLIC_BLOCKS[format_name]
    return GgufModel(tiny_llama.write_model(path, blocks))


def take_grid(stored):
    """Stored blocks as they are, q8_0 for the rest."""
    for name, kind in PUBLIC_BLOCKS.items():
        if stored.kind == kind:
            packed = take_over(FORMATS[name], stored.data, stored.columns)
            return PackedLinear(packed, FORMATS[name], stored.rows, stored.columns)
    return pack_linear(stored, "q8_0")


@pytest.mark.parametrize("name", sorted(device.FUSED_QKV_FORMATS))
def test_fused_decoding_agrees_with_plain_and_launches_less(model, tmp_path, name):
    if name == "iq2_xxs":
        source = grid_model(tmp_path / "grid.gguf")
        weights = load_weights(source, take_grid)
    else:
        source, weights = model, load_packed(model, name)
    fused = Llama(source, weights, torch.float32, fused=True, many_rows=False)
    plain = Llama(source, weights, torch.float32, fused=False, many_rows=False)
    assert all(fused.fused_qkv)
    assert all(fused.fused_mlp) == (name in device.fused_mlp_formats())
    # Inputs quantised to 8 bits may round to the neighbouring code after another order of summation.
    tolerance = 15**0.5 * 3 / 254 if name == "iq2_xxs" else FLOAT_TOLERANCE
    with host_xpu.record_launches() as fused_launches:
        got = logits(fused)
    with host_xpu.record_launches() as plain_launches:
        expected = logits(plain)
    assert_close(got, expected, tolerance)
    if name != "iq2_xxs":
        each = len(TOKENS)
        assert len(fused_launches) == each * (4 * tiny_llama.LAYERS + 1)
        assert len(plain_launches) == each * (7 * tiny_llama.LAYERS + 1)
        greedy = [list(generate(llama, TOKENS, 8, set(), Speed())) for llama in (fused, plain)]
        assert greedy[0] == greedy[1]


def test_stored_blocks_are_read_in_their_order(tmp_path):
    """Query rows stored as blocks come out reordered like dense ones, without being decoded on the way."""
    rows, columns = tiny_llama.shapes()["blk.0.attn_q"]
    packed = reference.random_weight("q2_k", rows, columns, seed=3).reshape(rows, -1)
    kind = gguf.GGMLQuantizationType.Q2_K
    source = GgufModel(tiny_llama.write_model(tmp_path / "blocks.gguf", {"blk.0.attn_q": (packed, kind)}))
    taken = pack_linear(source.linear("blk.0.attn_q"), "q2_k").weight.cpu().numpy().reshape(rows, -1)
    assert (taken == packed[half_split_order(tiny_llama.HEADS, tiny_llama.HEAD_SIZE)]).all()
