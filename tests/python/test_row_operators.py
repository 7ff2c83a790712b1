"""The device's own operators for a step of one row, against formulas in double."""

import pytest
import torch

import host_xpu

TOLERANCE = {torch.float32: 2e-6, torch.float16: 1e-3, torch.bfloat16: 8e-3}  # of the largest value
dtypes = pytest.mark.parametrize("dtype", TOLERANCE, ids=str)


def assert_near(found, expected, dtype):
    assert found.dtype == dtype and found.device.type == "xpu"
    error = (found.cpu().double() - expected).abs().max() / expected.abs().max()
    assert error < TOLERANCE[dtype]


@dtypes
@pytest.mark.parametrize("shape", [(1, 576), (1, 2048), (3, 100), (2, 5, 64), (700, 128)], ids=str)
@pytest.mark.parametrize("delta_dtype", [None, torch.float32, torch.float16], ids=str)
def test_rms_norm_adds_before_it_norms(shape, dtype, delta_dtype):
    x, weight = torch.randn(shape) * 3, torch.randn(shape[-1])
    delta = None if delta_dtype is None else torch.randn(shape).to(delta_dtype)
    expected = x.double() if delta is None else (x + delta).double()
    scale = (expected.pow(2).mean(dim=-1, keepdim=True) + 1e-5).rsqrt()
    stream = x.to("xpu")
    found = host_xpu.rms_norm(stream, weight.to("xpu"), 1e-5, dtype, None if delta is None else delta.to("xpu"))
    assert_near(found, expected * scale * weight.double(), dtype)
    assert torch.equal(stream.cpu(), x if delta is None else x + delta)


@dtypes
@pytest.mark.parametrize(("heads", "kv_heads", "size"), [(9, 3, 64), (32, 8, 64), (7, 1, 80), (6, 2, 16), (5, 5, 128)])
@pytest.mark.parametrize("length", [1, 17, 128, 700])
def test_row_attention_is_a_softmax_over_the_cache(heads, kv_heads, size, length, dtype):
    query = torch.randn(1, heads, 1, size).to(dtype)
    caches = [torch.full((1, kv_heads, length + 3, size), float("nan"), dtype=dtype) for _ in range(2)]
    for cache in caches:
        cache[:, :, :length] = torch.randn(1, kv_heads, length, size)
    keys, values = (
        cache[:, :, :length].double().repeat_interleave(heads // kv_heads, dim=1) for cache in caches
    )  # fmt: skip
    weights = (query.double() @ keys.transpose(2, 3) / size**0.5).softmax(dim=-1)
    on_device = [cache.to("xpu").narrow(2, 0, length) for cache in caches]
    found = host_xpu.row_attention(query.to("xpu"), *on_device)
    assert_near(found, (weights @ values).reshape(1, -1), dtype)


def test_row_attention_holds_scores_of_any_size():
    query, keys = torch.full((1, 1, 1, 16), 100.0), torch.zeros(1, 1, 300, 16)
    keys[0, 0, 200] = 100.0
    values = torch.arange(300.0).view(1, 1, 300, 1).expand(1, 1, 300, 16).contiguous()
    found = host_xpu.row_attention(query.to("xpu"), keys.to("xpu"), values.to("xpu"))
    assert torch.equal(found.cpu(), torch.full((1, 16), 200.0))


def on_xpu(*shape, dtype=torch.float32):
    return torch.zeros(shape, dtype=dtype).to("xpu")


ROW, WEIGHT, CACHE = on_xpu(2, 32), on_xpu(32), on_xpu(1, 2, 4, 32)
QUERY = on_xpu(1, 4, 1, 32)


@pytest.mark.parametrize(
    ("call", "text"),
    [
        (lambda: host_xpu.rms_norm(torch.zeros(2, 32), WEIGHT, 0.0, torch.float32), "x must be on XPU"),
        (lambda: host_xpu.rms_norm(ROW.t(), on_xpu(2), 0.0, torch.float32), "x must be contiguous"),
        (lambda: host_xpu.rms_norm(ROW, on_xpu(31), 0.0, torch.float32), "x must end in the weight's size"),
        (lambda: host_xpu.rms_norm(ROW.half(), WEIGHT, 0.0, torch.float32), "must be float, found Half"),
        (lambda: host_xpu.rms_norm(ROW, WEIGHT, 0.0, torch.int32), "dtype must be float, half or bfloat16"),
        (lambda: host_xpu.rms_norm(ROW, WEIGHT, 0.0, torch.float32, on_xpu(32)), "delta must have x's shape"),
        (lambda: host_xpu.rms_norm(ROW, WEIGHT, 0.0, torch.float32, ROW.double()), "delta must be float, half"),
        (lambda: host_xpu.row_attention(QUERY, CACHE, CACHE.half()), "keys and values must be Float on XPU"),
        (lambda: host_xpu.row_attention(QUERY.double(), CACHE.double(), CACHE.double()), "query must be float, half"),
        (lambda: host_xpu.row_attention(QUERY, CACHE, on_xpu(1, 2, 5, 32)), "of one shape"),
        (lambda: host_xpu.row_attention(QUERY, *[CACHE.transpose(2, 3)] * 2), "contiguous rows"),
        (lambda: host_xpu.row_attention(on_xpu(1, 3, 1, 32), CACHE, CACHE), "a multiple of 2 heads"),
        (lambda: host_xpu.row_attention(on_xpu(1, 4, 2, 32), CACHE, CACHE), r"query must be \(1, heads, 1, 32\)"),
        (lambda: host_xpu.row_attention(QUERY, *[CACHE[:, :, :0]] * 2), "no positions"),
        (lambda: host_xpu.row_attention(on_xpu(1, 2, 1, 8), *[on_xpu(1, 2, 4, 8)] * 2), "a multiple of 16"),
    ],
)
def test_what_row_operators_refuse(call, text):
    with pytest.raises(RuntimeError, match=text):
        call()


def test_a_norm_of_nothing_is_nothing():
    assert host_xpu.rms_norm(on_xpu(0, 32), WEIGHT, 1e-5, torch.float16).shape == (0, 32)
