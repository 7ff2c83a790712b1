"""Expansions: bit for bit against the reference by dequant, dequantize_rows and forward_new, and what they refuse."""

import corvane
import host_xpu
import numpy as np
import pytest
import torch
from reference import geometry, paths
from reference.expand import expand_general
from reference.forward import expanded
from reference.operators import dequantize_rows
from reference.random_weights import random_weight
from reference.registry import FORMATS
from tensors import DTYPES, assert_launches, environment, on_device, refusal, to_numpy

DEQUANT = ("q4_0", "q4_1", "q8_0", "nf4", "fp4", "fp8_e5m2", "iq2_xxs")
ROWS = ("q2_k", "q4_k")
ids = {name: FORMATS[name].qtype for name in FORMATS}
origin = torch.zeros(1, 64, device="xpu")

# (n, k): every work-group size of the row kernels; rows that end within a super-block; fillings of whole threads.
SHAPES = [(5, 64), (8, 64), (8, 192), (4, 320), (8, 128), (3, 256), (6, 512), (2, 1024)]
TILES = {"TILE_THRESHOLD": "1", "TILE_SIZE": "3", "TARN_LLM_LOW_MEM": "1"}


def dequant(name, data, k, dtype="float"):
    return corvane.dequant(torch.empty(1, k, dtype=DTYPES[dtype], device="xpu"), on_device(data), ids[name])


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", DEQUANT)
def test_dequant_is_exact(name, dtype, device_class):
    for n, k in SHAPES if name != "iq2_xxs" else [(3, 256), (4, 320)]:
        data = random_weight(name, n, k, 7, unusual=True)
        with host_xpu.record_launches() as records:
            found = dequant(name, data, k, dtype)
        assert found.dtype == DTYPES[dtype] and found.device.type == "xpu"
        np.testing.assert_array_equal(to_numpy(found), np.float64(expand_general(name, data, n, k, dtype)))
        if dtype == "bfloat16":
            patterns = found.cpu().view(torch.int16)[found.isnan().cpu()]
            assert patterns.unique().tolist() in ([], [0x7FC0])
        assert_launches(records, [geometry.dequant(device_class, ids[name], n, k)])
        assert records[0].waited == (name in ("nf4", "iq2_xxs"))


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize(
    ("name", "path"),
    [(name, "expansion") for name in FORMATS] + [(name, "tile") for name in ("q4_0", "q8_0", "fp8_e5m2")],
)
def test_expansion_for_a_product_is_exact(name, path, dtype, device_class):
    """A product with the unit matrix is the weight itself; an infinity or a not-a-number spoils all of its row."""
    env = TILES if path == "tile" else {}
    rows = {k: max(k, 72) for _, k in SHAPES}  # more than any path takes that reads the packed weight
    outcomes = {(n, k): paths.select(device_class, ids[name], rows[k], n, k, dtype, env, 129) for n, k in SHAPES}
    outcomes = {shape: outcome for shape, outcome in outcomes.items() if outcome.path == path}
    if not outcomes:
        pytest.skip(f"no {path} of this type on this class")
    for (n, k), outcome in outcomes.items():
        data, unit = random_weight(name, n, k, 3, unusual=True), np.eye(rows[k], k)
        with environment(env), host_xpu.record_launches() as records:
            found = corvane.forward_new(on_device(unit, dtype), on_device(data), ids[name], 129)
        assert [(r.kernel, r.waited) for r in records] == list(outcome.launches), f"n {n} k {k}"
        weight = np.float64(expanded(outcome, name, data, n, k, dtype))
        with np.errstate(invalid="ignore"):
            np.testing.assert_array_equal(to_numpy(found), unit @ weight.T, f"n {n} k {k}")


def test_dequant_takes_shape_and_dtype_of_the_input_alone():
    data = on_device(random_weight("q4_0", 4, 64, 3))
    first = corvane.dequant(torch.full((1, 64), float("nan"), device="xpu"), data, ids["q4_0"])
    second = corvane.dequant(torch.randn(5, 64, 0).to("xpu"), data, ids["q4_0"])
    assert torch.equal(first, second) and first.shape == (4, 64)


def test_dequant_leaves_a_cut_block_and_a_cut_row_out():
    data = random_weight("q8_0", 5, 64, 3)
    extended = on_device(np.concatenate([data, np.zeros(67, np.uint8)]))
    found = corvane.dequant(origin, extended, ids["q8_0"])
    np.testing.assert_array_equal(to_numpy(found), np.float64(expand_general("q8_0", data, 5, 64, "float")))
    # 5 blocks are 2 rows of 128 elements; the planes of such a weight are those of its 4 blocks
    assert corvane.dequant(torch.zeros(1, 128, device="xpu"), on_device(data), ids["q8_0"]).shape == (2, 128)


@pytest.mark.parametrize("name", DEQUANT)
@pytest.mark.parametrize("k", [1024, 2**32, 2**40])
def test_a_row_longer_than_the_weight(name, k):
    """Leaves no rows, also where the length of one is beyond 32 bits."""
    data, x = on_device(random_weight(name, 2, 256, 1)), torch.empty(0, k, dtype=torch.double, device="xpu")
    assert corvane.dequant(x, data, ids[name]).shape == (0, k)
    assert corvane.forward_new(x, data, ids[name], 1).shape == (0, 0)


@pytest.mark.parametrize("name", sorted(set(FORMATS) - set(DEQUANT)))
def test_dequant_of_other_formats_runs_nothing(name):
    data = on_device(random_weight(name, 2, 256, 1))
    with host_xpu.record_launches() as records:
        found = corvane.dequant(torch.zeros(1, 256, device="xpu"), data, ids[name])
        odd = corvane.dequant(torch.zeros(1, 100, dtype=torch.int, device="xpu"), data, ids[name])
    assert found.shape == (2, 256) and odd.shape == (5, 100) and odd.dtype == torch.int and not records


@pytest.mark.parametrize(
    ("qtype", "dtype", "text"),
    [(q, torch.uint8, f"qtype {q} does not name a weight format") for q in (-1, 9, 31, 32, 2**31 - 1, -(2**31))]
    + [(23, torch.int8, "weight must be unsigned bytes, found Char")],
)
def test_what_no_expansion_takes(qtype, dtype, text):
    data, rows = torch.zeros(4096, dtype=dtype, device="xpu"), torch.zeros(1, 1, dtype=torch.long, device="xpu")
    assert refusal(lambda: corvane.dequant(origin, data, qtype)).startswith(text)
    assert refusal(lambda: corvane.dequantize_rows(rows, data, qtype, 256, 1)).startswith(text)


@pytest.mark.parametrize(
    ("shape", "dtype", "weight", "text"),
    [
        ((1, 96), torch.float, (34 * 3,), "96 must be a multiple of 64"),
        ((1, 0), torch.float, (34,), "state_size must be at least 1, found 0"),
        ((64,), torch.float, (34,), "input must have two dimensions, found 1"),
        ((), torch.float, (34,), "input must have two dimensions, found 0"),
        ((1, 64), torch.int, (34,), "\"qlinear_forward_xpu\" not implemented for 'Int'"),
        ((1, 64), torch.float, (), "weight must have at least one dimension"),
        ((1, 64), torch.float, (34, 0), "weight must not have an empty dimension behind the first"),
    ],
)
def test_dequant_refusals(shape, dtype, weight, text):
    x, data = torch.zeros(shape, dtype=dtype, device="xpu"), torch.zeros(weight, dtype=torch.uint8, device="xpu")
    assert refusal(lambda: corvane.dequant(x, data, 2)) == text


@pytest.mark.parametrize("k", [256, 320, 768])
@pytest.mark.parametrize("name", ROWS)
def test_dequantize_rows_is_exact(name, k):
    """Of rows of 320 elements the whole super-blocks, without a gap."""
    n, numbers = 8, np.array([[0, 7, 3], [3, 1, 7]])
    data = random_weight(name, n, k, 5, unusual=True)
    with host_xpu.record_launches() as records:
        found = corvane.dequantize_rows(on_device(numbers), on_device(data), ids[name], k, n)
    assert found.dtype == torch.float and found.shape == (2, 3, k) and found.device.type == "xpu"
    whole = numbers.size * (k // 256) * 256
    expected = dequantize_rows(name, data, numbers, k).reshape(-1)[:whole]
    np.testing.assert_array_equal(found.cpu().numpy().reshape(-1)[:whole], expected)
    assert_launches(records, [geometry.dequantize_rows(ids[name], numbers.size, k)])
    assert not records[0].waited


OUTSIDE = "row numbers must lie in 0 to output_size - 1 = 3, found "


@pytest.mark.parametrize("name", ROWS)
@pytest.mark.parametrize(
    ("k", "n", "number", "text"),
    [
        *[(256, 4, number, f"{OUTSIDE}{number}") for number in (-1, 4, 2**32, -(2**63), 2**63 - 1)],
        (96, 4, 3, "96 must be a multiple of 64"),
        (-256, -4, 3, "state_size and output_size must lie in 0 to 2147483647, found -256 and -4"),
        (256, -1, 3, "state_size and output_size must lie in 0 to 2147483647, found 256 and -1"),
        (2**62, 4, 3, f"state_size and output_size must lie in 0 to 2147483647, found {2**62} and 4"),
        (2**16, 2**15, 3, "a packed weight holds fewer than 2147483648 elements, found 32768 x 65536"),
        (512, 4, 3, "weight must hold "),
    ],
)
def test_dequantize_rows_refuses_sizes_and_numbers(name, k, n, number, text):
    data, rows = on_device(random_weight(name, 4, 256, 5)), torch.tensor([[0, number]], device="xpu")
    assert refusal(lambda: corvane.dequantize_rows(rows, data, ids[name], k, n)).startswith(text)


def test_dequantize_rows_needs_all_rows_of_q4_k_and_of_q2_k_those_asked_for():
    rows = torch.tensor([[0, 3]], device="xpu")
    data = random_weight("q2_k", 4, 256, 5)
    found = corvane.dequantize_rows(rows, on_device(data), ids["q2_k"], 256, 100)
    np.testing.assert_array_equal(found.cpu().numpy(), dequantize_rows("q2_k", data, rows.cpu().numpy(), 256))
    cut = on_device(data[:-1])
    assert refusal(lambda: corvane.dequantize_rows(rows, cut, ids["q2_k"], 256, 100)).startswith("weight must hold 336")
    table = on_device(random_weight("q4_k", 4, 256, 5))
    assert refusal(lambda: corvane.dequantize_rows(rows, table, ids["q4_k"], 256, 5)).startswith("weight must hold 740")


@pytest.mark.parametrize("name", ROWS)
@pytest.mark.parametrize(("shape", "k", "n"), [((0, 3), 256, 1), ((2, 0), 256, 2**20), ((2, 3), 0, 4)])
def test_dequantize_rows_without_elements(name, shape, k, n):
    rows, data = torch.zeros(shape, dtype=torch.long, device="xpu"), on_device(random_weight(name, 1, 256, 5))
    assert corvane.dequantize_rows(rows, data, ids[name], k, n).shape == (*shape, k)


def test_dequantize_rows_wants_64_bit_row_numbers_in_two_dimensions():
    data = on_device(random_weight("q2_k", 4, 256, 5))
    for shape, dtype, text in (((1, 1), torch.int, "expected scalar type Long but found Int"),
                               ((1,), torch.long, "input must have two dimensions, found 1")):  # fmt: skip
        rows = torch.zeros(shape, dtype=dtype, device="xpu")
        assert refusal(lambda rows=rows: corvane.dequantize_rows(rows, data, 23, 256, 4)) == text


def test_dequantize_rows_of_other_formats_runs_nothing():
    data = on_device(random_weight("q4_0", 4, 256, 5))
    with host_xpu.record_launches() as records:
        found = corvane.dequantize_rows(torch.zeros(2, 3, dtype=torch.long, device="xpu"), data, 2, 256, 4)
    assert found.shape == (2, 3, 256) and found.dtype == torch.float and not records
