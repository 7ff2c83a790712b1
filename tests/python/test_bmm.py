"""The batch product."""

import corvane
import host_xpu
import pytest
import torch
from reference.operators import batch_product
from tensors import assert_close, refusal


def xpu(*shape, dtype=torch.float):
    return torch.zeros(*shape, dtype=dtype, device="xpu")


@pytest.mark.parametrize(
    "shape",  # batch, M, N, K
    [(1, 1, 1, 1), (2, 6, 64, 128), (3, 5, 63, 7), (2, 97, 130, 65), (1, 7, 33, 300), (2, 200, 40, 257)],
    ids=str,
)
def test_bmm(shape):
    batch, m, n, k = shape
    g = torch.Generator().manual_seed(k)
    a, b = torch.randn(batch, m, k, generator=g), torch.randn(batch, k, n, generator=g)
    c = torch.full((batch, m, n), float("nan"), device="xpu")
    result = corvane.bmm(a.to("xpu"), b.to("xpu"), c)
    assert result.shape == c.shape and result.data_ptr() == c.data_ptr()
    assert_close(c, *batch_product(a, b))


@pytest.mark.parametrize("distance", [1, 200])
def test_sums_run_in_ascending_order(distance):
    # 1e20 swallows the 1 that comes between it and -1e20, and leaves the one that comes behind.
    between, behind = xpu(1, 1, 3 * distance), xpu(1, 1, 3 * distance)
    for row, values in ((between, (1e20, 1, -1e20)), (behind, (1e20, -1e20, 1))):
        for i, value in enumerate(values):
            row[0, 0, i * distance] = value
    a = torch.cat([between, behind], 1)
    result = corvane.bmm(a, xpu(1, 3 * distance, 70) + 1, xpu(1, 2, 70)).cpu()
    assert [row.unique().tolist() for row in result[0]] == [[0.0], [1.0]]


def test_result_lies_in_the_first_elements_of_c():
    a, b = torch.rand(2, 3, 4), torch.rand(2, 4, 5)
    c = torch.full((7, 5), 9.0, device="xpu")
    result = corvane.bmm(a.to("xpu"), b.to("xpu"), c)
    assert result.shape == (7, 5)
    torch.testing.assert_close(c.cpu().flatten()[:30].view(2, 3, 5), a @ b)
    assert c.cpu().flatten()[30:].tolist() == [9.0] * 5


def test_no_terms_give_zeros():
    assert corvane.bmm(xpu(2, 70, 0), xpu(2, 0, 70), xpu(2, 70, 70) + 1).count_nonzero() == 0


@pytest.mark.parametrize(("batch", "m", "n"), [(0, 3, 5), (2, 0, 5), (2, 3, 0)])
def test_without_elements_c_stays(batch, m, n):
    c = xpu(40) + 7
    a, b = xpu(batch, m, 4), xpu(batch, 4, n)
    shared = c.as_strided(a.shape, a.stride()), c.as_strided(b.shape, b.stride())
    for operands in ((a, b), (shared[0], b), (a, shared[1])):
        assert corvane.bmm(*operands, c).data_ptr() == c.data_ptr()
        assert c.tolist() == [7.0] * 40
    assert corvane.bmm(*shared, shared[0]).shape == a.shape
    assert c.tolist() == [7.0] * 40


def test_launch_goes_to_the_current_stream():
    arguments = xpu(2, 3, 4), xpu(2, 4, 5), xpu(2, 3, 5)
    with host_xpu.record_launches() as launches:
        corvane.bmm(*arguments)
        with host_xpu.stream(host_xpu.Stream()):
            corvane.bmm(*arguments)
    first, second = launches
    assert (first.kernel, first.source, first.label) == ("bmm_xpu", "bmm_xpu_kernel", None)
    assert (first.global_size, first.local_size, first.sub_group_size) == ((2, 3, 5), None, None)
    assert not first.waited and first.queue != second.queue


REFUSALS = [
    (xpu(3, 4), xpu(2, 4, 5), xpu(2, 3, 5), "Input tensors must have 3 dimensions"),
    (xpu(2, 3, 4), xpu(2, 5, 6), xpu(2, 3, 6), "Input tensors dimensions do not match for batch multiplication"),
    (xpu(1, 3, 4), xpu(2, 4, 6), xpu(2, 3, 6), "Input tensors dimensions do not match for batch multiplication"),
    (xpu(2, 3, 4, dtype=torch.half), xpu(2, 4, 5), xpu(2, 3, 5), "expected scalar type Float but found Half"),
    (xpu(2, 3, 4), xpu(2, 4, 5), xpu(2, 3, 5, dtype=torch.double), "expected scalar type Float but found Double"),
    (xpu(2, 3, 4), xpu(2, 4, 5), xpu(29), "C must hold batch * M * N = 2 * 3 * 5 elements, found 29"),
    (
        xpu(1, 2**62, 0),
        xpu(1, 0, 2**62),
        xpu(1),
        f"C must hold batch * M * N = 1 * {2**62} * {2**62} elements, found 1",
    ),
]


@pytest.mark.parametrize(("a", "b", "c", "text"), REFUSALS, ids=[refusal[-1][:50] for refusal in REFUSALS])
def test_refusals(a, b, c, text):
    assert refusal(lambda: corvane.bmm(a, b, c)) == text


@pytest.mark.parametrize("which", ["A", "B"])
def test_c_that_is_read_as_well_is_refused(which):
    a, b = xpu(1, 4, 4), xpu(1, 4, 4)
    assert "clone" in refusal(lambda: corvane.bmm(a, b, a if which == "A" else b))
