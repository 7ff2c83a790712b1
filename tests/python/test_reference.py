"""What the tests' reference stands on beside the formats (test_formats.py): roundings and the rotation."""

import numpy as np
import torch
from reference import fused
from reference.rounding import round_bf16, round_to


def test_roundings_agree_with_the_framework():
    bits = np.random.default_rng(5).integers(0, 2**32, 200_000, dtype=np.uint64).astype(np.uint32)
    single = torch.from_numpy(bits.view(np.float32).copy())
    finite = ~torch.isnan(single)
    assert np.array_equal(round_bf16(single.numpy())[finite], single.to(torch.bfloat16).float().numpy()[finite])
    assert np.array_equal(round_to(single.numpy(), "half")[finite], single.to(torch.half).numpy()[finite])
    assert set(round_bf16(single.numpy()).view(np.uint32)[~finite]) == {0x7FC00000}


def test_rotation_by_hand():
    heads = np.array([[1.0, 2.0, 3.0, 4.0]])
    turned, _ = fused.rotate(heads, np.zeros_like(heads), 1, 100.0, "float")
    # Pairs (1, 3) by one radian and (2, 4) by 100^(-2/4) = 0.1.
    expected = [np.cos(1) - 3 * np.sin(1), 2 * np.cos(0.1) - 4 * np.sin(0.1),
                3 * np.cos(1) + np.sin(1), 4 * np.cos(0.1) + 2 * np.sin(0.1)]  # fmt: skip
    np.testing.assert_allclose(turned[0], expected, rtol=1e-6)
