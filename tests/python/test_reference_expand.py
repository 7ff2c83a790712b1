"""Roundings and expansions of the reference, and its random weights."""

import numpy as np
import pytest
from reference import expand, formats
from reference.formats import FORMATS, blank_weight
from reference.rounding import DTYPES, UNIT, bf16_bits, round_bf16, round_to


def test_round_bf16_by_bits():
    cases = {0x3F808000: 0x3F80, 0x3F818000: 0x3F82, 0x3F808001: 0x3F81, 0x7F7FFFFF: 0x7F80, 0xFF800000: 0xFF80,
             0x7F800001: 0x7FC0, 0xFFFFFFFF: 0x7FC0, 0x00008000: 0x0000, 0x00018000: 0x0002}  # fmt: skip
    values = np.array(list(cases), dtype=np.uint32).view(np.float32)
    assert list(bf16_bits(round_bf16(values))) == list(cases.values())


def test_roundings_agree_with_the_framework():
    torch = pytest.importorskip("torch")
    bits = np.random.default_rng(5).integers(0, 2**32, 200_000, dtype=np.uint64).astype(np.uint32)
    single = torch.from_numpy(bits.view(np.float32).copy())
    finite = ~torch.isnan(single)
    assert np.array_equal(round_bf16(single.numpy())[finite], single.to(torch.bfloat16).float().numpy()[finite])
    assert np.array_equal(round_to(single.numpy(), "half")[finite], single.to(torch.half).numpy()[finite])


def test_q4_1_rounds_after_product_and_after_sum():
    data, (codes, scales) = blank_weight("q4_1", 1.0 + 2.0**-10)
    scales[:, 2:4] = np.array([-9.0], dtype="<f2").view(np.uint8)
    codes[:] = 0x99
    # halves from 8 to 16 stand 2^-7 apart: the product 9 + 9 * 2^-10 rounds to 9 + 2^-7, and the sum keeps 2^-7
    assert formats.decode("q4_1", data, 1, 64)[0, 0] == 9 * 2.0**-10
    assert np.all(expand.expand_general("q4_1", data, 1, 64, "half") == 2.0**-7)
    assert np.all(expand.expand_general("q4_1", data, 1, 64, "float") == 9 * 2.0**-10)


@pytest.mark.parametrize("name", FORMATS)
@pytest.mark.parametrize("dtype", DTYPES)
def test_expansions_stay_within_their_roundings(name, dtype):
    n, k = 3, 512
    data = formats.random_weight(name, n, k, 2)
    exact = formats.decode(name, data, n, k)
    reach = 2 * np.abs(exact).max()
    if name in expand.GENERAL:
        bound = 4 * max(UNIT[dtype], UNIT["float"] if name in ("nf3", "q2_k", "q4_k", "q5_1", "q5_k") else 0)
        assert np.abs(expand.expand_general(name, data, n, k, dtype) - exact).max() <= bound * reach
    if name in expand.SIMD and dtype in ("half", "float"):
        bound = 4 * UNIT["float" if dtype == "float" and name in ("q4_k", "q6_k") else "half"]
        assert np.abs(expand.expand_simd(name, data, n, k, dtype) - exact).max() <= bound * reach


def test_fp8_e5m2_not_a_number_in_bfloat16():
    data, (codes, _) = blank_weight("fp8_e5m2")
    codes[:] = 0xFD
    assert set(bf16_bits(expand.expand_general("fp8_e5m2", data, 1, 64, "bfloat16").reshape(-1))) == {0x7FC0}
    assert np.all(np.isnan(expand.expand_simd("fp8_e5m2", data, 1, 64, "half")))


@pytest.mark.parametrize("name", FORMATS)
def test_random_weights_use_every_code(name):
    data = formats.random_weight(name, 64, 1024, 3)
    f = formats.fields(name, data, data.size // FORMATS[name].block_bytes)
    w = formats.decode(name, data, 64, 1024)
    assert np.all(np.isfinite(w)) and 0.1 < np.abs(w).max() < 0.51
    expected = {"q8_0": 256, "fp8_e4m3": 256, "fp6": 64, "fp6_k": 64, "q6_k": 64, "q5_0": 32, "q5_1": 32, "q5_k": 32,
                "nf3": 8, "q2_k": 4, "iq2_xxs": 6, "iq1_s": 3, "fp8_e5m2": 104}.get(name, 16)  # fmt: skip
    assert len(np.unique(f.code)) == expected


def test_rows_share_blocks_only_by_flat_index():
    data = formats.random_weight("q4_k", 4, 192, 1)  # three super-blocks for four rows
    flat = formats.decode("q4_k", data, 3, 256).reshape(-1)
    assert np.array_equal(formats.decode("q4_k", data, 4, 192).reshape(-1), flat)
    assert np.all(np.isnan(formats.decode("q4_k", data[: 2 * 148], 3, 192).reshape(-1)[512:]))
