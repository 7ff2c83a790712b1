"""forward_new: every format, dtype and path against the reference, and its launches against the stated geometry.

The device class is the process's; an independent statement of path selection says what a call is to do.
"""

import contextlib
import os

import corvane
import host_xpu
import pytest
import torch
from reference import geometry, paths
from reference.forward import forward
from reference.linear import matrix_vector, random_input
from reference.random_weights import random_weight
from reference.registry import FORMATS
from tensors import DTYPES, assert_close, assert_launches, on_device

FORMAT_NAMES = list(FORMATS)
BLOCK_256 = [name for name, f in FORMATS.items() if f.block_elements == 256]


@contextlib.contextmanager
def environment(values: dict):
    """Environment variables for the length of a call."""
    before = {name: os.environ.get(name) for name in values}
    os.environ.update(values)
    try:
        yield
    finally:
        for name, value in before.items():
            if value is None:
                del os.environ[name]
            else:
                os.environ[name] = value


def run(name, n, k, rows, dtype, cls, env=None, row_hint=0, seed=0):
    """One call: checks result and launches against the expected outcome."""
    qtype = FORMATS[name].qtype
    data = random_weight(name, n, k, seed)
    x = random_input(rows, k, dtype, seed)
    outcome = paths.select(cls, qtype, rows, n, k, dtype, env, row_hint)
    with environment(env or {}), host_xpu.record_launches() as records:
        y = corvane.forward_new(on_device(x, dtype), on_device(data), qtype, row_hint)
    assert y.device.type == "xpu" and y.dtype == DTYPES[dtype]
    expected, bound = forward(outcome, qtype, x, data, n, k, dtype)
    assert_close(y, expected, bound, f"{name} {dtype} rows {rows} n {n} k {k}: {outcome.path}")
    tile = int((env or {}).get("TILE_SIZE", n)) if outcome.path == "tile" else n
    sizes = [min(tile, n - start) for start in range(0, n, tile)] if outcome.path == "tile" else [n] * 2
    launches = [geometry.linear(kernel, cls, size, k, rows) for (kernel, _), size in zip(outcome.launches, sizes)]
    assert_launches(records, launches)
    assert [r.waited for r in records] == [waited for _, waited in outcome.launches]
    return outcome


def whole_rows(name: str, k: int) -> int:
    """k, made a length that the format's one-row kernels define on all classes."""
    return -(-k // 1024) * 1024 if name in ("q4_k", "q6_k") else -(-k // 256) * 256 if name in BLOCK_256 else k


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", FORMAT_NAMES)
@pytest.mark.parametrize(("n", "k"), [(1, 128), (7, 1088), (33, 384), (64, 2048)])
def test_one_row(name, dtype, n, k, device_class):
    k = whole_rows(name, k) if name != "q5_0" and name != "q5_1" else -(-k // 128) * 128
    assert run(name, n, k, 1, dtype, device_class).path == "matrix_vector"


@pytest.mark.parametrize("dtype", ["float", "half"])
@pytest.mark.parametrize("name", FORMAT_NAMES)
def test_one_row_of_any_whole_number_of_blocks(name, dtype):
    n, k = 5, 3 * FORMATS[name].block_elements
    data, x = random_weight(name, n, k, 1), random_input(1, k, dtype, 1)
    if paths.ONE_ROW[FORMATS[name].qtype].quantised:
        pytest.skip("k is one that the other test covers")
    expected, bound = matrix_vector(name, data, n, k, x, dtype)
    assert_close(corvane.forward_new(on_device(x, dtype), on_device(data), FORMATS[name].qtype, 1), expected, bound)


ROWS = [2, 3, 6, 7, 8, 9, 14, 15, 16, 17, 64, 65]


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", FORMAT_NAMES)
def test_rows_around_every_threshold(name, dtype, device_class):
    n, k = 32, whole_rows(name, 192)
    for rows in ROWS:
        outcome = paths.select(device_class, FORMATS[name].qtype, rows, n, k, dtype)
        if outcome.path not in ("refused", "exit"):
            run(name, n, k, rows, dtype, device_class)


@pytest.mark.parametrize("name", ["q4_0", "q8_0", "fp8_e4m3", "fp8_e5m2"])
def test_systolic_can_be_closed(name, device_class):
    env = {"VOREL_LLM_SYSDOT_DISABLED": "1"}
    assert run(name, 32, 128, 8, "half", device_class, env).path != "systolic"
    for other in ("0", "true", "", "1 "):
        run(name, 32, 128, 8, "half", device_class, {"VOREL_LLM_SYSDOT_DISABLED": other})


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize(("name", "rows"), [("q4_0", 70), ("q8_0", 70), ("fp8_e5m2", 70), ("q4_0", 7)])
def test_tiles(name, rows, dtype, device_class):
    for k in (64, 320, 1024):
        env = {"TILE_THRESHOLD": "40", "TILE_SIZE": "16", "TARN_LLM_LOW_MEM": "1"}
        run(name, 40, k, rows, dtype, device_class, env, row_hint=129)
        run(name, 41, k, rows, dtype, device_class, env, row_hint=129)
        run(name, 41, k, rows, dtype, device_class, {**env, "TILE_SIZE": "4096"}, row_hint=129)
        run(name, 41, k, rows, dtype, device_class, {**env, "TARN_LLM_LOW_MEM": "2"}, row_hint=129)


@pytest.mark.parametrize("n", [3, 5])
@pytest.mark.parametrize("dtype", DTYPES)
def test_nf4_small_batch_with_odd_output_size(n, dtype):
    k, rows = 192, 3
    data, x = random_weight("nf4", n, k, 2), random_input(rows, k, dtype, 2)
    expected, bound = matrix_vector("nf4", data, n, k, x, dtype)
    assert_close(corvane.forward_new(on_device(x, dtype), on_device(data), 10, rows), expected, bound)


@pytest.mark.parametrize("dtype", ["float", "half"])
def test_fp8_e4m3_with_a_unit_count_that_is_no_multiple_of_four(dtype, device_class):
    n, k, rows = 5, 64, 3
    data, x = random_weight("fp8_e4m3", n, k, 3), random_input(rows, k, dtype, 3)
    outcome = paths.Outcome("expansion", (("dequantize_fp8_e4m3_kernel", False),))
    expected, bound = forward(outcome, 15, x, data, n, k, dtype)
    assert_close(corvane.forward_new(on_device(x, dtype), on_device(data), 15, rows), expected, bound)


def test_paths_of_fp8_e5m2_differ_on_the_stored_scale(device_class):
    n, k = 32, 128
    data, x = random_weight("fp8_e5m2", n, k, 4, stored_scales=True), random_input(8, k, "half", 4)
    for rows, env in ((1, {}), (8, {}), (8, {"VOREL_LLM_SYSDOT_DISABLED": "1"})):
        outcome = paths.select(device_class, 19, rows, n, k, "half", env)
        with environment(env):
            y = corvane.forward_new(on_device(x[:rows], "half"), on_device(data), 19, rows)
        assert_close(y, *forward(outcome, 19, x[:rows], data, n, k, "half"))


def test_half_sums_overflow_to_infinity_where_float_does_not():
    k = 64
    data = random_weight("q8_0", 1, k, 0)
    data[:k] = 127
    data[k:].view("<f4")[:] = 1.0
    x = torch.full((1, k), 100.0)
    for dtype, result in ((torch.half, float("inf")), (torch.float, 127.0 * 100 * k)):
        assert corvane.forward_new(x.to(dtype).to("xpu"), on_device(data), 8, 1).item() == result


@pytest.mark.parametrize("name", FORMAT_NAMES)
@pytest.mark.parametrize("rows", [0, 1, 4, 100])
def test_no_rows_and_no_outputs(name, rows):
    k = whole_rows(name, 256)
    empty = corvane.forward_new(torch.zeros(rows, k, device="xpu"), torch.zeros(0, dtype=torch.uint8, device="xpu"),
                                FORMATS[name].qtype, 0)  # fmt: skip
    assert empty.shape == (rows, 0)
    if rows == 0:
        data = on_device(random_weight(name, 32, k, 0))
        assert corvane.forward_new(torch.zeros(0, k, device="xpu"), data, FORMATS[name].qtype, 0).shape == (0, 32)


def test_tail_bytes_and_further_dimensions_are_not_looked_at():
    n, k = 4, 128
    data, x = random_weight("q4_0", n, k, 5), random_input(1, k, "float", 5)
    expected, bound = matrix_vector("q4_0", data, n, k, x, "float")
    longer = torch.cat([torch.from_numpy(data), torch.full((33,), 255, dtype=torch.uint8)]).to("xpu")
    assert_close(corvane.forward_new(on_device(x, "float").view(1, k, 1), longer, 2, 1), expected, bound)
