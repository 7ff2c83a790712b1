"""The framework's operators on the XPU device: factories, copies, the fallback and the memory that it shares."""

import warnings

import pytest
import torch
from tensors import FLOATING, ROUNDOFF, pair
from torch.nn.functional import embedding, linear

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


@pytest.mark.skipif(
    torch.version.cuda is not None and not torch.cuda.is_available(),
    reason="backward of a PyTorch built with CUDA asks its driver for streams, and there is none",
)
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


@pytest.mark.parametrize("dtype", [torch.int, torch.int64, torch.float])
def test_histograms_count_integers_too(dtype):
    found = torch.histc(torch.tensor([0, 1, 1, 3, 9]).to("xpu").to(dtype), bins=4, min=0, max=3)
    assert found.dtype == dtype and found.tolist() == [1, 2, 0, 1]
