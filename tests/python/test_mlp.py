"""mlp_forward_xpu: results, launches, its profiler record, and what is refused."""

import corvane
import host_xpu
import numpy as np
import pytest
import torch
from reference import fused, geometry
from reference.linear import random_input
from reference.random_weights import blank_weight, random_weight
from reference.registry import FORMATS
from tensors import DTYPES, assert_close, assert_launches, bytes_behind, on_device, refusal, to

BLOCK_FORMATS = ["q4_0", "fp4", "fp8_e5m2", "fp6"]
SILU, TANH = 0, 1


def formats(device_class):
    return BLOCK_FORMATS + ["iq2_xxs"] * (device_class in (0, 5))


def run(name, n, k, dtype, form, cls=None, seed=0):
    first, second = (random_weight(name, n, k, seed + m, stored_scales=True) for m in range(2))
    x = random_input(1, k, dtype, seed)
    qtype = FORMATS[name].qtype
    with host_xpu.record_launches() as records:
        y = corvane.mlp_forward_xpu(on_device(x, dtype), on_device(first), on_device(second), 1, k, n, form, qtype)
    assert y.shape == (1, n) and y.dtype == DTYPES[dtype] and y.device.type == "xpu"
    expected, bound = fused.gated_mlp(x, first, second, name, n, k, form, dtype)
    assert_close(y[0], expected, bound, f"{name} {dtype} n {n} k {k} form {form}")
    if cls is not None:
        assert_launches(records, geometry.mlp(cls, qtype, n, k))
        assert not any(record.waited for record in records)


@pytest.mark.parametrize("form", [SILU, TANH])
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", [*BLOCK_FORMATS, "iq2_xxs"])
@pytest.mark.parametrize(("n", "blocks"), [(8, 1), (24, 3), (40, 17)])
def test_gated_mlp(name, n, blocks, dtype, form, device_class):
    if name not in formats(device_class):
        pytest.skip("no kernel on this class")
    run(name, n, blocks * FORMATS[name].block_elements, dtype, form, device_class)


@pytest.mark.parametrize("n", [1, 5, 13, 31])
def test_the_last_group_is_right_when_rows_are_left_over(n, device_class):
    for name in formats(device_class):
        for form in (SILU, TANH):
            run(name, n, 256, "float", form, device_class, seed=n)


def test_nothing_is_written_behind_the_result(device_class):
    for name in formats(device_class):
        call = Call(name, n=5, k=256)
        assert bytes_behind(5 * 4, call.run) == {0xA5}, name


def test_a_layer_of_a_model(device_class):
    for name in formats(device_class):
        run(name, 512, 4096, "half", SILU, seed=1)


def test_no_outputs():
    none = torch.zeros(0, dtype=torch.uint8, device="xpu")
    assert corvane.mlp_forward_xpu(torch.ones(1, 64, device="xpu"), none, none, 1, 64, 0, 0, 2).shape == (1, 0)


@pytest.mark.parametrize("shape", [(64,), (1, 1, 64)])
def test_any_shape_of_one_row(shape):
    data = on_device(random_weight("q4_0", 8, 64, 0))
    x = on_device(random_input(1, 64, "float", 0))
    expected = corvane.mlp_forward_xpu(x, data, data, 1, 64, 8, 0, 2)
    assert torch.equal(corvane.mlp_forward_xpu(x.view(shape), data, data, 1, 64, 8, 0, 2).cpu(), expected.cpu())


def test_a_longer_weight_is_located_by_the_sizes_of_the_call():
    data, x = random_weight("q4_0", 8, 64, 0), random_input(1, 64, "float", 0)
    longer = on_device(np.concatenate([data, np.full(100, 255, dtype=np.uint8)]))
    expected, bound = fused.gated_mlp(x, data, data, "q4_0", 8, 64, 0, "float")
    assert_close(corvane.mlp_forward_xpu(on_device(x), longer, longer, 1, 64, 8, 0, 2)[0], expected, bound)


# --- the activation, by hand -----------------------------------------------------------------------------------------


def gate(g, u, dtype, form=SILU, scale=1.0):
    """One output whose first product is scale * g and whose second is scale * u: q4_0 rows that pick one element."""
    weights = []
    for element in range(2):
        data, (codes, _) = blank_weight("q4_0", scale)
        codes[:] = 0x88  # the code of 0
        codes[0, element] = 0x89  # of 1, in the low nibble
        weights.append(on_device(data))
    x = torch.zeros(1, 64, dtype=torch.double)
    x[0, 0], x[0, 1] = g, u
    return corvane.mlp_forward_xpu(x.to(DTYPES[dtype]).to("xpu"), *weights, 1, 64, 1, form, 2).item()


def test_values_of_the_two_forms():
    assert gate(1.0, 2.0, "double", SILU) == pytest.approx(2 * 0.7310585786300049, rel=1e-6)
    assert gate(1.0, 2.0, "double", TANH) == pytest.approx(2 * 0.8411919906, rel=1e-6)
    assert gate(-3.0, 1.0, "float", TANH) == pytest.approx(-0.00363739, rel=3e-4)  # 1 + tanh cancels
    assert gate(30.0, 1.0, "float", SILU) == gate(30.0, 1.0, "float", TANH) == 30.0


@pytest.mark.parametrize("form", [7, -1, 2, 2**32, 2**62])
def test_any_number_but_zero_is_the_tanh_form(form):
    assert gate(1.0, 1.0, "float", form) == gate(1.0, 1.0, "float", TANH) != gate(1.0, 1.0, "float", SILU)


@pytest.mark.parametrize("form", [SILU, TANH])
def test_double_keeps_the_second_product_and_not_the_activation(form):
    fine = 1 + 2.0**-40
    assert gate(50.0, fine, "double", form) == 50.0 * fine
    assert gate(50.0 * fine, 1.0, "double", form) == 50.0


def test_half_products_overflow_before_the_activation():
    assert gate(60000.0, 1.0, "half", scale=2.0) == float("inf")
    assert gate(60000.0, 1.0, "float", scale=2.0) == 240000.0
    for form in (SILU, TANH):  # minus infinity times a factor of zero
        assert np.isnan(gate(-60000.0, 1.0, "half", form, scale=2.0))


# --- record and refusals ---------------------------------------------------------------------------------------------


class Call:
    """The arguments of a call that works, to be spoilt."""

    def __init__(self, name="q4_0", n=16, k=64):
        self.input = on_device(random_input(1, k, "float", 0))
        self.first, self.second = (on_device(random_weight(name, n, k, m)) for m in range(2))
        self.batch_size, self.state_size, self.output_size, self.activation = 1, k, n, 0
        self.qtype = FORMATS[name].qtype

    def run(self):
        return corvane.mlp_forward_xpu(self.input, self.first, self.second, self.batch_size, self.state_size,
                                       self.output_size, self.activation, self.qtype)  # fmt: skip


SPOILT = [
    *[(to(qtype=q), "does not name a weight format") for q in (-1, 9, 2**31 - 1)],
    *[
        (to(qtype=FORMATS[name].qtype), "no kernel for qtype")
        for name in FORMATS
        if name not in (*BLOCK_FORMATS, "iq2_xxs")
    ],
    *[(to(batch_size=b), "batch_size == 1") for b in (0, 2, 2**32 + 1)],
    (to(batch_size=2, input=lambda t: t.int(), output_size=-1), "batch_size == 1"),
    (to(state_size=-64), "state_size must be at least 1, found -64"),
    (to(output_size=-2), "output_size must not be negative, found -2"),
    *[(to(output_size=n), "fewer than 2147483648 elements") for n in (2**25, 2**62, 2**63 - 1)],
    (to(state_size=2**62), "fewer than 2147483648 elements"),
    (to(input=lambda t: t.int()), "\"mlp_forward_q4_0_xpu_t\" not implemented for 'Int'"),
    (to(input=lambda t: t.int(), state_size=24), "not implemented for"),
    (to(state_size=24), "24 must be a multiple of 16"),
    (to(state_size=80), "state_size 80 must be a multiple of 64"),
    (to(state_size=128), "first weight must hold 1088 bytes of q4_0, found 544"),
    (to(output_size=17), "first weight must hold 578 bytes of q4_0, found 544"),
    (to(second=lambda t: t[:-1]), "second weight must hold 544 bytes of q4_0, found 543"),
    (to(first=lambda t: t.float()), "first weight must be unsigned bytes, found Float"),
    (to(first=lambda t: t.cpu()), "first weight must be a XPU tensor"),
    (to(second=lambda t: t.cpu()), "second weight must be on xpu:0, found on cpu"),
    (to(second=lambda t: torch.cat([t, t])[::2]), "second weight must be contiguous"),
    (to(input=lambda t: t.cpu()), "input must be on xpu:0, found on cpu"),
    (to(input=lambda t: torch.cat([t, t]).t().contiguous().t()[:1]), "input must be contiguous"),
    (to(input=lambda t: torch.cat([t, t])), "input must be one row of 64 elements, found 128 elements in rows of 64"),
    (to(input=lambda t: t.view(2, 32)), "input must be one row of 64 elements, found 64 elements in rows of 32"),
    (to(input=lambda t: t[0, 0].clone()), "input must be one row of 64 elements, found 1 elements"),
]


@pytest.mark.parametrize(("spoil", "message"), SPOILT, ids=[f"{i}-{text}" for i, (_, text) in enumerate(SPOILT)])
def test_refusals(spoil, message):
    call = Call()
    spoil(call)
    assert message in refusal(call.run)


def test_iq2_xxs_has_a_kernel_on_two_classes_alone(device_class):
    call = Call("iq2_xxs", k=256)
    if device_class in (0, 5):
        call.run()
        call.state_size = 128
        assert "state_size 128 must be a multiple of 256" in refusal(call.run)
    else:
        assert f"no kernel for qtype 21 (iq2_xxs) on device class {device_class}" in refusal(call.run)


@pytest.mark.parametrize(
    ("name", "label", "wrong_size", "multiple"),
    [
        ("fp4", "mlp_forward_fp4_xpu_t", 24, 16),
        ("fp8_e5m2", "mlp_forward_fp8_e5m2_xpu_t", 20, 8),
        ("fp6", "mlp_forward_fp6_xpu_t", 24, 16),
        ("iq2_xxs", "mlp_forward_iq2_xxs_xpu", None, None),
    ],
)
def test_labels_and_steps_of_the_other_formats(name, label, wrong_size, multiple, device_class):
    if name not in formats(device_class):
        pytest.skip("no kernel on this class")
    call = Call(name, k=256)
    call.input = call.input.long()
    assert f"\"{label}\" not implemented for 'Long'" in refusal(call.run)
    if wrong_size is not None:
        call = Call(name, k=256)
        call.state_size = wrong_size
        assert f"{wrong_size} must be a multiple of {multiple}" in refusal(call.run)


@pytest.mark.parametrize("spoil", [to(), to(qtype=9)])
def test_the_record_is_opened_before_anything_is_checked(spoil):
    call = Call()
    spoil(call)
    with torch.autograd.profiler.profile(record_shapes=True) as profile:
        try:
            call.run()
        except RuntimeError:
            pass
    records = [event for event in profile.function_events if event.name == "mlp_forward"]
    assert [event.input_shapes for event in records] == [[[1, 64]]]
