"""What the tests' reference stands on beside the formats (test_formats.py): roundings, tolerances, the rotation."""

import numpy as np
import pytest
import torch
from reference import forward, formats, fused, linear, paths
from reference.rounding import add, bf16_bits, multiply, round_bf16, round_to


def test_roundings_agree_with_the_framework():
    bits = np.random.default_rng(5).integers(0, 2**32, 200_000, dtype=np.uint64).astype(np.uint32)
    single = torch.from_numpy(bits.view(np.float32).copy())
    finite = ~torch.isnan(single)
    assert np.array_equal(round_bf16(single.numpy())[finite], single.to(torch.bfloat16).float().numpy()[finite])
    assert np.array_equal(round_to(single.numpy(), "half")[finite], single.to(torch.half).numpy()[finite])
    assert set(bf16_bits(round_bf16(single.numpy()))[~finite]) == {0x7FC0}


@pytest.mark.parametrize("dtype", ["half", "bfloat16"])
def test_tolerance_holds_for_a_plain_order_and_is_no_licence(dtype):
    """q4_0 summed in T, chunk by chunk over 32 lanes, then a tree; every operation rounded."""
    n, k = 24, 2048
    data = formats.random_weight("q4_0", n, k, 4)
    x = linear.random_input(1, k, dtype, 4)
    f = formats.fields("q4_0", data, n * k // 64)
    code = round_to(f.code.reshape(n, k) - 8, dtype)
    scale = round_to(np.repeat(f.d.reshape(n, -1), 4, axis=1), dtype)  # one per chunk of 16
    products = multiply(code, x, dtype).reshape(n, k // 16, 16)
    chunk = np.zeros((n, k // 16), dtype=products.dtype)
    for j in range(16):
        chunk = add(chunk, products[:, :, j], dtype)
    chunk = multiply(chunk, scale, dtype).reshape(n, -1, 32)
    lanes = np.zeros((n, 32), dtype=products.dtype)
    for step in range(chunk.shape[1]):
        lanes = add(lanes, chunk[:, step], dtype)
    while lanes.shape[1] > 1:
        half = lanes.shape[1] // 2
        lanes = add(lanes[:, :half], lanes[:, half:], dtype)
    exact, bound = linear.matrix_vector("q4_0", data, n, k, x, dtype)
    error = np.abs(lanes[:, 0] - exact[0])
    assert np.all(error <= bound[0])
    assert bound.mean() < (0.03 if dtype == "half" else 0.25) * exact.std()
    assert error.max() > bound.mean() / 200


def test_tolerance_grows_for_terms_of_one_sign():
    mixed = np.where(np.arange(1024) % 2, 1.0, -1.0)
    assert linear.coherent_power(mixed) == 1024 and linear.coherent_power(np.abs(mixed)) == 1024**2


@pytest.mark.parametrize("qtype", paths.RULES)
@pytest.mark.parametrize("rows", [1, 2, 65])
def test_every_path_has_a_useful_tolerance(qtype, rows):
    n, k, name = 16, 1024, paths.ACCEPTED[qtype]
    data, x = formats.random_weight(name, n, k, 1), linear.random_input(rows, k, "float", 1)
    outcome = paths.select(1, qtype, rows, n, k, "float")
    y, bound = forward.forward(outcome, qtype, x, data, n, k, "float")
    plain = linear.linear(x, formats.decode(name, data, n, k))
    assert bound.max() < (0.02 if outcome.path == "systolic" else 1e-3) * np.abs(y).max()
    near = 0.3 if outcome.path == "systolic" and name == "fp8_e4m3" else 0.05  # without midpoints there
    assert np.abs(y - plain).max() < near * np.abs(plain).max()


def test_rotation_by_hand():
    heads = np.array([[1.0, 2.0, 3.0, 4.0]])
    turned, _ = fused.rotate(heads, np.zeros_like(heads), 1, 100.0, "float")
    # Pairs (1, 3) by one radian and (2, 4) by 100^(-2/4) = 0.1.
    expected = [np.cos(1) - 3 * np.sin(1), 2 * np.cos(0.1) - 4 * np.sin(0.1),
                3 * np.cos(1) + np.sin(1), 4 * np.cos(0.1) + 2 * np.sin(0.1)]  # fmt: skip
    np.testing.assert_allclose(turned[0], expected, rtol=1e-6)
