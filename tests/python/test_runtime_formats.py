"""The packers: layouts against the reference decoding, error bounds, searches, refusals."""

import gguf
import numpy as np
import pytest
from reference import formats as reference

from corvane_runtime.formats import FORMATS, PUBLIC_BLOCKS, common, take_over

PACKABLE = [name for name, format_ in FORMATS.items() if format_.encode is not None]
SEARCHED = [name for name in PACKABLE if name not in ("q8_0", "fp8_e4m3", "fp8_e5m2")]
HALF_ROUNDING = 2.0**-11  # relative error of rounding to Half


def layer_weight(rows: int, columns: int, seed: int = 0) -> np.ndarray:
    """Normal weights whose rows and columns differ in size, as those of a trained layer do."""
    rng = np.random.default_rng(seed)
    size = np.exp(rng.normal(-3, 0.7, (rows, 1)) + rng.normal(0, 0.3, (1, columns)))
    return (rng.normal(0, 1, (rows, columns)) * size).astype(np.float32)


@pytest.mark.parametrize("name", FORMATS)
def test_registry_agrees_with_the_reference(name):
    ours, theirs = FORMATS[name], reference.FORMATS[name]
    assert (ours.qtype, ours.block_elements, ours.planes) == (theirs.qtype, theirs.block_elements, theirs.planes)


@pytest.mark.parametrize("name", FORMATS)
def test_unpack_reads_random_bytes_as_the_reference_does(name):
    n, k = 6, 3 * FORMATS[name].block_elements
    packed = reference.random_weight(name, n, k, seed=5)
    expected = reference.decode(name, packed, n, k, half_factor=True)
    # Two roundings of a product, one of a sum whose terms may be larger than the result.
    bound = 2.0**-22 * np.abs(expected) + 2.0**-23 * np.abs(expected).max()
    assert (np.abs(FORMATS[name].unpack(packed, n, k) - expected) <= bound).all()


@pytest.mark.parametrize("name", PACKABLE)
def test_packing_again_changes_next_to_nothing(name):
    format_, w = FORMATS[name], layer_weight(24, 768)
    once = format_.unpack(format_.pack(w), *w.shape)
    twice = format_.unpack(format_.pack(once), *w.shape)
    first, second = np.linalg.norm(once - w), np.linalg.norm(twice - once)
    # Two-level scales and the free alignment of six-bit floats may settle elsewhere once more.
    assert second <= (0.05 * first if name in ("q2_k", "q4_k", "q5_k", "q6_k", "fp6", "fp6_k") else 0)


def worst_step(name: str, codes: int) -> float:
    """Half the widest gap of a format's magnitudes, as a part of the largest."""
    table = reference.values(name, np.arange(codes))
    return float(np.diff(table).max() / 2 / table[-1])


# Root-mean-square error of a block, at most, as a part of its extreme: half a step when the extreme takes the last code
# on the narrower side, and half a step of the sub-block scale where there is one.
SYMMETRIC_BOUND = {
    "q4_0": 1 / 14,
    "q5_0": 1 / 30,
    "q8_0": 1 / 254,
    "nf4": (1 - 0.7229568362236023) / 2,
    "nf3": (1 - 0.4786292016506195) / 2,
    "fp4": 1 / 6,
    "fp6": worst_step("fp6", 32),
    "fp8_e4m3": worst_step("fp8_e4m3", 128),
    "q6_k": 0.5 / 31 + 0.5 / 127,
    "fp6_k": worst_step("fp6", 32) + 0.5 / 127,
}


def errors(name: str, w: np.ndarray) -> np.ndarray:
    """Root-mean-square error of each block."""
    error = FORMATS[name].unpack(FORMATS[name].pack(w), *w.shape) - w
    return np.sqrt((error.reshape(-1, FORMATS[name].block_elements) ** 2).mean(axis=1))


@pytest.mark.parametrize("name", SYMMETRIC_BOUND)
def test_error_of_symmetric_formats_is_within_half_a_step(name):
    w = layer_weight(16, 768)
    extreme = np.abs(w).reshape(-1, FORMATS[name].block_elements).max(axis=1)
    roundings = 1 if FORMATS[name].block_elements == 64 else 3
    assert (errors(name, w) <= extreme * (SYMMETRIC_BOUND[name] + roundings * HALF_ROUNDING)).all()


@pytest.mark.parametrize(("name", "levels"), [("q4_1", 15), ("q5_1", 31)])
def test_error_of_affine_formats_is_within_half_a_step(name, levels):
    w = layer_weight(16, 640) + np.float32(0.05)
    blocks = w.reshape(-1, 64)
    span = blocks.max(axis=1) - blocks.min(axis=1)
    # A range cut into levels - 0.2 steps clips nothing; the offset and the last step carry Half roundings.
    bound = span / (2 * (levels - 0.2)) + HALF_ROUNDING * (span + np.abs(blocks).max(axis=1))
    assert (errors(name, w) <= bound).all()


@pytest.mark.parametrize(
    ("name", "sub", "levels", "top"), [("q2_k", 16, 3, 15), ("q4_k", 32, 15, 255), ("q5_k", 32, 31, 63)]
)
def test_error_of_affine_super_blocks(name, sub, levels, top):
    w = layer_weight(16, 768)
    pieces = w.reshape(-1, 256 // sub, sub)
    span = (np.maximum(pieces.max(axis=2), 0) - np.minimum(pieces.min(axis=2), 0)).max(axis=1)
    # Half a step of a code, and half a step of the quantised scale (times the last code) and of the minimum.
    assert (errors(name, w) <= span * (0.5 / levels + 1.0 / top + 3 * HALF_ROUNDING)).all()


def test_fp8_e5m2_keeps_each_weight_to_its_nearest_code_under_scale_one():
    w = layer_weight(8, 128)
    packed = FORMATS["fp8_e5m2"].pack(w)
    assert (packed[64 * 16 :].view("<f4") == 1).all()
    codes = reference.values("fp8_e5m2", np.arange(124))  # magnitudes, ascending
    nearest = np.abs(np.abs(w).reshape(-1, 1).astype(np.float64) - codes).min(axis=1).reshape(w.shape)
    for scaled in (False, True):
        got = reference.decode("fp8_e5m2", packed, *w.shape, scaled=scaled)
        np.testing.assert_allclose(np.abs(got - w), nearest, rtol=1e-12, atol=0)
        assert (np.sign(got) == np.sign(w)).all()


@pytest.mark.parametrize("name", SEARCHED)
def test_importance_lowers_the_error_that_it_weighs(name):
    w = layer_weight(32, 768, seed=2)
    importance = np.exp(np.random.default_rng(3).normal(0, 1.5, w.shape[1])).astype(np.float32)
    format_ = FORMATS[name]

    def weighed_error(packed: np.ndarray) -> float:
        return float((importance * (format_.unpack(packed, *w.shape) - w) ** 2).sum())

    assert weighed_error(format_.pack(w, importance)) < weighed_error(format_.pack(w))


@pytest.mark.parametrize("name", ["q4_0", "q4_1", "fp6", "q4_k"])
def test_even_importance_changes_nothing(name):
    w = layer_weight(8, 512)
    even = np.full(512, 7.0, dtype=np.float32)
    np.testing.assert_allclose(
        FORMATS[name].unpack(FORMATS[name].pack(w, even), *w.shape),
        FORMATS[name].unpack(FORMATS[name].pack(w), *w.shape),
        atol=2.0**-10 * np.abs(w).max(),
    )


@pytest.mark.parametrize("name", ["q4_0", "q4_k", "fp6_k"])
def test_chunks_do_not_show(name, monkeypatch):
    w = layer_weight(7, 768)
    importance = np.linspace(0.5, 2, 768, dtype=np.float32)
    told = []
    whole = FORMATS[name].pack(w, importance)
    monkeypatch.setattr(common, "CHUNK_ELEMENTS", 3 * 768)
    pieces = FORMATS[name].pack(w, importance, told.append)
    assert (pieces == whole).all()
    assert told == [3 * 768, 3 * 768, 768]
    assert (FORMATS[name].unpack(pieces, *w.shape) == FORMATS[name].unpack(whole, *w.shape)).all()


@pytest.mark.parametrize("name", PACKABLE)
@pytest.mark.parametrize("size", [0.0, 1e-38, 1e-9])
def test_blocks_near_zero_stay_near_zero(name, size):
    w = np.zeros((2, 512), dtype=np.float32)
    w[0, ::3] = size
    w[1, 100] = -size
    got = FORMATS[name].unpack(FORMATS[name].pack(w), *w.shape)
    # Half scales end at 2^-24, which the codes multiply; the codes of fp8_e5m2 end at 2^-17 themselves.
    assert np.abs(got).max() <= (2.0**-17 if name == "fp8_e5m2" else size + 2.0**-24)


def test_bytes_by_hand():
    w = np.zeros((1, 64), dtype=np.float32)
    w[0, 0], w[0, 32] = -8, 7
    w[0, 1:8] = np.arange(-7, 0)
    packed = FORMATS["q4_0"].pack(w)
    assert packed[0] == 0xF0 and packed[1] == 0x81 and packed[8] == 0x88  # low nibble element j, high j + 32
    assert packed[32:].tobytes() == np.float16(1).tobytes()
    table = np.zeros((1, 64), dtype=np.float32)
    table[0, 0] = -1
    assert FORMATS["nf4"].pack(table)[0] == 0x07  # high nibble element 0, low nibble element 32
    ones = np.ones((1, 64), dtype=np.float32)
    assert (FORMATS["nf3"].pack(ones)[:24] == 0xFF).all()
    assert FORMATS["fp4"].pack(-6 * ones)[0] == 0xFF
    five = FORMATS["q5_0"].pack(np.where(np.arange(64) == 33, -16, 15).reshape(1, 64).astype(np.float32))
    assert five[4:12].tobytes() == (2**64 - 1 - 2**33).to_bytes(8, "little")


@pytest.mark.parametrize("name", PUBLIC_BLOCKS)
def test_public_blocks_are_taken_over_byte_by_byte(name):
    n, k = 4, 512
    packed = reference.random_weight(name, n, k, seed=9)
    blocks = packed.reshape(n, -1)
    taken = take_over(FORMATS[name], blocks, k)
    assert (taken == packed).all()
    np.testing.assert_allclose(
        FORMATS[name].unpack(taken, n, k), gguf.dequantize(blocks, PUBLIC_BLOCKS[name]), rtol=1e-5, atol=1e-6
    )


ONES = np.ones((2, 256), dtype=np.float32)


@pytest.mark.parametrize(
    ("name", "arguments", "text"),
    [
        ("q4_k", (np.ones((2, 576), np.float32),), "multiple of 256"),
        ("q4_0", (ONES[:, :32],), "multiple of 64"),
        ("q4_0", (ONES[0],), "two dimensions"),
        ("q8_0", (ONES * np.float32(np.nan),), "infinite or not a number"),
        ("fp6", (ONES * np.float32(np.inf),), "infinite or not a number"),
        ("q4_0", (1e7 * ONES,), "largest Half"),
        ("fp8_e5m2", (1e6 * ONES,), "end at 61440"),
        ("iq2_xxs", (ONES,), "no packer from dense"),
        ("q4_0", (ONES, ONES[0, :64]), "importance"),
        ("q4_0", (ONES, -ONES[0]), "importance"),
    ],
)
def test_refusals(name, arguments, text):
    with pytest.raises(ValueError, match=text):
        FORMATS[name].pack(*arguments)


def test_refusals_of_packed_bytes():
    with pytest.raises(ValueError, match="272 bytes"):
        FORMATS["q4_0"].unpack(np.zeros(271, dtype=np.uint8), 2, 256)
    with pytest.raises(ValueError, match="not those of a public block"):
        take_over(FORMATS["q4_k"], np.zeros((1, 148), dtype=np.uint8), 256)
    with pytest.raises(ValueError, match="66 bytes"):
        take_over(FORMATS["iq2_xxs"], np.zeros((1, 64), dtype=np.uint8), 256)
