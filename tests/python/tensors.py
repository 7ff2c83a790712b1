"""What the Python tests share: tensors on the device, from numpy and back; comparisons; the environment of a call."""

from __future__ import annotations

import contextlib
import ctypes
import os

import host_xpu
import numpy as np
import pytest
import torch
from reference.geometry import ANY

# Under the address sanitizer each tensor is an allocation of its own and of its exact size.
GUARDED = "ASAN_OPTIONS" in os.environ

FLOATING = [torch.float, torch.half, torch.bfloat16, torch.double]
# Unit roundoff: half the distance from 1 to the next value.
ROUNDOFF = {torch.float: 2.0**-24, torch.half: 2.0**-11, torch.bfloat16: 2.0**-8, torch.double: 2.0**-53}

DTYPES = {"half": torch.half, "float": torch.float, "double": torch.double, "bfloat16": torch.bfloat16}


def pair(*shape, dtype=torch.float):
    """The same random values on both devices, in memory of their own."""
    on_cpu = torch.randn(*shape).to(dtype) if dtype.is_floating_point else torch.randint(-9, 9, shape, dtype=dtype)
    return on_cpu, on_cpu.to("xpu")


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
        if launch.sub_group_size != ANY:
            assert record.sub_group_size == launch.sub_group_size, launch.kernel


@contextlib.contextmanager
def environment(values: dict):
    """Environment variables for the length of a call."""
    with pytest.MonkeyPatch.context() as patch:
        for name, value in values.items():
            patch.setenv(name, value)
        yield


def refusal(call) -> str:
    """First line of the exception that a call ends with, before it launches anything."""
    with host_xpu.record_launches() as records, pytest.raises(RuntimeError) as failure:
        call()
    assert len(records) == 0
    return str(failure.value).splitlines()[0]


def to(**values):
    """Spoils a call by setting its arguments, to a value or to a function of the argument."""

    def spoil(call):
        for name, value in values.items():
            setattr(call, name, value(getattr(call, name)) if callable(value) else value)

    return spoil


def bytes_behind(size: int, call) -> set[int]:
    """What stands behind a result of `size` bytes to the end of its memory, where 0xA5 stood before the call.

    Memory that was freed last is used first, in whole cache lines.
    """
    if GUARDED:
        pytest.skip("the address sanitizer sees it by itself")
    marked = torch.full((-(-size // 64) * 64,), 0xA5, dtype=torch.uint8, device="xpu")
    memory, whole = marked.data_ptr(), marked.numel()
    del marked
    result = call()
    assert result.data_ptr() == memory and result.numel() * result.element_size() == size
    return set((ctypes.c_uint8 * (whole - size)).from_address(memory + size))
