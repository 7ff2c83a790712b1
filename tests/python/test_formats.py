"""Where each element of a format stands and what its code says, on bytes and numbers worked out by hand.

Every number is asked of the reference decoding, of the one-row kernel and of the expansion, in all element types.
"""

import corvane
import numpy as np
import pytest
import torch
from reference import formats
from reference.expand import expand_general, expand_simd
from reference.formats import FORMATS, NF3, NF4, blank_weight, decode, small_float
from reference.rounding import round_to
from tensors import DTYPES, on_device, to_numpy

QUANTISED = ("iq2_xxs", "q2_k", "iq1_s")  # their one-row kernels round a row to 8 bits
ROWS = 8  # the least that fills the threads of every expansion


def blank(name, d=1.0, rows=ROWS):
    """Rows of one block of zero bytes under the scale d, and the planes of all of them."""
    return blank_weight(name, d, rows)


def put(plane, first, number, kind="<f2"):
    raw = np.array([number], dtype=kind).view(np.uint8)
    plane[:, first : first + raw.size] = raw


def one_row(name, data, k, dtype):
    """The weight (n, k), picked out by rows that are zero but for one element: 127 has a quantised scale of 1."""
    pick = 127 if name in QUANTISED else 1
    rows, weight = (pick * torch.eye(k)).to(DTYPES[dtype]).to("xpu"), on_device(data)
    columns = [corvane.forward_new(rows[i : i + 1], weight, FORMATS[name].qtype, 1) for i in range(k)]
    return to_numpy(torch.cat(columns)).T / pick


def expansion(name, data, k, dtype):
    """The same by a product with more rows than any path takes that reads the packed weight."""
    unit = torch.eye(max(k, 72))[:, :k].contiguous().to(DTYPES[dtype])
    return to_numpy(corvane.forward_new(unit.to("xpu"), on_device(data), FORMATS[name].qtype, 0)).T[:, :k]


def check_matrix(name, data, expected, dtypes=tuple(DTYPES)):
    n, k = expected.shape
    np.testing.assert_array_equal(decode(name, data, n, k, half_factor=True), expected, "reference")
    for dtype in dtypes:
        rounded = np.float64(round_to(expected, dtype))
        if name not in QUANTISED or dtype in ("float", "double"):  # 127 times a weight needs more bits than others have
            np.testing.assert_array_equal(one_row(name, data, k, dtype), rounded, f"one row in {dtype}")
        if name not in ("fp8_e4m3", "fp6", "fp6_k") or dtype in ("half", "float"):
            np.testing.assert_array_equal(expansion(name, data, k, dtype), rounded, f"expansion in {dtype}")


def check(name, data, elements, rest=0.0, dtypes=tuple(DTYPES)):
    """Elements of every row by number, all others equal to `rest`."""
    expected = np.full((ROWS, FORMATS[name].block_elements), np.float64(rest))
    for element, value in elements.items():
        expected[:, element] = value
    check_matrix(name, data, expected, dtypes)


# --- integer codes ----------------------------------------------------------------------------------------------------


def test_q4_0_low_nibble_is_element_j_and_high_nibble_j_plus_32():
    data, (codes, _) = blank("q4_0", 0.5)
    codes[:] = 0x88
    codes[:, 0], codes[:, 31] = 0x1F, 0x08
    check("q4_0", data, {0: 3.5, 32: -3.5, 63: -4})


def test_q4_1_counts_codes_from_zero_and_reads_scale_and_offset_in_pairs():
    data, (codes, pairs) = blank("q4_1", 0.5)
    put(pairs, 2, 0.75)
    codes[:, 0] = 0xF3
    check("q4_1", data, {0: 2.25, 32: 8.25}, rest=0.75)


def test_q4_1_rounds_after_product_and_after_sum():
    data, (codes, pairs) = blank("q4_1", 1.0 + 2.0**-10)
    put(pairs, 2, -9.0)
    codes[:] = 0x99
    # Halves from 8 to 16 stand 2^-7 apart: the product 9 + 9 * 2^-10 rounds to 9 + 2^-7, and the sum keeps 2^-7.
    in_half, exact = 2.0**-7, 9 * 2.0**-10
    assert np.all(decode("q4_1", data, ROWS, 64) == exact)
    assert np.all(expand_general("q4_1", data, ROWS, 64, "half") == in_half)
    assert np.all(expand_simd("q4_1", data, ROWS, 64, "float") == in_half)
    for dtype, value in (("half", in_half), ("float", in_half), ("double", exact)):  # fast expansions work in half
        assert np.all(expansion("q4_1", data, 64, dtype) == value)


def test_q5_0_element_32_has_bit_32():
    data, (block,) = blank("q5_0", 0.5)
    block[:, 2:4] = 0xFF  # where q5_1 has its offset
    check("q5_0", data, {}, rest=-8)
    block[:, 4] = 1
    check("q5_0", data, {0: 0}, rest=-8)
    block[:, 8], block[:, 12] = 1, 0xF1  # bit 32, and the nibbles of elements 0 and 32
    check("q5_0", data, {0: 0.5, 32: 7.5}, rest=-8)


def test_q5_weights_are_formed_in_float_and_rounded_once():
    data, (block,) = blank("q5_1")
    block[:, 4:] = 0xFF
    put(block, 2, 2.0**-10)
    check("q5_1", data, {}, rest=31 + 2.0**-10)  # 15 bits
    data, (block,) = blank("q5_0", 1 + 2.0**-10)
    block[:, 4:] = 0xFF
    check("q5_0", data, {}, rest=15 + 15 * 2.0**-10)  # 14 bits
    x = torch.zeros(1, 64, dtype=torch.half, device="xpu")
    x[0, 40] = 1.5
    assert corvane.forward_new(x, on_device(data), 6, 1)[0, 0] == 22.53125  # 22.515625 if the weight were not rounded


@pytest.mark.parametrize("bits", [0x7FFF, 0xFFFF, 0x7E00, 0x7C01])
def test_q5_not_a_number_stays_one(bits):
    data, (block,) = blank("q5_0")
    block[:, 4:] = 0xFF
    put(block, 0, bits, "<u2")
    check("q5_0", data, {}, rest=np.nan)


def test_q8_0_codes_are_signed_and_the_scale_is_a_float():
    data, (codes, scales) = blank("q8_0", 2.0**20)
    codes[:, 0], codes[:, 63] = 0x80, 0x7F
    check("q8_0", data, {0: -(2.0**27), 63: 127 * 2.0**20}, dtypes=("double", "bfloat16"))
    assert np.all(np.isinf(expand_simd("q8_0", data, ROWS, 64, "float")[:, 0]))
    ones = torch.ones(72, 64)
    codes[:] = 1
    for dtype, value in ((torch.float, np.inf), (torch.double, 2.0**26)):  # the fast expansion works in half
        assert corvane.forward_new(ones.to(dtype).to("xpu"), on_device(data), 8, 0).cpu().unique().tolist() == [value]


# --- code books and small floats --------------------------------------------------------------------------------------


def test_nf4_and_fp4_take_the_nibbles_of_a_byte_in_opposite_order():
    data, (codes, _) = blank("nf4")
    codes[:] = 0x77
    codes[:, 0], codes[:, 5] = 0x12, 0x07
    check("nf4", data, {0: -0.6961928009986877, 32: -0.5250730514526367, 5: -1})
    data, (codes, _) = blank("fp4")
    codes[:, 0] = 0x12
    check("fp4", data, {0: 1.0, 32: 0.5}, rest=0.03125)


def test_fp4_has_no_zero():
    data, (codes, _) = blank("fp4", 2.0)
    check("fp4", data, {}, rest=0.0625)
    codes[:] = 0x88
    check("fp4", data, {}, rest=-0.0625)
    codes[:, :8] = np.arange(8) | np.arange(8, 16) << 4
    values = (0.0625, 1, 2, 3, 4, 6, 8, 12)
    check("fp4", data, {j + 32 * h: v * (1 - 2 * h) for j, v in enumerate(values) for h in range(2)}, rest=-0.0625)


def test_nf3_zero_bytes_are_minus_one_and_each_code_has_a_bit_apart():
    data, (codes, _) = blank("nf3")
    check("nf3", data, {}, rest=-1)
    codes[:, 4], codes[:, 7] = 0x01, 0x80  # top bits of elements 32 and 63
    codes[:, 8], codes[:, 23] = 0b00_01_10_11, 0b11  # low bits of elements 0 to 3, the first in bits 7 and 6; of 63
    values = {1: -0.4786292016506195, 2: -0.217141792178154, 3: 0, 32: 0.16093020141124725, 63: 1}
    check("nf3", data, {e: np.float32(v) for e, v in values.items()}, rest=-1)
    assert list(NF3[5:7]) == [NF4[11], NF4[13]]


# Of the first 16 elements, two words of the 4-bit plane and one of the 2-bit plane.
FP6_BYTES = [1, 3, 0, 2, 1, 3, 0, 2, 5, 7, 4, 6, 5, 7, 4, 6], [1, 3, 0, 2] * 4
Q6_BYTES = [0, 1, 2, 3, 0, 1, 2, 3, 4, 5, 6, 7, 4, 5, 6, 7], [0, 1, 2, 3] * 4


@pytest.mark.parametrize(
    ("name", "low_plane", "high_plane", "table", "value", "rest"),
    [
        ("fp6", 0, 1, FP6_BYTES, -0.00732421875, 2.0**-17),
        ("fp6_k", 0, 1, FP6_BYTES, -0.00732421875, 2.0**-17),  # the planes have the widths of q6_k's, in another order
        ("q6_k", 1, 0, Q6_BYTES, 31, -32),
    ],
    ids=["fp6_elements_stand_in_bytes_1_3_0_2", "fp6_k_low_bits_are_the_first_plane", "q6_k_high_bits_are_the_first"],
)
def test_plane_and_byte_order(name, low_plane, high_plane, table, value, rest):
    """Row e has all bits of element e set: the high nibble for the first of two runs of four; bits 7 and 6, 5 and 4..."""
    k = FORMATS[name].block_elements
    data, planes = blank(name, rows=k)
    if len(planes) == 4:
        planes[2][:] = 1
    for e in range(k):
        planes[low_plane][e, 8 * (e // 16) + table[0][e % 16]] = 0xF0 if e % 8 < 4 else 0x0F
        planes[high_plane][e, 4 * (e // 16) + table[1][e % 16]] = 0xC0 >> 2 * (e % 16 // 4)
    check_matrix(name, data, np.where(np.eye(k) == 1, value, np.float64(rest)))


def test_fp6_codes_are_midpoints():
    data, (low, high, _) = blank("fp6", rows=64)
    code = np.arange(64)  # in element 0 of each row
    low[:, 1], high[:, 1] = code << 4 & 0xFF, code >> 4 << 6
    exponent, mantissa = code >> 2 & 7, (code & 3) / 4 + 0.125
    magnitude = np.where(exponent == 0, mantissa * 2.0**-14, (1 + mantissa) * 2.0 ** (exponent - 15))
    expected = np.full((64, 64), 2.0**-17)
    expected[:, 0] = np.where(code & 32, -magnitude, magnitude)
    check_matrix("fp6", data, expected)


def test_fp8_e4m3_codes_are_midpoints_and_finite():
    data, (codes, _) = blank("fp8_e4m3", rows=4)
    c = np.arange(256).reshape(4, 64)
    codes[:] = c
    expected = ((c & 0x80) << 8 | (c & 0x7F) << 7 | 0x40).astype(np.uint16).view(np.float16).astype(np.float64)
    flat = expected.reshape(-1)
    assert list(flat[[0x00, 0x80, 0x38, 0x7F]]) == [2.0**-18, -(2.0**-18), 0.004150390625, 1.9375]
    check_matrix("fp8_e4m3", data, expected)
    assert list(small_float([0x00, 0x38, 0x7F], 4, 3, midpoint=False)) == [0, 2.0**-8, 1.875]  # systolic alone


def test_fp8_e5m2_codes_are_midpoints_and_exponent_31_is_not_a_number():
    data, (codes, _) = blank("fp8_e5m2", 4.0, rows=4)  # the stored scale is left aside
    c = np.arange(256).reshape(4, 64)
    codes[:] = c
    expected = (c << 8 | 0x80).astype(np.uint16).view(np.float16).astype(np.float64)
    flat = expected.reshape(-1)
    assert list(flat[[0x00, 0x3C, 0x7B, 0xBC]]) == [2.0**-17, 1.125, 61440, -1.125]
    assert list(np.flatnonzero(np.isnan(flat))) == [*range(0x7C, 0x80), *range(0xFC, 0x100)]
    np.testing.assert_array_equal(decode("fp8_e5m2", data, 4, 64), expected)
    with np.errstate(invalid="ignore"):
        np.testing.assert_array_equal(decode("fp8_e5m2", data, 4, 64, scaled=True), 4 * expected)
    for dtype in DTYPES:  # element by element: in a product one not-a-number takes its row with it
        whole = corvane.dequant(torch.empty(1, 64, dtype=DTYPES[dtype], device="xpu"), on_device(data), 19)
        np.testing.assert_array_equal(to_numpy(whole), round_to(expected, dtype))
    codes[np.isnan(expected)] = 0
    check_matrix("fp8_e5m2", data, np.where(np.isnan(expected), 2.0**-17, expected))


# --- super-blocks -----------------------------------------------------------------------------------------------------


def test_q2_k_a_byte_holds_elements_32_apart():
    data, (block,) = blank("q2_k", 2.0)
    block[:, :16] = 1
    block[:, 16], block[:, 16 + 32] = 0b11_10_01_00, 0b00_01_10_11
    check("q2_k", data, {32: 2, 64: 4, 96: 6, 128: 6, 160: 4, 192: 2})


def test_q2_k_low_nibble_scales_and_high_nibble_is_the_minimum():
    data, (block,) = blank("q2_k")
    put(block, 82, 0.5)
    block[:, 1], block[:, 8] = 0x2F, 0x43  # of elements 16 to 31, of 128 to 143
    block[:, 16 + 16], block[:, 16 + 32] = 3, 2
    minimums = {e: -1 for e in range(16, 32)} | {e: -2 for e in range(128, 144)}
    check("q2_k", data, minimums | {16: 15 * 3 - 1, 128: 3 * 2 - 2})


def test_q2_k_a_zero_scale_byte_gives_zero():
    data, (block,) = blank("q2_k")
    put(block, 82, 1.0)
    block[:, 16:80] = 0xFF
    check("q2_k", data, {})


def test_q4_k_nibbles_of_a_byte_stand_16_apart():
    data, (codes, pairs, _) = blank("q4_k")
    pairs[:, ::2] = 1
    codes[:, 0], codes[:, 15], codes[:, 16] = 0x21, 0x43, 0x65
    check("q4_k", data, {0: 1, 16: 2, 15: 3, 31: 4, 32: 5, 48: 6})


def test_q4_k_scale_and_minimum_take_a_byte_each():
    data, (codes, pairs, scales) = blank("q4_k", 0.5)
    put(scales, 2, 2.0)
    pairs[:, 14], pairs[:, 15], codes[:, 112] = 200, 255, 0x0F
    check("q4_k", data, {e: -510 for e in range(224, 256)} | {224: 1500 - 510}, dtypes=("float", "double"))


def test_q5_k_a_bit_of_qh_extends_one_sub_block():
    data, (block,) = blank("q5_k")
    block[:, 4:8], block[:, 12:16] = 1, 1
    block[:, 16 + 3], block[:, 48 + 3], block[:, 16] = 0b111, 0x21, 0x80
    check("q5_k", data, {3: 17, 35: 18, 67: 16, 224: 16})


def test_q5_k_scales_from_sub_block_4_on_are_put_together():
    data, (block,) = blank("q5_k")
    put(block, 2, 0.25)
    # scales[0]: top bits of sub-block 4 and a 1 of its own; scales[4] the same of minimums; scales[8]: low bits of both
    block[:, 4], block[:, 8], block[:, 12] = 0b11_000001, 0b01_000010, 0x95
    block[:, 48], block[:, 48 + 64] = 1, 1
    minimums = {e: -0.25 * 2 for e in range(32)} | {e: -0.25 * 25 for e in range(128, 160)}
    check("q5_k", data, minimums | {0: 1 - 0.25 * 2, 128: 3 * 16 + 5 - 0.25 * 25})


def test_q6_k_code_32_is_zero_and_scales_are_signed():
    data, (high, _, sub, _) = blank("q6_k", 2.0)
    sub[:, 0], sub[:, 1] = 0xFD, 0x80
    high[:, :8] = 0xAA  # top bits 10 of elements 0 to 31
    high[:, 0], high[:, 4] = 0x8A, 0xEA  # but 00 of element 4, 11 of element 16
    check("q6_k", data, {4: 2 * -3 * -32, 16: 2 * -128 * 16})


def test_fp6_k_a_zero_scale_zeroes_its_16_elements():
    data, (_, _, sub, _) = blank("fp6_k")
    sub[:, 1], sub[:, 2] = 0xFF, 0x80
    check("fp6_k", data, {16 + e: -(2.0**-17) for e in range(16)} | {32 + e: -(2.0**-10) for e in range(16)})


def test_fp6_k_the_factor_is_a_half_in_every_type():
    data, (_, _, sub, _) = blank("fp6_k", 2050)
    sub[:] = 3
    check("fp6_k", data, {}, rest=6152 * 2.0**-17)  # 6150 lies between the Halfs 6148 and 6152
    assert decode("fp6_k", data, ROWS, 256)[0, 0] == 6150 * 2.0**-17


def test_iq2_xxs_signs_grid_and_scale():
    data, (block,) = blank("iq2_xxs", 4.0)
    block[:, 2 + 8] = 1  # group 1: row 1 in run 0, whose first byte is 43
    block[:, 2 + 12] = 0x80  # sign index 1 in run 1: elements 0 and 7 of it
    block[:, 2 + 15] = 0x30  # scale 3
    group = {e: 8 * 3.5 for e in range(32, 64)}
    check("iq2_xxs", data, group | {32: 43 * 3.5, 40: -8 * 3.5, 47: -8 * 3.5}, rest=8 * 0.5)


def test_iq1_s_row_number_delta_and_scale():
    data, (block,) = blank("iq1_s", 2.0)
    block[:, 2 + 11] = 0xFF  # group 2: run 3 has row 2047, all twos
    block[:, 2 + 8] = 1  # and run 0 row 1, whose first element is 2
    put(block, 34 + 4, 0b1_011_111_000_000_000, "<u2")  # delta, scale 3, top bits of run 3
    group = {e: 14 * -1.125 for e in range(64, 88)} | {e: 14 * 0.875 for e in range(88, 96)}
    check("iq1_s", data, group | {64: 14 * 0.875}, rest=2 * -0.875)


# --- the public package ------------------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("name", "theirs"), [("q2_k", "Q2_K"), ("q5_k", "Q5_K"), ("iq2_xxs", "IQ2_XXS"), ("iq1_s", "IQ1_S")]
)
def test_public_blocks_decode_as_published(name, theirs):
    gguf = pytest.importorskip("gguf")
    n, k = 5, 1024
    data = formats.random_weight(name, n, k, 11)
    published = gguf.quants.dequantize(data, gguf.GGMLQuantizationType[theirs]).reshape(n, k)
    mine = decode(name, data, n, k)
    # Float arithmetic against double: two products and one sum, on numbers below 1.
    assert np.abs(published - mine).max() <= 4 * 2.0**-24
    assert np.abs(mine).max() > 0.05
