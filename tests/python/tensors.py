"""Tensors on the device for the tests, from numpy and back."""

from __future__ import annotations

import numpy as np
import torch

DTYPES = {"half": torch.half, "float": torch.float, "double": torch.double, "bfloat16": torch.bfloat16}


def on_device(array, dtype: str | None = None) -> torch.Tensor:
    """A device tensor of the array's values; `dtype` a key of DTYPES, left out: as numpy has it."""
    tensor = torch.from_numpy(np.ascontiguousarray(array))
    return (tensor if dtype is None else tensor.to(DTYPES[dtype])).to("xpu")


def to_numpy(tensor: torch.Tensor) -> np.ndarray:
    """Values of a tensor in float64."""
    return tensor.cpu().to(torch.double).numpy()


def assert_close(found: torch.Tensor, expected: np.ndarray, bound: np.ndarray, what="") -> None:
    """Every element within its own bound; infinities and not-a-numbers in the same places."""
    got = to_numpy(found)
    assert got.shape == expected.shape, what
    with np.errstate(invalid="ignore"):
        wrong = ~((np.abs(got - expected) <= bound) | (got == expected) | (np.isnan(got) & np.isnan(expected)))
    if wrong.any():
        at = tuple(np.argwhere(wrong)[0])
        raise AssertionError(
            f"{what}: {wrong.sum()} of {wrong.size} elements off, first at {at}: {got[at]}, expected {expected[at]} +- {bound[at]}"
        )


def assert_launches(records, expected) -> None:
    """Launch records against reference.geometry.Launch, whose sub-group size may be ANY."""
    assert [r.kernel for r in records] == [e.kernel for e in expected]
    for record, launch in zip(records, expected, strict=True):
        assert record.source == launch.source, launch.kernel
        assert record.label == launch.label, launch.kernel
        assert record.global_size == launch.global_size, launch.kernel
        assert record.local_size == launch.local_size, launch.kernel
        if launch.sub_group_size != "any":
            assert record.sub_group_size == launch.sub_group_size, launch.kernel
