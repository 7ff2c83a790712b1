"""The module's surface: names, docstrings, signatures, checks in order with their texts, records, refusals."""

import os
import subprocess
import sys

import corvane
import host_xpu
import pytest
import torch
from conftest import DEVICE_NAMES, class_of
from reference.paths import ACCEPTED

T = "torch.Tensor"
OPERATORS = [
    ("forward_new", f"(arg0: {T}, arg1: {T}, arg2: int, arg3: int) -> {T}", "Linear forward (XPU) new format"),
    (
        "forward_qkv",
        f"(input: {T}, weight_q: {T}, weight_k: {T}, weight_v: {T}, position_ids: {T}, cache_k: {T}, cache_v: {T}, "
        f"src_0_qtype: int, src_0_vtype: int, kv_seq_len: int, head_size: int, rope_base: float = 10000.0) -> List[{T}]",
        "Linear forward (XPU) qkv format",
    ),
    (
        "forward_qkv_bias",
        "(" + ", ".join(f"arg{i}: {T}" for i in range(10)) + ", arg10: int, arg11: int, arg12: int, arg13: int, "
        f"arg14: float) -> List[{T}]",
        "Linear forward (XPU) qkv with bias",
    ),
    (
        "forward_qk",
        "(" + ", ".join(f"arg{i}: {T}" for i in range(5)) + f", arg5: int, arg6: int, arg7: int, arg8: float) -> List[{T}]",
        "Linear forward (XPU) qk format",
    ),
    ("dequant", f"(arg0: {T}, arg1: {T}, arg2: int) -> {T}", "Dequantize weight (XPU)"),
    ("bmm", f"(arg0: {T}, arg1: {T}, arg2: {T}) -> {T}", "SYCL-based batch matrix multiplication"),
    (
        "mlp_forward_xpu",
        f"(arg0: {T}, arg1: {T}, arg2: {T}, arg3: int, arg4: int, arg5: int, arg6: int, arg7: int) -> {T}",
        "fused mlp",
    ),
    (
        "rwkv_linear_attention_v4",
        "(" + ", ".join(f"arg{i}: {T}" for i in range(7)) + f") -> {T}",
        "rwkv v4 attention",
    ),
    (
        "rwkv_linear_attention_v5",
        "(" + ", ".join(f"arg{i}: {T}" for i in range(6)) + f") -> {T}",
        "rwkv v5 attention",
    ),
    ("rwkv_time_shift", f"(arg0: {T}, arg1: {T}, arg2: {T}) -> {T}", "rwkv time shift"),
    ("dequantize_rows", f"(arg0: {T}, arg1: {T}, arg2: int, arg3: int, arg4: int) -> {T}", "Dequantize rows of weight"),
    ("get_moe_indexes", f"(arg0: {T}, arg1: int) -> List[List[List[int]]]", "get moe indexes"),
]


def xpu(*shape, dtype=torch.float):
    return torch.zeros(*shape, dtype=dtype, device="xpu")


def weight(blocks=64):
    return xpu(34 * blocks, dtype=torch.uint8)


def test_operators_in_order():
    public = [name for name in vars(corvane) if not name.startswith("_")]
    assert public == [name for name, _, _ in OPERATORS]


@pytest.mark.parametrize(("name", "signature", "text"), OPERATORS)
def test_docstring(name, signature, text):
    assert getattr(corvane, name).__doc__ == f"{name}{signature}\n\n{text}\n"


@pytest.mark.parametrize("name", [name for name, _, _ in OPERATORS if name != "forward_qkv"])
def test_arguments_by_position_alone(name):
    with pytest.raises(TypeError):
        getattr(corvane, name)(input=xpu(1, 64))


@pytest.mark.parametrize("arguments", [(), (1, 2, 3, 4), (None, None, 2, 1), (xpu(1, 64), weight(), 2.5, 1),
                                       (xpu(1, 64), weight(), 2**40, 1), (xpu(1, 64), weight(), 2)])  # fmt: skip
def test_binding_refuses(arguments):
    with pytest.raises(TypeError):
        corvane.forward_new(*arguments)


INPUT, STRIDED = xpu(1, 64), torch.zeros(64, 2, device="xpu").t()[:1]
CPU = torch.zeros(1, 64)


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda: corvane.forward_new(CPU, CPU, 2, 1), "input must be a XPU tensor"),
        (lambda: corvane.forward_new(STRIDED, CPU, 2, 1), "input must be contiguous"),
        (lambda: corvane.forward_new(INPUT, CPU, 2, 1), "weights must be a XPU tensor"),
        (lambda: corvane.forward_new(INPUT, STRIDED, 2, 1), "weights must be contiguous"),
        (lambda: corvane.dequant(INPUT, CPU, 2), "weight must be a XPU tensor"),
        (lambda: corvane.dequant(STRIDED, CPU, 2), "input must be contiguous"),
        (lambda: corvane.dequantize_rows(INPUT, STRIDED, 23, 64, 64), "weight must be contiguous"),
        (lambda: corvane.bmm(INPUT, CPU, CPU), "B must be a XPU tensor"),
        (lambda: corvane.bmm(INPUT, INPUT, STRIDED), "C must be contiguous"),
        (lambda: corvane.forward_qkv(INPUT, INPUT, INPUT, CPU, *[CPU] * 3, 2, 2, 0, 64), "weight_v must be a XPU tensor"),
        (lambda: corvane.forward_qkv_bias(INPUT, INPUT, STRIDED, CPU, *[CPU] * 6, 2, 2, 0, 64, 1e4),
         "weight_k must be contiguous"),
        (lambda: corvane.forward_qk(INPUT, CPU, *[CPU] * 3, 21, 0, 64, 1e4), "weight_q must be a XPU tensor"),
    ],
)  # fmt: skip
def test_wrapper_checks_in_order(call, message):
    with pytest.raises(RuntimeError) as failure:
        call()
    assert str(failure.value).splitlines()[0] == message


@pytest.mark.parametrize("qtype", [i for i in range(-2, 34) if i not in ACCEPTED] + [2**31 - 1, -(2**31)])
def test_undefined_formats_are_refused(qtype):
    with pytest.raises(RuntimeError, match="does not name a weight format"):
        corvane.forward_new(xpu(1, 64), weight(), qtype, 1)


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
    with pytest.raises(RuntimeError, match=message):
        corvane.forward_new(input, bytes, 2, 1)


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
        call = lambda size=size, qtype=qtype: corvane.forward_new(xpu(1, 128), xpu(2 * size, dtype=torch.uint8), qtype, 1)  # noqa: E731
        if qtype in readers:
            with pytest.raises(error) as failure:
                call()
            assert str(failure.value) == text
        else:
            call()


@pytest.mark.parametrize("value", ["12abc", "  7", "+3", "-1"])
def test_numbers_with_text_behind_them_are_read(monkeypatch, value):
    monkeypatch.setenv("TILE_THRESHOLD", value)
    monkeypatch.setenv("TILE_SIZE", value)
    assert corvane.forward_new(xpu(1, 64), weight(), 2, 1).shape == (1, 64)


def test_tile_size_zero_is_refused_by_the_tile_path_alone(monkeypatch, device_class):
    for name, value in (("TILE_SIZE", "0"), ("TILE_THRESHOLD", "1"), ("TARN_LLM_LOW_MEM", "1")):
        monkeypatch.setenv(name, value)
    assert corvane.forward_new(xpu(1, 64), weight(), 2, 129).shape == (1, 64)
    with pytest.raises(RuntimeError, match="TILE_SIZE must be at least 1"):
        corvane.forward_new(xpu(100, 64), weight(), 2, 129)


def in_new_process(code: str, **environment) -> subprocess.CompletedProcess:
    path = os.pathsep.join([*sys.path, os.environ.get("PYTHONPATH", "")])
    return subprocess.run([sys.executable, "-c", "import torch, corvane\n" + code], capture_output=True, text=True,
                          env={**os.environ, "PYTHONPATH": path, **environment})  # fmt: skip


def test_failures_name_wrapper_and_source():
    code = "corvane.forward_new(torch.zeros(1, 64), torch.zeros(1), 2, 1)"
    done = in_new_process(code, TORCH_SHOW_CPP_STACKTRACES="1")
    assert "Exception raised from linear_forward_new at linear_xpu.cpp" in done.stderr
    code = "corvane.forward_new(torch.zeros(1, 72).to('xpu'), torch.zeros(340, dtype=torch.uint8).to('xpu'), 2, 1)"
    done = in_new_process(code, TORCH_SHOW_CPP_STACKTRACES="1")
    assert "Exception raised from qlinear_xpu_kernel_q4_0_2x16 at linear_xpu_kernel.cpp" in done.stderr


def test_double_on_the_systolic_path_ends_the_process():
    code = """
x, w = torch.zeros(8, 64, dtype=torch.double).to('xpu'), torch.zeros(34 * 16, dtype=torch.uint8).to('xpu')
corvane.forward_new(x, w, 2, 8)
"""
    done = in_new_process(code, HOST_XPU_DEVICE_NAME=DEVICE_NAMES[1])
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


def test_record_of_a_call():
    x, w = xpu(1, 64), weight()
    with torch.profiler.profile(record_shapes=True) as profile:
        corvane.forward_new(x, w, 2, 1)
    events = [e for e in profile.events() if e.name == "vorel_qlinear_forward"]
    assert len(events) == 1
    assert events[0].input_shapes == [[1, 64]]
    with torch.profiler.profile() as profile, pytest.raises(RuntimeError):
        corvane.forward_new(CPU, w, 2, 1)
    assert not [e for e in profile.events() if e.name == "vorel_qlinear_forward"]  # opened after the checks


def test_two_streams_reach_two_queues():
    x, w = xpu(1, 64), weight()
    with host_xpu.record_launches() as records:
        corvane.forward_new(x, w, 2, 1)
        with host_xpu.stream(host_xpu.Stream()):
            corvane.forward_new(x, w, 2, 1)
        corvane.forward_new(x, w, 2, 1)
    queues = [r.queue for r in records]
    assert queues[0] == queues[2] != queues[1]
