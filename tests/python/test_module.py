"""The module's surface: names, docstrings, signatures, checks in order with their texts, records, refusals."""

import contextlib
import os
import subprocess
import sys

import corvane
import pytest
import torch
from conftest import class_of
from reference.paths import ACCEPTED
from tensors import refusal

T = "torch.Tensor"


def positional(tensors: int, others: str = "") -> str:
    """Tensors, then arguments of the types named."""
    types = [T] * tensors + others.split()
    return "(" + ", ".join(f"arg{i}: {kind}" for i, kind in enumerate(types)) + ")"


OPERATORS = {  # in order: signature and text
    "forward_new": (f"{positional(2, 'int int')} -> {T}", "Linear forward (XPU) new format"),
    "forward_qkv": (
        f"(input: {T}, weight_q: {T}, weight_k: {T}, weight_v: {T}, position_ids: {T}, cache_k: {T}, cache_v: {T}, "
        f"src_0_qtype: int, src_0_vtype: int, kv_seq_len: int, head_size: int, rope_base: float = 10000.0) -> List[{T}]",
        "Linear forward (XPU) qkv format",
    ),
    "forward_qkv_bias": (
        f"{positional(10, 'int int int int float')} -> List[{T}]",
        "Linear forward (XPU) qkv with bias",
    ),
    "forward_qk": (f"{positional(5, 'int int int float')} -> List[{T}]", "Linear forward (XPU) qk format"),
    "dequant": (f"{positional(2, 'int')} -> {T}", "Dequantize weight (XPU)"),
    "bmm": (f"{positional(3)} -> {T}", "SYCL-based batch matrix multiplication"),
    "mlp_forward_xpu": (f"{positional(3, 'int int int int int')} -> {T}", "fused mlp"),
    "rwkv_linear_attention_v4": (f"{positional(7)} -> {T}", "rwkv v4 attention"),
    "rwkv_linear_attention_v5": (f"{positional(6)} -> {T}", "rwkv v5 attention"),
    "rwkv_time_shift": (f"{positional(3)} -> {T}", "rwkv time shift"),
    "dequantize_rows": (f"{positional(2, 'int int int')} -> {T}", "Dequantize rows of weight"),
    "get_moe_indexes": (f"{positional(1, 'int')} -> List[List[List[int]]]", "get moe indexes"),
}


def xpu(*shape, dtype=torch.float):
    return torch.zeros(*shape, dtype=dtype, device="xpu")


def weight(blocks=64):
    return xpu(34 * blocks, dtype=torch.uint8)


def test_operators_and_their_docstrings():
    found = {name: getattr(corvane, name).__doc__ for name in vars(corvane) if not name.startswith("_")}
    assert list(found) == list(OPERATORS)
    assert found == {name: f"{name}{signature}\n\n{text}\n" for name, (signature, text) in OPERATORS.items()}


@pytest.mark.parametrize("name", [name for name in OPERATORS if name != "forward_qkv"])
def test_arguments_by_position_alone(name):
    with pytest.raises(TypeError):
        getattr(corvane, name)(input=xpu(1, 64))


@pytest.mark.parametrize("arguments", [(), (1, 2, 3, 4), (None, None, 2, 1), (xpu(1, 64), weight(), 2.5, 1),
                                       (xpu(1, 64), weight(), 2**40, 1), (xpu(1, 64), weight(), 2)])  # fmt: skip
def test_binding_refuses(arguments):
    with pytest.raises(TypeError):
        corvane.forward_new(*arguments)


GOOD, STRIDED, CPU = xpu(1, 64), torch.zeros(64, 2, device="xpu").t()[:1], torch.zeros(1, 64)
# The wrappers: the tensors that they check in order, by the names of their messages; the number of the others, which
# they do not; the other arguments.
WRAPPERS = {
    "forward_new": ("input weights", 0, (2, 1)),
    "forward_qkv": ("input weight_q weight_k weight_v", 3, (2, 2, 0, 64)),
    "forward_qkv_bias": ("input weight_q weight_k weight_v", 6, (2, 2, 0, 64, 1e4)),
    "forward_qk": ("input weight_q weight_k", 2, (21, 0, 64, 1e4)),
    "dequant": ("input weight", 0, (2,)),
    "bmm": ("A B C", 0, ()),
    "dequantize_rows": ("input weight", 0, (23, 64, 64)),
}


@pytest.mark.parametrize(
    ("name", "number", "tensor"),
    [(name, number, tensor) for name in WRAPPERS for number, tensor in enumerate(WRAPPERS[name][0].split())],
)
def test_wrapper_checks_in_order(name, number, tensor):
    checked, others, rest = WRAPPERS[name]
    both = STRIDED.cpu().expand(2, -1).t()  # wrong twice
    for wrong, text in ((CPU, "must be a XPU tensor"), (both, "must be a XPU tensor"), (STRIDED, "must be contiguous")):
        tensors = [GOOD] * number + [wrong] + [CPU] * (len(checked.split()) - number - 1 + others)
        assert refusal(lambda tensors=tensors: getattr(corvane, name)(*tensors, *rest)) == f"{tensor} {text}"


HEADS = [xpu(1, 1, 2, 64)[:, :, :1] for _ in range(2)]
PACKED, CHANNELS, MATRIX, TOKENS, STATES = weight(), xpu(64), xpu(1, 64), xpu(1, 3, 64), [xpu(1, 64) for _ in range(3)]
POSITION = xpu(1, dtype=torch.long)
HEAD_TOKENS = [xpu(1, 1, 3, 64) for _ in range(3)]
WITH_FLOATS = {  # calls that work, and the floating tensors of each as refusals name them
    "forward_new": ([GOOD, PACKED, 2, 1], "input"),
    "forward_qkv": ([GOOD, *[PACKED] * 3, POSITION, *HEADS, 2, 2, 0, 64], "input _ _ _ _ cache_k cache_v"),
    "forward_qkv_bias": ([GOOD, *[PACKED] * 3, *[CHANNELS] * 3, POSITION, *HEADS, 2, 2, 0, 64, 1e4],
                         "input _ _ _ bias_q bias_k bias_v _ cache_k cache_v"),
    "forward_qk": ([xpu(1, 256), *[xpu(66 * 64, dtype=torch.uint8)] * 2, POSITION, HEADS[0], 21, 0, 64, 1e4],
                   "input _ _ _ cache_k"),
    "bmm": ([TOKENS, xpu(1, 64, 2), xpu(1, 3, 2)], "A B C"),
    "mlp_forward_xpu": ([GOOD, PACKED, PACKED, 1, 64, 64, 0, 2], "input"),
    "rwkv_linear_attention_v4": ([CHANNELS, CHANNELS, TOKENS, TOKENS, *STATES],
                                 "time_decay time_first key value num_state den_state max_state"),
    "rwkv_linear_attention_v5": ([MATRIX, MATRIX, *HEAD_TOKENS, xpu(1, 1, 64, 64)],
                                 "time_decay time_first receptance key value state"),
    "rwkv_time_shift": ([TOKENS, TOKENS, xpu(2, 1, 64)], "hidden shifted mix"),
}  # fmt: skip
FLOATS = [(operator, number, name) for operator, (_, names) in WITH_FLOATS.items()
          for number, name in enumerate(names.split()) if name != "_"]  # fmt: skip


@pytest.mark.parametrize(("operator", "number", "name"), FLOATS)
def test_a_gradient_is_neither_computed_nor_lost_without_a_word(operator, number, name):
    call, arguments = getattr(corvane, operator), list(WITH_FLOATS[operator][0])
    call(*arguments)
    arguments[number] = arguments[number].detach().requires_grad_()
    assert refusal(lambda: call(*arguments)) == (
        f"{name} requires a gradient, which no operator of corvane computes: call it under torch.no_grad(), or pass a "
        "detached tensor"
    )
    for without in (torch.no_grad, torch.inference_mode):
        with without():
            result = call(*arguments)
        assert all(t.grad_fn is None for t in (result if isinstance(result, list) else [result]))


@pytest.mark.parametrize(("qtype", "size"), [(2, 34), (6, 44), (15, 68), (10, 34)])
@pytest.mark.parametrize("rows", [1, 2, 8, 100])
def test_gradients_are_refused_on_every_path_of_forward_new(qtype, size, rows):
    packed = xpu(64 * size, dtype=torch.uint8)
    x = xpu(rows, 64, dtype=torch.half).requires_grad_()
    assert refusal(lambda: corvane.forward_new(x, packed, qtype, 1)).startswith("input requires a gradient")
    assert corvane.forward_new(x.detach(), packed, qtype, 1).shape == (rows, 64)


def test_a_gradient_carried_forward_is_refused():
    with torch.autograd.forward_ad.dual_level():
        x = torch.autograd.forward_ad.make_dual(xpu(1, 64), xpu(1, 64))
        assert refusal(lambda: corvane.forward_new(x, PACKED, 2, 1)).startswith("input requires a gradient")
        corvane.forward_new(x.detach(), PACKED, 2, 1)


def test_undefined_formats_are_refused():
    for qtype in [i for i in range(-2, 34) if i not in ACCEPTED] + [2**31 - 1, -(2**31)]:
        text = refusal(lambda qtype=qtype: corvane.forward_new(xpu(1, 64), weight(), qtype, 1))
        assert text.startswith(f"qtype {qtype} does not name a weight format")


@pytest.mark.parametrize(
    ("input", "bytes", "message"),
    [
        (xpu(64), weight(), "two dimensions"),
        (xpu(()), weight(), "two dimensions"),
        (xpu(1, 0), weight(), "state_size must be at least 1"),
        (xpu(1, 64, 0), weight(), "empty dimension"),
        (xpu(1, 64), xpu(340, 0, dtype=torch.uint8), "empty dimension"),
        (xpu(1, 64), xpu((), dtype=torch.uint8), "at least one dimension"),
        (xpu(1, 64), xpu(340), "unsigned bytes"),
        (xpu(1, 72), weight(), "72 must be a multiple of 16"),
        (xpu(1, 80), weight(), "80 must be a multiple of 64"),
        (xpu(1, 64, dtype=torch.int), weight(), "\"qlinear_forward_xpu\" not implemented for 'Int'"),
    ],
)
def test_forward_new_refuses(input, bytes, message):
    assert message in refusal(lambda: corvane.forward_new(input, bytes, 2, 1))


def test_a_weight_of_too_many_elements_is_refused():
    data = torch.empty(50 << 23, dtype=torch.uint8, device="xpu")  # iq1_s; never touched
    assert "fewer than 2147483648 elements" in refusal(lambda: corvane.forward_new(xpu(1, 256), data, 24, 1))


@pytest.mark.parametrize(
    ("variable", "value", "error", "text"),
    [
        ("TILE_THRESHOLD", "abc", ValueError, "invalid stoll argument"),
        ("TILE_THRESHOLD", "", ValueError, "invalid stoll argument"),
        ("TILE_THRESHOLD", "9" * 30, IndexError, "stoll argument out of range"),
        ("TARN_LLM_LOW_MEM", "x1", ValueError, "invalid stoll argument"),
        ("TILE_SIZE", " ", ValueError, "invalid stoull argument"),
        ("TILE_SIZE", "9" * 30, IndexError, "stoull argument out of range"),
    ],
)
def test_malformed_environment(monkeypatch, variable, value, error, text):
    monkeypatch.setenv(variable, value)
    readers = {2} if variable == "TARN_LLM_LOW_MEM" else {2, 8, 19}
    for qtype, size in ((2, 34), (8, 68), (19, 68), (6, 44)):
        expected = pytest.raises(error, match=f"^{text}$") if qtype in readers else contextlib.nullcontext()
        with expected:
            corvane.forward_new(xpu(1, 128), xpu(2 * size, dtype=torch.uint8), qtype, 1)


def test_environment_is_read_in_order(monkeypatch):
    for variable, value, error, text in (
        ("TILE_SIZE", "", ValueError, "invalid stoull argument"),
        ("TARN_LLM_LOW_MEM", "9" * 30, IndexError, "stoll argument out of range"),
        ("TILE_THRESHOLD", "x", ValueError, "invalid stoll argument"),
    ):  # set in the reverse order of reading: each new error hides those set before
        monkeypatch.setenv(variable, value)
        with pytest.raises(error, match=f"^{text}$"):
            corvane.forward_new(xpu(1, 64), weight(), 2, 1)


@pytest.mark.parametrize("value", ["12abc", "  7", "+3", "-1"])
def test_numbers_with_text_behind_them_are_read(monkeypatch, value):
    monkeypatch.setenv("TILE_THRESHOLD", value)
    monkeypatch.setenv("TILE_SIZE", value)
    assert corvane.forward_new(xpu(1, 64), weight(), 2, 1).shape == (1, 64)


def test_tile_size_zero_is_refused_by_the_tile_path_alone(monkeypatch, device_class):
    for name, value in (("TILE_SIZE", "0"), ("TILE_THRESHOLD", "1"), ("TARN_LLM_LOW_MEM", "1")):
        monkeypatch.setenv(name, value)
    assert corvane.forward_new(xpu(1, 64), weight(), 2, 129).shape == (1, 64)
    assert "TILE_SIZE must be at least 1" in refusal(lambda: corvane.forward_new(xpu(100, 64), weight(), 2, 129))


def in_new_process(code: str, **environment) -> subprocess.CompletedProcess:
    path = os.pathsep.join([*sys.path, os.environ.get("PYTHONPATH", "")])
    return subprocess.run([sys.executable, "-c", "import torch, corvane\n" + code], capture_output=True, text=True,
                          env={**os.environ, "PYTHONPATH": path, **environment})  # fmt: skip


# A call on CPU tensors, and where its refusal says that it was raised.
PLACES = {
    "forward_new(matrix, matrix, 2, 1)": "linear_forward_new at linear_xpu.cpp",
    "forward_new(matrix.new_zeros(1, 72).to('xpu'), torch.zeros(340).byte().to('xpu'), 2, 1)":
        "qlinear_xpu_kernel_q4_0_2x16 at linear_xpu_kernel.cpp",
    "bmm(*[matrix.to('xpu')] * 3)": "bmm_xpu at bmm_xpu_kernel.cpp",
    "get_moe_indexes(channels.int(), 4)": "get_moe_indexes at moe.cpp",
    "rwkv_time_shift(matrix, tokens, tokens)": "rwkv_time_shift at rwkv.cpp",
    "rwkv_time_shift(tokens, tokens, tokens)": "rwkv_time_shift_kernel at rwkv.cpp",  # the hidden size is the launcher's
    "rwkv_linear_attention_v4(matrix, channels, tokens, tokens, *[state] * 3)": "rwkv_linear_attention_v4 at rwkv.cpp",
    "rwkv_linear_attention_v4(channels, channels, tokens, tokens, *[state] * 3)":
        "rwkv_linear_attention_kernel_v4 at rwkv.cpp",
    "rwkv_linear_attention_v5(*[matrix] * 6)": "rwkv_linear_attention_v5 at rwkv.cpp",
}  # fmt: skip


def test_failures_name_function_and_source():
    code = """
matrix, channels, tokens, state = torch.zeros(2, 2), torch.zeros(48), torch.zeros(1, 3, 48), torch.zeros(1, 48)
for call in CALLS:
    try:
        eval("corvane." + call)
    except RuntimeError as refusal:
        print(str(refusal).split("Exception raised from ")[1].split(":")[0])
"""
    done = in_new_process(f"CALLS = {list(PLACES)}{code}", TORCH_SHOW_CPP_STACKTRACES="1")
    assert done.stdout.splitlines() == list(PLACES.values())


def test_double_on_the_systolic_path_ends_the_process():
    code = """
x, w = torch.zeros(8, 64, dtype=torch.double).to('xpu'), torch.zeros(34 * 16, dtype=torch.uint8).to('xpu')
corvane.forward_new(x, w, 2, 8)
"""
    done = in_new_process(code, HOST_XPU_DEVICE_NAME="Cirrus(TM) A770")
    assert done.returncode == 2
    assert done.stderr.endswith("unsupported dtype\n")


def test_classes_of_names():
    """A process of each name launches with its class's sizes."""
    code = """
import host_xpu
with host_xpu.record_launches() as records:
    corvane.forward_new(torch.zeros(1, 64).to('xpu'), torch.zeros(34 * 16, dtype=torch.uint8).to('xpu'), 2, 1)
print(host_xpu.device_name(), records[0].global_size, records[0].local_size, sep=';')
"""
    sizes = {0: ((8 * 64,), (64,)), 5: ((2 * 32,), (32,))}
    for name in ("Stratus Server GPU NBG", "x NBG", "Cirrus(TM) NBG", "stratus server gpu"):
        done = in_new_process(code, HOST_XPU_DEVICE_NAME=name)
        global_size, local_size = sizes.get(class_of(name), ((8 * 32,), (32,)))
        assert done.stdout.strip() == f"{name};{global_size};{local_size}"


RECORDS = {  # label, and the number of the tensor in it
    "forward_new": ("vorel_qlinear_forward", 0),
    "forward_qkv": ("vorel_qkv_forward", 0),
    "forward_qkv_bias": ("vorel_qkv_bias_forward", 0),
    "forward_qk": ("vorel_qk_forward", 0),
    "dequant": ("vorel_xpu_dequant", 1),
    "bmm": ("vorel_bmm", 0),
    "dequantize_rows": ("vorel_dequantize_rows", 0),
}


@pytest.mark.parametrize("name", WRAPPERS)
def test_records(name):
    """One of a call that the wrapper lets through, whatever becomes of it, and none of another."""
    checked, others, rest = WRAPPERS[name]
    label, recorded = RECORDS[name]
    shapes = [[i + 1, 8] for i in range(len(checked.split()))]
    tensors = [xpu(*shape, dtype=torch.int8) for shape in shapes]
    for first, inputs in ((tensors[0], [[shapes[recorded]]]), (CPU, [])):
        with torch.profiler.profile(record_shapes=True) as profile, pytest.raises(RuntimeError):
            getattr(corvane, name)(first, *tensors[1:], *[CPU] * others, *rest)
        assert [e.input_shapes for e in profile.events() if e.name == label] == inputs
