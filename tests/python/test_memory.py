"""Memory that operators take beside their results."""

import os

import corvane
import host_xpu
import numpy as np
import pytest
import torch
from reference.expand import expand_general
from reference.random_weights import random_weight
from reference.registry import FORMATS
from tensors import DTYPES, to_numpy


def size_of(tensor: torch.Tensor) -> int:
    return tensor.numel() * tensor.element_size()


def peak_of(call) -> tuple[object, int]:
    """Result of the second of two calls, and the most device memory that it held beyond what was held before."""
    call()  # what a first call keeps for good is there now
    before = host_xpu.memory_allocated()
    host_xpu.reset_peak_memory_stats()
    result = call()
    return result, host_xpu.max_memory_allocated() - before


@pytest.mark.parametrize("dtype", [torch.float, torch.half, torch.bfloat16], ids=str)
def test_the_tile_path_holds_the_result_one_tile_and_its_product(dtype, monkeypatch):
    rows, n, k, tile = 160, 4096, 512, 1024
    monkeypatch.setenv("TARN_LLM_LOW_MEM", "1")
    monkeypatch.setenv("TILE_THRESHOLD", "1024")
    monkeypatch.setenv("TILE_SIZE", str(tile))
    weight = torch.from_numpy(random_weight("q4_0", n, k, 0)).to("xpu")
    x = torch.randn(rows, k).to(dtype).to("xpu")

    with host_xpu.record_launches() as launches:
        corvane.forward_new(x, weight, 2, rows)
    assert [launch.kernel.split("_q4_0")[0] for launch in launches] == ["qlinear_xpu_tile_dequantize_kernel"] * 4

    # What the framework's product works in, each worker for itself; a worker may come too late for a small product.
    expanded = torch.empty(tile, k, dtype=dtype, device="xpu")
    product, product_peak = peak_of(lambda: torch.nn.functional.linear(x, expanded))
    working = len(os.sched_getaffinity(0)) * (product_peak - size_of(product))

    result, taken = peak_of(lambda: corvane.forward_new(x, weight, 2, rows))
    tensors = size_of(result) + size_of(expanded) + size_of(product)
    assert size_of(result) < taken <= tensors * 9 // 8 + working  # blocks are at most an eighth larger than asked for


@pytest.mark.parametrize("name", ["q4_0", "q8_0", "iq2_xxs"])
@pytest.mark.parametrize("dtype", ["half", "float", "double", "bfloat16"])
def test_an_output_larger_than_the_caches_is_exact(name, dtype):
    k, cache = 4096, 32 << 20  # what is stored past the caches
    like = torch.zeros(1, k, dtype=DTYPES[dtype], device="xpu")
    n = cache // (k * like.element_size()) + 3
    data = random_weight(name, n, k, 0)
    dense = corvane.dequant(like, torch.from_numpy(data).to("xpu"), FORMATS[name].qtype)
    assert np.array_equal(to_numpy(dense), expand_general(name, data, n, k, dtype))
