"""Decoding of the reference: hand-computed numbers, the published dequantisation, other readings."""

import numpy as np
import pytest
from reference import expand, formats, grids
from reference.formats import FORMATS, blank_weight, plane_views, small_float

HALF = "<f2"


def put(plane, first, number, kind=HALF):
    raw = np.array([number], dtype=kind).view(np.uint8)
    plane[:, first : first + raw.size] = raw


def row(name, data, **options):
    elements = FORMATS[name].block_elements
    return formats.decode(name, data, data.size // FORMATS[name].block_bytes, elements, **options)[0]


def test_planes_fill_the_block():
    for f in FORMATS.values():
        assert sum(f.planes) == f.block_bytes


# ---- integer formats


def test_q4_0_nibbles():
    data, (codes, _) = blank_weight("q4_0", 0.5)
    codes[:] = 0x88
    codes[0, 0] = 0x1F
    w = row("q4_0", data)
    assert w[0] == 3.5 and w[32] == -3.5 and np.count_nonzero(w) == 2


def test_q4_1_zero_codes_give_the_offset():
    data, (_, scales) = blank_weight("q4_1", 3.0)
    put(scales, 2, 0.75)
    assert np.all(row("q4_1", data) == 0.75)


def test_q5_0_fifth_bits_and_unread_offset():
    data, (block,) = blank_weight("q5_0", 2.0)
    assert np.all(row("q5_0", data) == -32)
    block[0, 4] = 1  # bit 0
    block[0, 2:4] = 0xFF  # where q5_1 has its offset
    w = row("q5_0", data)
    assert w[0] == 0 and w[32] == -32
    block[0, 8] = 1  # bit 32
    assert row("q5_0", data)[32] == 0


def test_q5_1_offset():
    data, (block,) = blank_weight("q5_1", 2.0)
    put(block, 2, 5.0)
    block[0, 12] = 0x31
    w = row("q5_1", data)
    assert (w[0], w[32], w[1]) == (7, 11, 5)


def test_q8_0_signed_codes_and_scale_beyond_half():
    data, (codes, _) = blank_weight("q8_0", 1e6)
    codes[0, :2] = 0x80, 0x7F
    assert list(row("q8_0", data)[:2]) == [-128e6, 127e6]
    assert np.isinf(expand.expand_simd("q8_0", data, 1, 64, "float")[0, 0])
    assert expand.expand_general("q8_0", data, 1, 64, "float")[0, 0] == -128e6


# ---- code books and small floats


def test_nf4_and_fp4_take_opposite_nibbles():
    for name, order in (("nf4", (1, 2)), ("fp4", (2, 1))):
        data, (codes, _) = blank_weight(name)
        codes[0, 0] = 0x12
        f = formats.fields(name, data, 1)
        assert (f.code[0, 0], f.code[0, 32]) == order
    data, (codes, _) = blank_weight("nf4", 0.5)
    codes[0, 0] = 0x07
    assert (row("nf4", data)[0], row("nf4", data)[32]) == (-0.5, 0.0)


def test_nf3_bits():
    data, (codes, _) = blank_weight("nf3", 2.0)
    assert np.all(row("nf3", data) == -2.0)
    codes[0, 0] = 0b10  # top bit of element 1
    codes[0, 8] = 0b11_00_01_10  # low bits of elements 0 to 3
    code = formats.fields("nf3", data, 1).code[0]
    assert list(code[:5]) == [3, 4, 1, 2, 0]
    assert row("nf3", data)[0] == 0.0
    assert formats.NF3[5] == formats.NF4[11] and formats.NF3[1] == np.float32(-0.4786292016506195)


def test_fp4_has_no_zero():
    data, (codes, _) = blank_weight("fp4", 2.0)
    assert np.all(row("fp4", data) == 0.0625)
    codes[:] = 0x88
    assert np.all(row("fp4", data) == -0.0625)
    codes[0, 0] = 0x7F
    assert (row("fp4", data)[0], row("fp4", data)[32]) == (-12, 12)


@pytest.mark.parametrize("name", ["fp6", "fp6_k"])
def test_fp6_first_elements(name):
    byte = [1, 3, 0, 2, 1, 3, 0, 2, 5, 7, 4, 6, 5, 7, 4, 6]
    for e in range(16):
        data, planes = blank_weight(name)
        planes[0][0, byte[e]] = 0xF0 if e % 8 < 4 else 0x0F
        planes[1][0, byte[e % 4]] = 0b01 << (6 - 2 * (e // 4))
        code = formats.fields(name, data, 1).code[0]
        assert code[e] == 0b011111 and np.count_nonzero(code == 0b011111) == 1


def test_fp6_values():
    data, _ = blank_weight("fp6", 1.0)
    assert np.all(row("fp6", data) == 2.0**-17)
    assert formats.values("fp6", np.array([0b011111])) == 0.00732421875
    assert formats.values("fp6", np.array([0b111111])) == -0.00732421875


@pytest.mark.parametrize("name", ["fp6", "fp6_k"])
def test_fp6_agrees_with_the_word_at_a_time_reading(name):
    """Four codes at once, by shifts and masks of words, as a kernel would; elements 0 to 3 are bytes 1, 3, 0, 2."""
    nb = 3
    data = formats.random_weight(name, nb, FORMATS[name].block_elements, 7)
    low, high = plane_views(name, data, nb)[:2]
    low, high = low.view("<u4"), high.view("<u4")
    code = formats.fields(name, data, nb).code
    for chunk in range(code.shape[1] // 16):
        h, word = high[:, chunk].copy(), low[:, 2 * chunk].copy()
        for m in range(4):
            v = (h & 0x80808080) | (((h & 0x40404040) | ((word >> 2) & 0x3C3C3C3C)) >> 2)
            for byte, element in enumerate((2, 0, 3, 1)):
                bits = (((v >> (8 * byte)) & 0x9F) << 8 | 0x80).astype(np.uint16).view(np.float16)
                assert np.array_equal(bits, formats.values(name, code[:, 16 * chunk + 4 * m + element]))
            h = h << 2
            word = low[:, 2 * chunk + 1].copy() if m == 1 else word << 4


def test_q6_k_agrees_with_the_word_at_a_time_reading():
    nb = 3
    data = formats.random_weight("q6_k", nb, 256, 7)
    high, low = (plane.view("<u4") for plane in plane_views("q6_k", data, nb)[:2])
    code = formats.fields("q6_k", data, nb).code
    for n in range(16):
        h, word = high[:, n].copy(), low[:, 2 * n].copy()
        for m in range(4):
            v = ((h >> 2) & 0x30303030) | ((word >> 4) & 0x0F0F0F0F)
            for byte in range(4):
                assert np.array_equal((v >> (8 * byte)) & 0xFF, code[:, 16 * n + 4 * m + byte])
            h = h << 2
            word = low[:, 2 * n + 1].copy() if m == 1 else word << 4


def test_fp8_values():
    e4m3 = small_float(np.arange(256), 4, 3)
    assert list(e4m3[[0x00, 0x80, 0x38, 0x7F]]) == [2.0**-18, -(2.0**-18), 0.004150390625, 1.9375]
    e5m2 = small_float(np.arange(256), 5, 2)
    assert (e5m2[0x00], e5m2[0x3C], e5m2[0x7B]) == (2.0**-17, 1.125, 61440)
    nan = np.flatnonzero(np.isnan(e5m2))
    assert list(nan) == [0x7C, 0x7D, 0x7E, 0x7F, 0xFC, 0xFD, 0xFE, 0xFF]


@pytest.mark.parametrize("exponent, mantissa, shift, bit", [(4, 3, 7, 0x40), (5, 2, 8, 0x80), (3, 2, 8, 0x80)])
def test_small_floats_are_half_patterns(exponent, mantissa, shift, bit):
    magnitude_bits = exponent + mantissa
    codes = np.arange(2 << magnitude_bits)
    magnitude = codes & ((1 << magnitude_bits) - 1)
    words = ((codes >> magnitude_bits) << 15 | magnitude << shift | bit).astype(np.uint16)
    assert np.array_equal(words.view(np.float16).astype(float), small_float(codes, exponent, mantissa), equal_nan=True)
    if exponent == 4:
        assert np.array_equal((words ^ bit).view(np.float16).astype(float), small_float(codes, 4, 3, midpoint=False))


def test_fp8_e5m2_scale_counts_for_some_readers_only():
    data, (codes, _) = blank_weight("fp8_e5m2", 4.0)
    codes[0, 0] = 0x3C
    assert row("fp8_e5m2", data)[0] == 1.125 and row("fp8_e5m2", data, scaled=True)[0] == 4.5


# ---- super-block formats


def test_q2_k_bits():
    data, (block,) = blank_weight("q2_k", 1.0)
    put(block, 82, 1.0)
    block[0, 16:80] = 0xFF
    assert np.all(row("q2_k", data) == 0)  # scale bytes of zero
    block[0, 16:80] = 0
    block[0, 0:16] = 0x01
    block[0, 16], block[0, 16 + 32] = 0b11100100, 0b00011011
    w = row("q2_k", data)
    assert list(w[[0, 32, 64, 96]]) == [0, 1, 2, 3] and list(w[[128, 160, 192, 224]]) == [3, 2, 1, 0]


def test_q4_k_nibbles_and_minimum():
    data, (codes, pairs, scales) = blank_weight("q4_k", 1.0)
    put(scales, 2, 0.5)
    pairs[0, 1::2] = np.arange(8) + 248
    assert np.array_equal(row("q4_k", data).reshape(8, 32)[:, 5], -0.5 * (np.arange(8) + 248))
    pairs[0, 1::2], pairs[0, 0] = 0, 255
    codes[0, 0] = 0x21
    w = row("q4_k", data)
    assert (w[0], w[16], np.count_nonzero(w)) == (255, 510, 2)


def test_q5_k_scales_and_fifth_bits():
    data, (block,) = blank_weight("q5_k", 1.0)
    block[0, 4 + 0], block[0, 4 + 8] = 0b10_000000, 0b1001  # sub-block 4: top bits 2, low bits 9
    f = formats.fields("q5_k", data, 1)
    assert f.sub[0, 4] == 0b101001 and f.sub[0, 0] == 0
    block[0, 16 + 3] = 0b101
    code = formats.fields("q5_k", data, 1).code[0]
    assert code[3] == 16 and code[32 + 3] == 0 and code[64 + 3] == 16


def test_q6_k_order_and_sign():
    data, (high, low, sub, _) = blank_weight("q6_k", 1.0)
    sub[:] = 0xFF  # -1
    high[:] = 0xAA  # two bits 10: q = 32
    assert np.all(row("q6_k", data) == 0)
    low[0, 0] = 0x21
    low[0, 4] = 0x70
    w = row("q6_k", data)
    assert (w[0], w[4], w[8]) == (-2, -1, -7) and np.count_nonzero(w) == 3


def test_fp6_k_zero_sub_scale():
    data, (_, _, sub, _) = blank_weight("fp6_k", 1.0)
    sub[0, 3], sub[0, 4] = 1, 0x80
    w = row("fp6_k", data).reshape(16, 16)
    assert np.all(w[3] == 2.0**-17) and np.all(w[4] == -(2.0**-10)) and np.count_nonzero(w) == 32


def test_fp6_k_factor_in_half_where_asked():
    data, (_, _, sub, _) = blank_weight("fp6_k", 1 + 2.0**-10)
    sub[:] = 3
    assert row("fp6_k", data)[0] == 2.0**-17 * (3 + 3 * 2.0**-10)
    assert row("fp6_k", data, half_factor=True)[0] == 2.0**-17 * (3 + 2.0**-8)  # a tie of halves 2^-9 apart


# ---- grid formats


def test_iq2_xxs_signs_and_scale():
    data, (block,) = blank_weight("iq2_xxs", 4.0)
    assert np.all(row("iq2_xxs", data) == 0.125 * 4 * 8)
    block[0, 2 + 4] = 1  # sign index 1 in run 0
    assert list(np.flatnonzero(row("iq2_xxs", data) < 0)) == [0, 7]
    block[0, 2 + 7] = 0x30  # group scale 3
    assert row("iq2_xxs", data)[1] == 3.5 * 4 * 0.25 * 8


def test_iq1_s_delta_and_row_bits():
    data, (block,) = blank_weight("iq1_s", 2.0)
    assert np.all(row("iq1_s", data) == -1.75)
    put(block, 34, 0x8000, "<u2")
    w = row("iq1_s", data)
    assert np.all(w[:32] == -2.25) and np.all(w[32:] == -1.75)
    put(block, 34, 7 << 9, "<u2")
    block[0, 2 + 3] = 0xFF  # run 3: row 2047, all twos
    w = row("iq1_s", data)
    assert np.all(w[24:32] == 2 * 1.125) and np.all(w[:24] == -1.75)


def test_published_grids():
    first = np.array([0x0808080808080808, 0x080808080808082B, 0x0808080808081919, 0x0808080808082B08], dtype="<u8")
    assert np.array_equal(grids.iq2xxs_grid()[:4], first.view(np.uint8).reshape(4, 8))
    assert np.array_equal(grids.iq2xxs_grid()[-1], np.array([0x2B2B2B1908081908], dtype="<u8").view(np.uint8))
    packed = [0x00000000, 0x00000002, 0x00000101, 0x00000200, 0x22222022, 0x22222220, 0x22222222]
    for index, word in zip((0, 1, 2, 3, -3, -2, -1), packed, strict=True):
        low = [word >> (8 * j) & 15 for j in range(4)]
        high = [word >> (8 * j + 4) & 15 for j in range(4)]
        assert list(grids.iq1s_grid()[index]) == low + high
    assert list(grids.iq2xxs_signs()[1]) == [-1, 1, 1, 1, 1, 1, 1, -1]


@pytest.mark.parametrize(
    "name, theirs", [("q2_k", "Q2_K"), ("q5_k", "Q5_K"), ("iq2_xxs", "IQ2_XXS"), ("iq1_s", "IQ1_S")]
)
def test_public_blocks_decode_as_published(name, theirs):
    gguf = pytest.importorskip("gguf")
    n, k = 5, 1024
    data = formats.random_weight(name, n, k, 11)
    published = gguf.quants.dequantize(data, gguf.GGMLQuantizationType[theirs]).reshape(n, k)
    mine = formats.decode(name, data, n, k)
    # float arithmetic against double: two products and one sum, on numbers below 1
    assert np.abs(published - mine).max() <= 4 * 2.0**-24
    assert np.abs(mine).max() > 0.05
