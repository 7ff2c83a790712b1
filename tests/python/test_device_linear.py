"""The framework's linear on the XPU device, which has a product of its own."""

import pytest
import torch
from tensors import FLOATING, ROUNDOFF, pair
from torch.nn.functional import linear


SHAPES = [
    (1, 1, 1),
    (3, 7, 5),
    (2, 64, 64),
    (5, 33, 130),
    (16, 300, 513),
    (17, 64, 100),
    (129, 96, 257),
    (300, 130, 40),
]


def check_linear(x, w, bias, result):
    """Against double: K + 1 roundings of float sums, then one to the element type."""
    dtype, depth = result.dtype, x.shape[-1]
    x, w = x.cpu().double(), w.cpu().double()
    bias = torch.zeros(w.shape[0], dtype=torch.double) if bias is None else bias.cpu().double()
    exact = x @ w.t() + bias
    magnitude = x.abs() @ w.abs().t() + bias.abs()
    sums = min(ROUNDOFF[torch.float], ROUNDOFF[dtype]) * (depth + 2)
    bound = sums * magnitude * 1.01 + ROUNDOFF[dtype] * exact.abs() * 1.01 + 2.0**-25 * (dtype == torch.half)
    assert result.shape == exact.shape
    assert ((result.cpu().double() - exact).abs() <= bound).all()


@pytest.mark.parametrize("dtype", FLOATING, ids=str)
@pytest.mark.parametrize("with_bias", [False, True])
@pytest.mark.parametrize(("rows", "depth", "columns"), SHAPES)
def test_linear(rows, depth, columns, with_bias, dtype):
    (_, x), (_, w), (_, bias) = (pair(*s, dtype=dtype) for s in [(rows, depth), (columns, depth), (columns,)])
    bias = bias if with_bias else None
    result = linear(x, w, bias)
    assert result.is_xpu and result.dtype == dtype
    check_linear(x, w, bias, result)


@pytest.mark.parametrize("dtype", [torch.float, torch.half, torch.bfloat16], ids=str)
def test_linear_takes_any_rank_and_stride(dtype):
    _, w = pair(24, 96, dtype=dtype)
    _, x = pair(4, 3, 96, dtype=dtype)
    layouts = [
        (x, w),
        (x[1, 1], w),
        (x[:, ::2], w[::3]),
        (x.transpose(0, 1), w[:, :].t().contiguous().t()),
        (x[:, :, 1::2], w[:, 48:]),
        (x[:1, :1].expand(2, 5, 96), w[:1].expand(7, 96)),
        (x[..., :1], w[:, 5:6]),
        (x, w[3:4]),
    ]
    for inputs, weight in layouts:
        check_linear(inputs, weight, None, linear(inputs, weight))


@pytest.mark.parametrize("shape", [(0, 4), (3, 0), (2, 0, 4)])
def test_linear_of_nothing(shape):
    x, w = torch.ones(shape, device="xpu"), torch.ones(5, shape[-1], device="xpu")
    bias = torch.arange(5.0, device="xpu")
    assert torch.equal(linear(x, w, bias).cpu(), linear(x.cpu(), w.cpu(), bias.cpu()))


def test_linear_of_lazily_negated_tensors():
    x, w, b = (torch.randn(*shape).to("xpu") for shape in ((3, 64), (5, 64), (5,)))
    assert torch.equal(linear(torch._neg_view(x), w, b), linear(-x, w, b))
    assert torch.equal(linear(x, torch._neg_view(w), torch._neg_view(b)), linear(x, -w, -b))


def test_linear_keeps_infinities_and_nans_of_half_in_their_rows():
    x = torch.ones(3, 64, dtype=torch.half, device="xpu")
    x[1, 7], x[2, 3] = float("inf"), float("nan")
    result = linear(x, torch.full((130, 64), 1000.0, dtype=torch.half, device="xpu")).cpu()
    assert (result[0] == 64000).all() and result[1].isinf().all() and result[2].isnan().all()
    assert linear(x[:1] * 2, torch.full((1, 64), 1000.0, dtype=torch.half, device="xpu")).isinf().all()  # beyond 65504
