"""The XPU device on host memory: tensors, streams, the sharing fallback, the allocator, and `linear`."""

import collections
import os
import subprocess
import sys
import threading
import warnings

import corvane
import host_xpu
import pytest
import torch
from tensors import GUARDED
from torch.nn.functional import embedding, linear

FLOATING = [torch.float, torch.half, torch.bfloat16, torch.double]
# Unit roundoff: half the distance from 1 to the next value.
ROUNDOFF = {torch.float: 2.0**-24, torch.half: 2.0**-11, torch.bfloat16: 2.0**-8, torch.double: 2.0**-53}


def pair(*shape, dtype=torch.float):
    """The same random values on both devices, in memory of their own."""
    on_cpu = torch.randn(*shape).to(dtype) if dtype.is_floating_point else torch.randint(-9, 9, shape, dtype=dtype)
    return on_cpu, on_cpu.to("xpu")


def in_threads(work):
    workers = [threading.Thread(target=work) for _ in range(4)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()


def run_python(code, **environment):
    """Runs `code` in a process of its own and gives its output."""
    done = subprocess.run(
        [sys.executable, "-c", code], env={**os.environ, **environment}, capture_output=True, text=True, check=True
    )
    return done.stdout


# --- device, streams, records -----------------------------------------------------------------------------------------


def test_device_name_is_the_one_of_the_environment_at_load():
    code = "import os, host_xpu; os.environ['HOST_XPU_DEVICE_NAME'] = 'late'; print(host_xpu.device_name())"
    for name in ("Cirrus(TM) A770", ""):
        assert run_python(code, HOST_XPU_DEVICE_NAME=name) == name + "\n"
    unset = "import os; del os.environ['HOST_XPU_DEVICE_NAME']; import host_xpu; print(host_xpu.device_name())"
    assert run_python(unset, HOST_XPU_DEVICE_NAME="-").strip() not in ("", "-")  # the processor's


def test_current_stream_is_the_thread_s_own():
    first, second = host_xpu.Stream(), host_xpu.Stream()
    assert first != second and 0 not in (first.id, second.id)
    seen = []
    with host_xpu.stream(first):
        with host_xpu.stream(second):
            in_threads(lambda: seen.append(host_xpu.current_stream().id))
            assert host_xpu.current_stream() == second
        assert host_xpu.current_stream() == first
    assert host_xpu.current_stream().id == 0 and seen == [0] * 4
    with pytest.raises(KeyError), host_xpu.stream(first):
        raise KeyError
    assert host_xpu.current_stream().id == 0


def test_a_recorder_records_once_at_a_time():
    recorder = host_xpu.record_launches()
    with recorder as launches, pytest.raises(ValueError, match="already recording"):
        recorder.__enter__()
    assert isinstance(launches, collections.abc.Sequence) and len(launches) == 0 and launches == []
    host_xpu.synchronize()


def test_nested_recorders_see_the_launches_of_all_threads_and_stop_at_their_end():
    x, weight = torch.ones(1, 64, device="xpu"), torch.zeros(64 * 34, dtype=torch.uint8, device="xpu")

    def launch():
        for _ in range(20):
            corvane.forward_new(x, weight, 2, 64)

    with host_xpu.record_launches() as outer:
        launch()
        with host_xpu.record_launches() as inner:
            in_threads(launch)
        launch()
    launch()
    assert (len(outer), len(inner)) == (120, 80)
    assert {(r.kernel, r.source) for r in outer} == {("qlinear_xpu_kernel_q4_0_2x16", "linear_xpu_kernel")}
    last = outer[-1]
    assert last.label == "lumen_kernel" and last.duration_ns > 0 and last.queue == 0
    assert isinstance(last.global_size, tuple) and isinstance(last.waited, bool) and len(outer[:3]) == 3


# --- making tensors ---------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", [torch.half, torch.long, torch.bool, torch.cfloat], ids=str)
def test_factories_make_what_the_cpu_makes(dtype):
    makers = [
        lambda d: torch.zeros(3, 2, dtype=dtype, device=d),
        lambda d: torch.full((2, 2), 1, dtype=dtype, device=d),
        lambda d: torch.tensor([[0, 1], [1, 0]], dtype=dtype, device=d),
        lambda d: torch.empty_strided((2, 3), (1, 4), dtype=dtype, device=d).fill_(1),
        lambda d: (torch.manual_seed(5), torch.randn(7, device=d).to(dtype))[1],
    ]
    for make in makers:
        on_xpu, on_cpu = make("xpu"), make("cpu")
        assert on_xpu.device == torch.device("xpu", 0)
        assert on_xpu.dtype == dtype and on_xpu.stride() == on_cpu.stride()
        assert torch.equal(on_xpu.cpu(), on_cpu)


# --- copies -----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize(("source", "target"), [("cpu", "xpu"), ("xpu", "cpu"), ("xpu", "xpu")])
@pytest.mark.parametrize("to", [torch.float, torch.half, torch.long], ids=str)
@pytest.mark.parametrize("size", [5, 700])  # 700 x 700 elements are copied by all cores
def test_copies_convert_stride_and_broadcast(source, target, to, size):
    values = torch.randint(-99, 99, (size, size)).float()
    for cut in (lambda t: t, lambda t: t.t(), lambda t: t[:, ::2], lambda t: t[:1].expand(size, size)):
        expected = cut(values).to(to)
        result = torch.empty(expected.shape, dtype=to, device=target)
        assert result.copy_(cut(values.to(source))) is result
        assert torch.equal(result.cpu(), expected)
    assert values.to(source).to(target).data_ptr() != values.data_ptr()


def test_copies_of_conjugated_and_negated_views():
    on_cpu = torch.randn(4, dtype=torch.cfloat)
    on_xpu = on_cpu.to("xpu")
    assert torch.equal(on_xpu.conj().cpu(), on_cpu.conj())
    assert torch.equal(on_cpu.conj().to("xpu").cpu(), on_cpu.conj())
    assert torch.equal(on_xpu.conj().imag.clone().cpu(), on_cpu.conj().imag)


def test_operators_may_conjugate_their_output_lazily():
    on_cpu = torch.randn(3, 3, dtype=torch.cfloat)
    factors = torch.linalg.lu_factor(on_cpu)
    solved = torch.linalg.lu_solve(*(t.to("xpu") for t in factors), on_cpu.to("xpu"), left=False)
    assert torch.equal(solved.cpu(), torch.linalg.lu_solve(*factors, on_cpu, left=False))


# --- the fallback computes what the CPU computes, on every dtype ------------------------------------------------------

# One of each kind of call: numbers as operands, dtype arguments, lists of tensors, optional ones, several results,
# views of results, compositions that stand before the fallback.
OPERATIONS = {
    "scalar": lambda a, b: 2 * a - b,
    "softmax": lambda a, b: a.softmax(-1),
    "norm": lambda a, b: a * torch.rsqrt(a.pow(2).mean(-1, keepdim=True) + 1e-5),
    "layer_norm": lambda a, b: torch.nn.functional.layer_norm(a, a.shape[-1:]),
    "cat": lambda a, b: torch.cat([a, b], 1),
    "stack": lambda a, b: torch.stack([a, b]),
    "index": lambda a, b: a[torch.tensor([2, 0])],
    "mask": lambda a, b: a[b > 0],
    "embedding": lambda a, b: embedding(torch.tensor([[1, 0], [2, 2]], device=a.device), a),
    "sort": lambda a, b: a.sort(1).values,
    "conv1d": lambda a, b: torch.conv1d(a[None], b[None, :, :2]),
    "chunk": lambda a, b: a.chunk(2, 1)[1].clone(),
}


@pytest.mark.parametrize("dtype", FLOATING, ids=str)
@pytest.mark.parametrize("operation", OPERATIONS.values(), ids=OPERATIONS.keys())
def test_operators_agree_with_the_cpu(operation, dtype):
    a, a_xpu = pair(3, 8, dtype=dtype)
    b, b_xpu = pair(3, 8, dtype=dtype)
    result = operation(a_xpu, b_xpu)
    assert result.is_xpu
    exact = operation(a.double(), b.double())
    assert result.shape == exact.shape and result.dtype in (dtype, torch.float)
    # Every operation here is a few roundings and at most one sum of 8 terms (conv1d: 6), each term below 5 * 5 + 5.
    assert torch.allclose(result.cpu().double(), exact, rtol=8 * ROUNDOFF[dtype], atol=16 * 30 * ROUNDOFF[dtype])


def test_operators_without_a_half_kernel_compute_in_float_and_round_once():
    on_cpu, on_xpu = pair(4, 64, dtype=torch.half)
    wide = on_cpu.float()
    for _ in range(2):  # the first call finds out, the second knows
        assert torch.equal(on_xpu.softmax(1).cpu(), wide.softmax(1).half())
        assert torch.equal(on_xpu.softmax(1, dtype=torch.float).cpu(), wide.softmax(1))
        out = torch.empty(0, dtype=torch.half, device="xpu")
        assert torch.mm(on_xpu, on_xpu.t(), out=out) is out
        assert torch.equal(out.cpu(), (wide @ wide.t()).half())
        in_place = on_xpu.clone()
        assert in_place.sigmoid_() is in_place and torch.equal(in_place.cpu(), wide.sigmoid().half())


def test_printing_and_reading():
    on_cpu, on_xpu = pair(3, 4)
    assert "xpu:0" in repr(on_xpu) and repr(on_xpu.cpu()) == repr(on_cpu)
    assert on_xpu.tolist() == on_cpu.tolist() and on_xpu[1, 2].item() == on_cpu[1, 2].item()
    assert torch.allclose(on_xpu, on_xpu + 1e-9) and not torch.equal(on_xpu, on_xpu + 1)
    assert bool((on_xpu == on_xpu.clone()).all())


def test_gradients_flow_through_operators_and_linear():
    gradients = []
    for device in ("cpu", "xpu"):
        x, w = (torch.linspace(-1, 1, 4 * n).view(n, 4).to(device) for n in (3, 5))
        linear(x, w.requires_grad_()).tanh().sum().backward()
        gradients.append(w.grad.cpu())
    assert torch.allclose(*gradients, rtol=1e-5, atol=1e-5)


# --- memory is shared -------------------------------------------------------------------------------------------------

VIEWS = {
    "slice": lambda t: t[1:3, 2:],
    "as_strided": lambda t: t.as_strided((2, 2), (1, 3), 5),
    "transpose": lambda t: t.t(),
    "expand": lambda t: t[:1].expand(3, 8),
    "unfold": lambda t: t.unfold(1, 2, 1),
    "split": lambda t: t.split(3, 1)[1],
    "bytes": lambda t: t.view(torch.int32),
    "complex": lambda t: torch.view_as_complex(t.view(4, 4, 2)),
    "contiguous": lambda t: t.contiguous(),
}


@pytest.mark.parametrize("view", VIEWS.values(), ids=VIEWS.keys())
def test_views_share_storage(view):
    on_cpu, on_xpu = pair(4, 8)
    of_cpu, of_xpu = view(on_cpu), view(on_xpu)
    assert of_xpu.data_ptr() - on_xpu.data_ptr() == of_cpu.data_ptr() - on_cpu.data_ptr()
    assert of_xpu.storage().data_ptr() == on_xpu.storage().data_ptr() and of_xpu.stride() == of_cpu.stride()
    of_xpu.zero_()
    of_cpu.zero_()
    assert torch.equal(on_xpu.cpu(), on_cpu)


IN_PLACE = {
    "add_": lambda t: t.add_(1),
    "clamp_": lambda t: t.clamp_(-0.5, 0.5),
    "mul_ by itself": lambda t: t.mul_(t),
    "index_put_": lambda t: t.index_put_((torch.tensor([0, 2]),), torch.tensor(7.0, dtype=t.dtype)),
    "copy_": lambda t: t.copy_(t.flip(0)),
    "addmm_": lambda t: t[:3, :3].addmm_(t[:3, 3:6], t[:3, :3].clone()),
    "t_": lambda t: t.t_(),
    "resize_": lambda t: t.resize_(2, 3),
}


@pytest.mark.parametrize("dtype", FLOATING, ids=str)
@pytest.mark.parametrize("operation", IN_PLACE.values(), ids=IN_PLACE.keys())
def test_in_place_operators_write_the_same_memory(operation, dtype):
    on_cpu, on_xpu = pair(4, 8, dtype=dtype)
    memory, whole = on_xpu.data_ptr(), on_xpu.view(-1)
    exact = on_cpu.double()
    operation(exact)
    result = operation(on_xpu)
    assert result.data_ptr() == memory and result.is_xpu
    assert on_xpu.shape == exact.shape and on_xpu.stride() == exact.stride()
    assert torch.allclose(on_xpu.cpu().double(), exact, rtol=8 * ROUNDOFF[dtype], atol=16 * 30 * ROUNDOFF[dtype])
    assert torch.equal(whole[: on_xpu.numel()].cpu(), on_xpu.as_strided((on_xpu.numel(),), (1,)).cpu())


def test_slices_are_assigned_through():
    on_cpu, on_xpu = pair(4, 8)
    for t in (on_cpu, on_xpu):
        t[1:3, ::2] = 5
        t[:, 1] = torch.arange(4.0).to(t.device)
        t[torch.tensor([0, 3], device=t.device), 2:4] += 1
        t[t > 4] = 0.25
    assert torch.equal(on_xpu.cpu(), on_cpu)


def test_in_place_results_are_the_tensor_object_itself():
    x, out = torch.randn(4, device="xpu"), torch.empty(4, device="xpu")
    assert x.add_(1) is x and x.sin_() is x and torch.add(x, x, out=out) is out


@pytest.mark.parametrize("dtype", [torch.float, torch.half], ids=str)
def test_out_tensors_are_resized_and_keep_their_views_storage(dtype):
    on_cpu, on_xpu = pair(5, 6, dtype=dtype)
    for start in (0, 1, 100):
        out = torch.empty(start, dtype=dtype, device="xpu")
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")  # resizing a tensor with elements is deprecated, and works
            torch.mm(on_xpu, on_xpu.t(), out=out)
            assert torch.allclose(out.cpu().float(), on_cpu.float() @ on_cpu.float().t(), rtol=2e-3, atol=1e-4)
            torch.cat([on_xpu, on_xpu], out=out)
        assert torch.equal(out.cpu(), torch.cat([on_cpu, on_cpu]))
        assert out.is_xpu and out.storage().nbytes() >= out.numel() * out.element_size()


def test_resize_and_set_move_between_storages():
    x = torch.arange(6.0, device="xpu")
    view = x[2:]
    x.resize_(50_000)  # the storage grows elsewhere and its views go with it
    assert view.tolist() == [2, 3, 4, 5] and x[:6].tolist() == [0, 1, 2, 3, 4, 5]
    assert view.data_ptr() == x.data_ptr() + 8
    y = torch.empty(0, device="xpu").set_(x)
    assert y.data_ptr() == x.data_ptr()
    z = torch.empty(0, device="xpu").set_(x.storage(), 1, (2,), (2,))
    assert z.tolist() == [1, 3]


def test_results_outlive_what_they_came_from():
    kept = [torch.randn(1000, device="xpu").sort().values.unfold(0, 10, 10) for _ in range(20)]
    assert all(bool((rows[:, 1:] >= rows[:, :-1]).all()) for rows in kept)


# --- two devices in one operator --------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "operation",
    [
        lambda c, x: c + x,
        lambda c, x: x.add_(c),
        lambda c, x: c.add_(x),
        lambda c, x: torch.cat([x, c]),
        lambda c, x: linear(x, c),
        lambda c, x: linear(c, x),
        lambda c, x: torch.add(x, 1, out=c),
        lambda c, x: torch.where(c > 0, x, x),
        lambda c, x: c[0, 0].add_(x[0, 0]),
        lambda c, x: embedding(c.long() * 0, x),
        lambda c, x: x.set_(c),
    ],
)
def test_tensors_of_two_devices_are_refused(operation):
    on_cpu, on_xpu = pair(4, 4)
    with pytest.raises(RuntimeError, match="same device|different device"):
        operation(on_cpu, on_xpu)


def test_numbers_and_indices_may_be_on_the_cpu():
    x = torch.arange(4.0, device="xpu")
    assert (x + torch.tensor(1.0)).tolist() == [1, 2, 3, 4] and (torch.tensor(2.0) * x).is_xpu
    assert x[torch.tensor([3, 1])].tolist() == [3, 1]
    x[torch.tensor([0])] = 9
    assert x[0] == 9


# --- refusals and odd inputs ------------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("attempt", "text"),
    [
        (lambda: torch.empty(1 << 60, device="xpu"), "XPU out of memory"),
        (lambda: torch.empty(2**62, 4, device="xpu"), "overflow"),
        (lambda: torch.empty(-1, device="xpu"), "negative"),
        (lambda: torch.empty(1, device="xpu:1"), "does not exist"),
        (lambda: torch.empty(1, device="xpu").resize_(1 << 60), "XPU out of memory"),
        (lambda: torch.ones(2, device="xpu").to_sparse(), "dense tensors only"),
        (lambda: torch.sparse_coo_tensor([[0]], [1.0], (2,), device="xpu"), "SparseXPU"),
        (lambda: torch.quantize_per_tensor(torch.ones(2, device="xpu"), 0.1, 0, torch.quint8), "dense tensors only"),
        (lambda: torch.ones(2, device="xpu").as_strided((4,), (1,), 9), "out of bounds"),
        (lambda: torch.ones(2, device="xpu")[torch.tensor([9])], "out of bounds"),
        (lambda: linear(torch.ones(2, 3, device="xpu"), torch.ones(2, 4, device="xpu")), "shapes cannot be multiplied"),
        (lambda: linear(torch.ones(2, 3, device="xpu"), torch.ones(2, 3, device="xpu").half()), "scalar type"),
        (lambda: torch.ones(2, device="xpu").pin_memory(), "pin"),
    ],
)
def test_refusals_are_exceptions(attempt, text):
    with pytest.raises((RuntimeError, ValueError, IndexError, NotImplementedError), match=text):
        attempt()


def test_threads_share_the_device():
    base = torch.randn(64, 64, device="xpu")
    expected, failures = (base @ base).cpu(), []

    def work():
        for _ in range(50):
            if not torch.equal((base.clone() @ base).cpu(), expected):
                failures.append("product")

    in_threads(work)
    assert not failures


# --- allocator --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("count", [1, 16, 17, 100, 1000, 12_345, 1 << 19, (1 << 20) + 3])
def test_blocks_are_aligned_and_hold_what_was_asked_for(count):
    tensors = [torch.full((count,), float(i), device="xpu") for i in range(5)]
    assert all(t.data_ptr() % 64 == 0 for t in tensors)
    assert all(bool((t == i).all()) for i, t in enumerate(tensors))
    if count >= 1 << 19 and not GUARDED:
        assert all(t.data_ptr() % (2 << 20) == 0 for t in tensors)


@pytest.mark.skipif(not GUARDED, reason="needs the address sanitizer")
def test_an_overrun_by_one_byte_is_caught():
    code = "import ctypes, torch, host_xpu; t = torch.empty(13, dtype=torch.uint8, device='xpu'); "
    run_python(code + "ctypes.memset(t.data_ptr(), 0, 13)")
    with pytest.raises(subprocess.CalledProcessError) as failure:
        run_python(code + "ctypes.memset(t.data_ptr(), 0, 14)")
    assert "heap-buffer-overflow" in failure.value.stderr


@pytest.mark.skipif(GUARDED, reason="the guarded allocator keeps no blocks")
@pytest.mark.parametrize("count", [10, 5000, 3_000_000])
def test_freed_blocks_are_used_again(count):
    first = torch.empty(count, device="xpu")
    memory = first.data_ptr()
    del first
    assert torch.empty(count, device="xpu").data_ptr() == memory
    assert torch.empty(0, device="xpu").data_ptr() == 0


# --- linear -----------------------------------------------------------------------------------------------------------

SHAPES = [(1, 1, 1), (3, 7, 5), (2, 64, 64), (5, 33, 130), (16, 300, 513), (17, 64, 100), (129, 96, 257), (300, 130, 40)]


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
