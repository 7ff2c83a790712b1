"""PackedLinear as a module, quantize_ over whole models, summary, save and load."""

import copy
import io
import json
import logging
import pickle

import numpy as np
import pytest
import torch
from reference import formats as reference
from safetensors.torch import save_file
from torch import nn

from corvane_runtime import (
    FORMATS,
    ModelError,
    PackedLinear,
    SafetensorsWeights,
    load,
    load_gguf,
    pack,
    quantize_,
    save,
    summary,
)

PACKABLE = [name for name, format_ in FORMATS.items() if format_.can_pack]
DTYPES = [torch.float32, torch.float16, torch.bfloat16, torch.float64]


def random_linear(in_features: int, out_features: int, bias: bool = True, seed: int = 0) -> nn.Linear:
    torch.manual_seed(seed)
    return nn.Linear(in_features, out_features, bias=bias).requires_grad_(False)


# --- the layer -------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("rows", [1, 3, 24, 70])
@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("name", PACKABLE)
def test_every_format_serves_every_dtype_and_any_number_of_rows(name, dtype, rows):
    # 5 output rows: an odd number of units in all formats, so that the expansions in whole units are refused.
    for out_features in (5, 32):
        layer = PackedLinear.from_linear(random_linear(256, out_features), name).to("xpu")
        x = torch.randn(rows, 256, generator=torch.Generator().manual_seed(1)).to(dtype)
        got = layer(x.to("xpu")).cpu()
        weight = reference.decode(name, layer.weight.cpu().numpy(), out_features, 256, half_factor=True)
        expected = x.double() @ torch.from_numpy(weight).T.double() + layer.bias.cpu().double()
        assert got.dtype == dtype and got.shape == expected.shape
        size = x.double().abs() @ torch.from_numpy(weight).T.double().abs()
        # Sums of 256 roundings in T, each of a partial sum below the sum of magnitudes; several rows may go through Half
        # weights; q2_k rounds the input of one row to 8 bits.
        epsilon = max(torch.finfo(dtype).eps, 2.0**-10)
        step = 1 / 127 if name == "q2_k" else 0
        assert ((got.double() - expected).abs() <= (16 * epsilon / 2 + step) * size + 2.0**-8 * epsilon).all()


@pytest.mark.parametrize("shape", [(64,), (0, 64), (2, 3, 64), (2, 0, 3, 64), (1, 1, 64)])
def test_leading_dimensions_are_kept(shape):
    layer = PackedLinear.from_linear(random_linear(64, 32), "q8_0").to("xpu")
    x = torch.randn(shape).to("xpu")
    y = layer(x)
    assert y.shape == (*shape[:-1], 32)
    if x.numel():
        assert torch.equal(y.reshape(-1, 32)[:1].cpu(), layer(x.reshape(-1, 64)[:1]).cpu()) or x.numel() > 64


def test_strided_inputs_are_read_in_their_order():
    layer = PackedLinear.from_linear(random_linear(64, 32), "q8_0").to("xpu")
    x = torch.randn(64, 4)
    assert torch.equal(layer(x.T.to("xpu")).cpu(), layer(x.T.contiguous().to("xpu")).cpu())


def test_refusals_say_what_to_do():
    layer = PackedLinear.from_linear(random_linear(64, 32), "q4_0")
    with pytest.raises(RuntimeError, match=r'\.to\("xpu"\)'):
        layer(torch.ones(1, 64))
    layer.to("xpu")
    with pytest.raises(RuntimeError, match="input is on cpu"):
        layer(torch.ones(1, 64))
    with pytest.raises(ValueError, match="should end in 64"):
        layer(torch.ones(1, 63).to("xpu"))
    with pytest.raises(ValueError, match="no format 'q9'"):
        PackedLinear(64, 32, "q9")
    with pytest.raises(ValueError, match="1088 bytes"):
        PackedLinear.from_packed(torch.zeros(5, dtype=torch.uint8), "q4_0", 32, 64)


def test_copies_pickles_and_state_dicts_compute_the_same():
    layer = PackedLinear.from_linear(random_linear(64, 32), "q4_0")
    x = torch.randn(1, 64).to("xpu")
    expected = copy.deepcopy(layer).to("xpu")(x).cpu()
    file = io.BytesIO()
    pickle.dump(layer, file)
    file.seek(0)
    filled = PackedLinear(64, 32, "q4_0", bias=True)
    filled.load_state_dict(layer.state_dict())
    for other in (pickle.load(file), filled, copy.deepcopy(layer).half().float()):
        got = other.to("xpu")(x).cpu()
        assert (got - expected).abs().max() <= 2.0**-10 * expected.abs().max()
    assert "format=q4_0" in repr(layer)
    assert [name for name, _ in layer.named_buffers()] == ["weight"]


@pytest.mark.skipif(not hasattr(torch, "compile"), reason="this PyTorch has no compiler")
@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("name", ["q4_0", "fp6", "fp8_e4m3"])
def test_every_way_is_compiled_in_one_graph(name, dtype):
    layer = PackedLinear.from_linear(random_linear(64, 33), name).to("xpu")
    torch._dynamo.reset()
    compiled = torch.compile(layer, fullgraph=True, backend="aot_eager")
    for rows in (0, 1, 3, 24):
        x = torch.randn(rows, 64).to(dtype).to("xpu")
        assert torch.equal(compiled(x).cpu(), layer(x).cpu())


# --- whole models ----------------------------------------------------------------------------------------------------


class Tied(nn.Module):
    def __init__(self) -> None:
        super().__init__()
        self.embedding = nn.Embedding(40, 256)
        self.body = nn.Sequential(nn.Linear(256, 192), nn.ReLU(), nn.Linear(192, 256), nn.Linear(256, 30))
        self.odd = nn.Linear(30, 256)
        self.again = self.odd
        self.head = nn.Linear(256, 40, bias=False)
        self.head.weight = self.embedding.weight

    def forward(self, tokens: torch.Tensor) -> torch.Tensor:
        return self.head(self.again(self.body(self.embedding(tokens))))


def formats_of(model: nn.Module) -> dict[str, str]:
    return {layer.name: layer.format for layer in summary(model).layers}


def test_what_does_not_fit_gets_a_neighbour_or_stays_dense_and_is_reported(caplog):
    with caplog.at_level(logging.INFO, "corvane_runtime"):
        model = quantize_(Tied(), "q4_k")
    assert formats_of(model) == {"body.0": "q4_k", "body.2": "q4_1", "body.3": "q4_k", "odd": "dense", "head": "q4_k"}
    lines = [record.getMessage() for record in caplog.records]
    assert any("body.2: packed as q4_1" in line for line in lines)
    assert any("odd: stays dense" in line for line in lines)
    assert any("head: packed apart from embedding.weight" in line for line in lines)
    assert len(lines) == 3
    table = str(summary(model))
    assert "q4_1" in table and "relative error" in table


def test_patterns_filters_and_shared_layers():
    model = quantize_(
        Tied(), {"head": None, "body.0": "fp6", "*": "q8_0"}, filter_fn=lambda module, name: name != "body.2"
    )
    assert formats_of(model) == {"body.0": "fp6", "body.2": "dense", "body.3": "q8_0", "odd": "dense", "head": "dense"}
    assert model.head.weight is model.embedding.weight
    shared = nn.ModuleDict({"a": nn.Linear(64, 64)})
    shared["b"] = shared["a"]
    quantize_(shared, "q4_0")
    assert shared["a"] is shared["b"] and isinstance(shared["a"], PackedLinear)


def test_a_layer_that_is_read_by_its_module_stays_dense():
    model = nn.ModuleDict({"attention": nn.MultiheadAttention(64, 2), "linear": nn.Linear(64, 64)})
    quantize_(model, "q4_0")
    assert formats_of(model) == {"attention.out_proj": "dense", "linear": "q4_0"}


def test_the_error_in_the_summary_is_that_of_the_weights():
    linear = random_linear(256, 128)
    found = summary(quantize_(nn.Sequential(linear), "q4_0"))
    values = reference.decode("q4_0", pack(linear.weight, "q4_0").numpy(), 128, 256)
    weight = linear.weight.numpy()
    assert found.error == pytest.approx(np.linalg.norm(values - weight) / np.linalg.norm(weight), rel=1e-4)
    assert (found.dense_bytes, found.bytes) == (4 * 128 * 256, 128 * 256 // 64 * 34)


def test_refusals_of_quantize():
    with pytest.raises(ValueError, match="no format 'q9'"):
        quantize_(Tied(), {"nothing": "q9"})
    with pytest.raises(ValueError, match="0: .*not a number"):
        broken = random_linear(64, 64)
        broken.weight[3, 3] = float("nan")
        quantize_(nn.Sequential(broken), "q4_0")
    with pytest.raises(ValueError, match="0: .*meta device"):
        quantize_(nn.Sequential(nn.Linear(64, 64, device="meta")), "q4_0")
    with pytest.raises(ValueError, match="from_linear"):
        quantize_(nn.Linear(64, 64), "q4_0")


def test_meta_model_is_packed_from_files_like_a_dense_one(tmp_path):
    dense = Tied()
    tensors = {name: tensor.detach() for name, tensor in dense.state_dict().items() if name not in ("head.weight",)}
    save_file(
        {name: tensor for name, tensor in tensors.items() if not name.startswith("again")}, tmp_path / "a.safetensors"
    )
    empty = copy.deepcopy(dense).to("meta")
    empty.head.weight = empty.embedding.weight
    quantize_(empty, {"head": "q4_0", "*": "q8_0"}, weights=SafetensorsWeights(tmp_path))
    quantize_(dense, {"head": "q4_0", "*": "q8_0"})
    got, expected = empty.state_dict(), dense.state_dict()
    assert got.keys() == expected.keys()
    assert all(torch.equal(got[name], expected[name]) for name in expected)


# --- files -----------------------------------------------------------------------------------------------------------


def test_saved_and_loaded_models_give_the_same_logits(model_path, tmp_path):
    model = load_gguf(model_path, {"*.down_proj": "q6_k", "*.v_proj": None, "*": "q4_0"})
    save(model, tmp_path)
    again = load(tmp_path)
    tokens = [5, 200, 31]
    logits = [m.forward(tokens, m.new_cache(3), last_only=False).cpu() for m in (model, again)]
    assert torch.equal(*logits)
    assert str(summary(model)) == str(summary(again))
    assert again.tokenizer.chat("the") == model.tokenizer.chat("the")


def test_any_module_is_loaded_into_one_of_its_structure(tmp_path):
    model = quantize_(Tied(), {"head": None, "*": "q8_0"}).to("xpu")
    save(model, tmp_path)
    with pytest.raises(ModelError, match="holds a Tied"):
        load(tmp_path)
    again = load(tmp_path, Tied().to("meta"))
    assert again.head.weight is again.embedding.weight
    tokens = torch.tensor([[3, 7]]).to("xpu")
    with torch.no_grad():
        assert torch.equal(again(tokens).cpu(), model(tokens).cpu())


def truncate(folder):
    file = folder / "model.safetensors"
    file.write_bytes(file.read_bytes()[:-100])


def flip(folder):
    file = folder / "model.safetensors"
    data = bytearray(file.read_bytes())
    data[-10] ^= 1
    file.write_bytes(data)


def edit(change):
    def apply(folder):
        about = json.loads((folder / "corvane.json").read_text())
        change(about)
        (folder / "corvane.json").write_text(json.dumps(about))

    return apply


DAMAGE = {
    "truncated": (truncate, "safetensors file"),
    "flipped bit": (flip, "damaged"),
    "no config": (lambda folder: (folder / "corvane.json").unlink(), r"corvane\.json"),
    "config no JSON": (lambda folder: (folder / "corvane.json").write_text("{"), "JSON"),
    "config a list": (lambda folder: (folder / "corvane.json").write_text("[]"), "no JSON object"),
    "newer": (edit(lambda about: about.update(version=99)), "version 99"),
    "no layers": (edit(lambda about: about.pop("layers")), "not a description"),
    "unknown format": (edit(lambda about: about["layers"]["0"].update(format="q9")), "0: its format 'q9'"),
    "other format": (edit(lambda about: about["layers"]["0"].update(format="q4_1")), r"0\.weight"),
    "other sizes": (edit(lambda about: about["layers"]["0"].update(in_features=128)), "0: the file holds"),
    "layer without sizes": (edit(lambda about: about["layers"]["0"].pop("in_features")), "does not describe"),
    "unknown layer": (edit(lambda about: about["layers"].update(x=about["layers"]["0"])), "does not describe"),
    "tensor not listed": (edit(lambda about: about["tensors"].pop("0.bias")), r"0\.bias"),
    "other shape": (edit(lambda about: about["tensors"]["0.bias"].update(shape=[3])), r"0\.bias: its shape"),
    "entry no object": (edit(lambda about: about["tensors"].update({"0.bias": "x"})), "not a description"),
    "tie no name": (edit(lambda about: about["ties"].update({"0.bias": ["0.weight"]})), "not a description"),
    "other dtype": (edit(lambda about: about["tensors"]["0.bias"].update(dtype="int8")), r"0\.bias: its dtype"),
}


@pytest.mark.parametrize("kind", DAMAGE)
def test_damaged_files_are_refused_by_name(tmp_path, kind):
    save(quantize_(nn.Sequential(random_linear(64, 64)), "q4_0"), tmp_path)
    damage, text = DAMAGE[kind]
    damage(tmp_path)
    with pytest.raises(ModelError, match=text):
        load(tmp_path, nn.Sequential(nn.Linear(64, 64)))
