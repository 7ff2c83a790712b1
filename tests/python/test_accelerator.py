"""The device as newer releases of PyTorch see accelerators: torch.xpu, generators, streams and events, attention."""

import os
import subprocess
import sys

import host_xpu
import pytest
import torch
from torch import nn
from torch.nn import functional

pytestmark = pytest.mark.skipif(not hasattr(torch, "xpu"), reason="this PyTorch has no torch.xpu")
no_driver = torch.version.cuda is not None and not torch.cuda.is_available()


def test_one_device_with_a_name_and_properties():
    assert torch.xpu.is_available() and torch.xpu.is_initialized() and torch.xpu.device_count() == 1
    assert torch.xpu.current_device() == 0 and torch.xpu.get_device_name() == host_xpu.device_name()
    properties = torch.xpu.get_device_properties(0)
    assert properties.total_memory == os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    assert torch.xpu.get_device_capability()["max_compute_units"] == properties.max_compute_units >= 1
    with torch.xpu.device(0):
        assert torch.xpu.is_bf16_supported()
    with pytest.raises(RuntimeError, match="does not exist"):
        torch.xpu.set_device(1)


def test_memory_statistics_follow_tensors():
    torch.xpu.synchronize()
    torch.xpu.reset_peak_memory_stats()
    before = torch.xpu.memory_allocated()
    x = torch.empty(1 << 20, dtype=torch.uint8, device="xpu")
    assert torch.xpu.memory_allocated() - before >= x.nbytes and torch.xpu.max_memory_allocated() >= before + x.nbytes
    del x
    assert torch.xpu.memory_allocated() == before and torch.xpu.memory_reserved() >= before
    torch.xpu.empty_cache()
    free, total = torch.xpu.mem_get_info()
    assert 0 < free <= total == torch.xpu.get_device_properties().total_memory


def test_streams_and_events():
    stream = torch.xpu.Stream()
    assert torch.xpu.current_stream().stream_id == 0
    with torch.xpu.stream(stream):
        assert torch.xpu.current_stream() == stream and host_xpu.current_stream().id == stream.stream_id
    assert torch.xpu.current_stream().stream_id == 0
    first, second = (torch.xpu.Event(enable_timing=True) for _ in range(2))
    first.record(stream)
    torch.randn(300, 300, device="xpu") @ torch.randn(300, 300, device="xpu")
    second.record(stream)
    stream.wait_event(second)
    stream.wait_stream(torch.xpu.Stream())
    stream.synchronize()
    assert second.query() and stream.query() and 0 < first.elapsed_time(second) < 60_000


def test_seeds_reach_the_device():
    def draw():
        return torch.rand(4, device="xpu")

    torch.manual_seed(3)
    first = draw()
    state = torch.xpu.get_rng_state()
    second = draw()
    torch.xpu.manual_seed_all(3)
    assert torch.equal(draw(), first) and not torch.equal(first, second)
    torch.xpu.set_rng_state(state)
    assert torch.equal(draw(), second)
    generator = torch.Generator(device="xpu").manual_seed(3)
    assert torch.equal(torch.rand(4, device="xpu", generator=generator), first)
    with torch.random.fork_rng(devices=[0], device_type="xpu"):
        draw()


@pytest.mark.parametrize("dtype", [torch.float, torch.half, torch.bfloat16])
@pytest.mark.parametrize("sizes", [(2, 5, 8), (1, 1, 16)], ids=["prompt", "one row"])  # batch, rows, head size
@pytest.mark.parametrize(
    "options",
    [
        {},
        {"is_causal": True},
        {"scale": 0.3},
        {"enable_gqa": True},
        {"attn_mask": torch.arange(-5.0, 0.0).expand(1, 5)},
    ],
    ids=lambda options: " ".join(options),
)
def test_attention(dtype, sizes, options):
    batch, rows, head_size = sizes
    query = torch.randn(batch, 4, rows, head_size).to(dtype)
    # Of more positions than are asked for, as a cache has them.
    kv_heads = 2 if "enable_gqa" in options else 4
    key, value = (torch.randn(batch, kv_heads, 9, head_size).to(dtype)[:, :, 2:7] for _ in range(2))

    def attend(tensors, place):
        placed = {name: place(value) if torch.is_tensor(value) else value for name, value in options.items()}
        return functional.scaled_dot_product_attention(*map(place, tensors), **placed)

    found = attend((query, key, value), lambda t: t.to(dtype).to("xpu"))
    expected = attend((query, key, value), lambda t: t.float())
    assert found.is_xpu and found.dtype == dtype and found.shape == expected.shape
    assert torch.allclose(found.cpu().float(), expected, rtol=0, atol=4 * torch.finfo(dtype).eps)


def test_norms_and_autocast():
    x, weight = torch.randn(3, 16), torch.randn(16)
    on_device = x.to("xpu"), weight.to("xpu")
    assert torch.equal(
        functional.rms_norm(on_device[0], (16,), on_device[1]).cpu(), functional.rms_norm(x, (16,), weight)
    )
    with torch.autocast("xpu", dtype=torch.bfloat16):
        assert functional.linear(*(t.to("xpu") for t in (x, torch.randn(4, 16)))).dtype == torch.bfloat16
        assert on_device[0].softmax(-1).dtype == torch.float


def test_modules_move_with_their_state():
    layer = nn.Sequential(nn.Embedding(10, 8), nn.LayerNorm(8), nn.Linear(8, 4)).eval()
    x = torch.tensor([[1, 2, 3]])
    with torch.inference_mode():
        expected = layer(x)
        assert torch.allclose(layer.to("xpu")(x.to("xpu")).cpu(), expected, atol=1e-5)
    other = nn.Sequential(nn.Embedding(10, 8), nn.LayerNorm(8), nn.Linear(8, 4)).to("xpu")
    other.load_state_dict(layer.state_dict())
    assert torch.equal(other[2].weight, layer[2].weight) and other[2].weight.is_xpu


def test_safetensors_straight_to_the_device(tmp_path):
    safetensors = pytest.importorskip("safetensors.torch")
    x = torch.randn(3, 4)
    safetensors.save_file({"x": x.to("xpu")}, tmp_path / "x.safetensors")
    found = safetensors.load_file(tmp_path / "x.safetensors", device="xpu")["x"]
    assert found.is_xpu and torch.equal(found.cpu(), x)


def test_batches_of_a_loader_in_other_processes():
    data = torch.utils.data.TensorDataset(torch.arange(8.0))
    batches = torch.utils.data.DataLoader(data, batch_size=4, num_workers=1)
    assert [batch.to("xpu").sum().item() for (batch,) in batches] == [6, 22]


def test_a_forked_process_has_the_device():
    code = """
import os, torch, corvane
x = torch.ones(2000, 600, device="xpu")
(x @ x.t()).sum()
child = os.fork()
if child == 0:
    os._exit(0 if (x @ x.t()).sum().item() == 2000 * 2000 * 600 else 1)
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
"""
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)
    assert done.stdout == "0\n", done.stderr


def test_profiler_records():
    x = torch.ones(1, 64, device="xpu")
    with torch.profiler.profile() as profile:
        functional.softmax(x + 1, -1)
    assert {"aten::add", "aten::softmax"} <= {event.name for event in profile.events()}


@pytest.mark.skipif(not no_driver, reason="this PyTorch was not built for a device that is not there")
@pytest.mark.parametrize(
    "attempt",
    [lambda x: (x * 2).sum().backward(), lambda x: x.detach().cpu().pin_memory()],
    ids=["backward", "pin_memory"],
)
def test_what_a_build_for_another_device_refuses(attempt):
    with pytest.raises(RuntimeError, match=r"CUDA|NVIDIA"):
        attempt(torch.ones(2, device="xpu", requires_grad=True))
