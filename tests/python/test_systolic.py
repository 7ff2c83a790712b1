"""The systolic path by hand: the places where its rounding, order and decoding differ from a plain product.

Against the reference, and around its thresholds, it runs in test_forward.py.
"""

import corvane
import numpy as np
import pytest
import torch
from reference.random_weights import blank_weight
from reference.registry import FORMATS
from tensors import DTYPES, on_device

INFINITY = float("inf")
ONES = dict.fromkeys(range(64), 1)
THREADS = dict.fromkeys(range(0, 512, 64), 1)  # one element to each of eight threads

# What it shows; format, code and scale of every block; the input's type and its elements that are not zero; the result.
CASES = [
    ("code 8 of q4_0 is zero", "q4_0", 0x88, 3, "half", ONES, 0),
    ("low nibbles of q4_0 come first", "q4_0", 0x1F, 0.5, "float", {0: 1}, 3.5),
    ("high nibbles of q4_0 come 32 later", "q4_0", 0x1F, 0.5, "bfloat16", {32: 1}, -3.5),
    ("codes of q8_0 are signed", "q8_0", 0x80, 1, "half", {0: 1}, -128),
    ("fp8_e4m3 has a zero here", "fp8_e4m3", 0x00, 3, "half", ONES, 0),
    ("fp8_e4m3 has no midpoint here", "fp8_e4m3", 0x38, 1, "half", {0: 1}, 2.0**-8),
    ("fp8_e5m2 has no zero, and its scale counts", "fp8_e5m2", 0x00, 1024, "half", ONES, 64 * 2.0**-17 * 1024),
    ("fp8_e5m2 has midpoints", "fp8_e5m2", 0xBC, 1, "half", {0: 1}, -1.125),
    ("exponent 31 of fp8_e5m2 is not a number", "fp8_e5m2", 0x7C, 1, "half", {0: 1}, np.nan),
    # 2048 + 1 is 2048 in half, seven times over; from the other end the ones would add up.
    ("partial sums are added in half", "q8_0", 1, 1, "float", THREADS | {0: 2048}, 2048),
    ("partial sums are added from thread 0 on", "q8_0", 1, 1, "float", THREADS | {0: 2048, 64: -2048}, 6),
    ("a partial sum beyond half is infinite", "q8_0", 2, 1, "float", {0: 60000}, INFINITY),
    ("within a thread sums are float", "q8_0", 2, 1, "float", {0: 60000, 1: -58976}, 2048),
    ("partial sums of bfloat16 stay bfloat16", "q8_0", 2, 1, "bfloat16", {0: 65536}, 131072),
    ("float input is rounded to half", "q8_0", 1, 1, "float", {0: 2049}, 2048),
    ("float input beyond half is infinite", "q8_0", 1, 2.0**-10, "float", {0: 70000}, INFINITY),
    ("a scale may lie beyond half", "q8_0", 1, 131072, "half", {0: 0.25}, 32768),
    ("a scale applies once, to the sum of a block", "q8_0", 64, INFINITY, "half", THREADS, INFINITY),
    ("tiny bfloat16 inputs keep their bits", "q8_0", 64, 2.0**30, "bfloat16", {3: 1.5 * 2.0**-130}, 1.5 * 2.0**-94),
    (
        "subnormal sums come back by the scale",
        "fp8_e5m2",
        0,
        2.0**60,
        "bfloat16",
        {62: 129 * 2.0**-125},
        129 * 2.0**-82,
    ),
    # In three steps of 16 elements each: within one the order of additions is free.
    ("1 absorbs what is tiny", "q8_0", 1, 2.0**40, "bfloat16", {0: 1, 16: 2.0**-133, 32: -1}, 0),
]


@pytest.fixture(autouse=True)
def systolic_unit(device_class):
    if device_class > 2:
        pytest.skip("no systolic unit on this class")


def product(name, code, d, dtype, elements):
    """Nine equal rows, a full tile and one of a single row, against 16 equal columns."""
    blocks = 8 if name == "q8_0" else 1
    data, planes = blank_weight(name, 1.0, 16 * blocks)
    planes[0][:] = code
    planes[1][:] = np.array([d], dtype="<f4" if planes[1].shape[1] == 4 else "<f2").view(np.uint8)
    x = torch.zeros(9, 64 * blocks, dtype=torch.double)
    for k, value in elements.items():
        x[:, k] = value
    return corvane.forward_new(on_device(x, dtype), on_device(data), FORMATS[name].qtype, 0).cpu()


@pytest.mark.parametrize(
    ("name", "code", "d", "dtype", "elements", "result"), [c[1:] for c in CASES], ids=[c[0] for c in CASES]
)
def test_by_hand(name, code, d, dtype, elements, result):
    np.testing.assert_array_equal(product(name, code, d, dtype, elements).double(), np.full((9, 16), float(result)))


def test_not_a_number_has_one_pattern_in_bfloat16():
    odd = np.uint32(0xFFC12345).view(np.float32)
    assert product("q8_0", 1, odd, "bfloat16", ONES).view(torch.int16).unique().tolist() == [0x7FC0]


def test_rows_that_end_within_a_block_are_refused():
    data = torch.zeros(34 * 24, dtype=torch.uint8, device="xpu")
    with pytest.raises(RuntimeError, match="^state_size % QK == 0"):
        corvane.forward_new(torch.zeros(9, 96, dtype=DTYPES["half"], device="xpu"), data, 2, 0)
