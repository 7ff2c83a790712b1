"""RWKV attention v4 and v5 and the time shift."""

import corvane
import host_xpu
import numpy as np
import pytest
import torch
from reference import rwkv
from tensors import assert_close, refusal

FLOATS = {torch.float: "float", torch.half: "half"}
V4_NAMES = ("time_decay", "time_first", "key", "value", "num_state", "den_state", "max_state")
V5_NAMES = ("time_decay", "time_first", "receptance", "key", "value", "state")
SHIFT_NAMES = ("hidden", "shifted", "mix")


def v4_arguments(batch, tokens, hidden, dtype=torch.float, seed=0):
    """Keys spread over many powers of e, decays that differ by channel, and a state that has seen tokens."""
    g = torch.Generator().manual_seed(seed)
    tokens_of = [3 * torch.randn(batch, tokens, hidden, generator=g), torch.randn(batch, tokens, hidden, generator=g)]
    channels = [-3 * torch.rand(hidden, generator=g), torch.randn(hidden, generator=g)]
    states = [torch.randn(batch, hidden, generator=g) for _ in range(3)]
    states[1] = states[1].abs() + 0.1
    return [t.to(dtype).to("xpu") for t in channels + tokens_of] + [t.to("xpu") for t in states]


def v5_arguments(batch, heads, tokens, seed=0):
    """Tokens as a model has them, (batch, tokens, heads, 64) with the two middle axes exchanged by strides."""
    g = torch.Generator().manual_seed(seed)
    channels = [torch.rand(heads, 64, generator=g), torch.randn(heads, 64, generator=g)]
    tokens_of = [torch.randn(batch, tokens, heads, 64, generator=g) for _ in range(3)]
    state = torch.randn(batch, heads, 64, 64, generator=g)
    return [t.to("xpu") for t in channels] + [t.to("xpu").transpose(1, 2) for t in tokens_of] + [state.to("xpu")]


def shift_arguments(batch, tokens, hidden, mixes, dtype=torch.float, seed=0):
    g = torch.Generator().manual_seed(seed)
    shapes = [(batch, tokens, hidden), (batch, tokens, hidden), (mixes, 1, hidden)]
    return [torch.randn(*shape, generator=g).to(dtype).to("xpu") for shape in shapes]


def arrays(tensors):
    return [t.cpu().float().numpy() for t in tensors]


# --- version 4 ---------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", FLOATS)
@pytest.mark.parametrize("shape", [(1, 1, 32), (2, 7, 96), (3, 40, 64)], ids=str)
def test_v4(shape, dtype):
    arguments = v4_arguments(*shape, dtype)
    expected, tolerance, states, state_tolerances = rwkv.attention_v4(*arrays(arguments), FLOATS[dtype])
    result = corvane.rwkv_linear_attention_v4(*arguments)
    assert (result.shape, result.dtype, result.device.type) == (shape, dtype, "xpu")
    assert_close(result, expected, tolerance)
    for state, wanted, bound in zip(arguments[4:], states, state_tolerances):
        assert_close(state, wanted, bound)


def test_v4_first_tokens_by_hand():
    # Nothing seen: the output is the value. Then num = 6 and den = 1 at the exponent 0, decayed by ln 2 to a half, and
    # the second token counts three times (time_first = ln 3) for the output, once for the state.
    channels = [torch.full((32,), -np.log(2.0)), torch.full((32,), np.log(3.0))]
    key, value = torch.zeros(1, 2, 32), torch.tensor([6.0, 2.0]).view(1, 2, 1).expand(1, 2, 32).contiguous()
    states = [torch.zeros(1, 32), torch.zeros(1, 32), torch.full((1, 32), -1e38)]
    arguments = [t.float().to("xpu") for t in (*channels, key, value, *states)]
    result = corvane.rwkv_linear_attention_v4(*arguments).cpu()
    assert result[0, 0].unique().tolist() == [6.0]
    np.testing.assert_allclose(result[0, 1], (6 + 3 * 2) / (1 + 3), rtol=1e-6)
    for state, wanted in zip(arguments[4:], (6 / 2 + 2, 1 / 2 + 1, 0)):
        np.testing.assert_allclose(state.cpu(), wanted, rtol=1e-6)


def test_v4_key_far_above_the_maximum():
    arguments = v4_arguments(1, 1, 32)
    arguments[2].fill_(500.0)
    assert torch.equal(corvane.rwkv_linear_attention_v4(*arguments), arguments[3])
    assert torch.equal(arguments[4], arguments[3][:, 0])  # what came before has underflowed


def test_v4_maximum_ignores_a_not_a_number():
    arguments = v4_arguments(1, 1, 32)
    arguments[6][0, 5] = float("nan")
    others = [channel for channel in range(32) if channel != 5]
    result = corvane.rwkv_linear_attention_v4(*arguments)
    assert torch.equal(arguments[6][0, 5], arguments[2][0, 0, 5])
    assert result[0, 0, 5].isnan() and not result[0, 0, others].isnan().any()


# --- version 5 ---------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("shape", [(1, 1, 1), (2, 3, 17)], ids=str)
@pytest.mark.parametrize("dense", [True, False], ids=["dense", "exchanged axes"])
def test_v5(shape, dense):
    arguments = v5_arguments(*shape)
    if dense:
        arguments[2:5] = [t.contiguous() for t in arguments[2:5]]
    expected, tolerance, state, state_tolerance = rwkv.attention_v5(*arrays(arguments))
    result = corvane.rwkv_linear_attention_v5(*arguments)
    batch, heads, tokens = shape
    assert result.shape == (batch, tokens, heads, 64) and result.is_contiguous()
    assert_close(result, expected, tolerance)
    assert_close(arguments[5], state, state_tolerance)


def test_v5_reads_all_tokens_with_the_strides_of_key():
    arguments = v5_arguments(2, 3, 4)
    receptance = torch.randn(2, 3, 4, 64).to("xpu")  # dense, unlike key
    as_read = receptance.as_strided(receptance.shape, arguments[3].stride())
    expected = corvane.rwkv_linear_attention_v5(*arguments[:2], as_read, *arguments[3:5], arguments[5].clone())
    found = corvane.rwkv_linear_attention_v5(*arguments[:2], receptance, *arguments[3:])
    assert torch.equal(found, expected)


# --- time shift --------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", FLOATS)
@pytest.mark.parametrize("shape", [(1, 1, 64, 1), (2, 5, 192, 3)], ids=str)
def test_time_shift(shape, dtype):
    arguments = shift_arguments(*shape, dtype)
    hidden, shifted, mix = (t.cpu().numpy() for t in arguments)
    result = corvane.rwkv_time_shift(*arguments)
    expected = rwkv.time_shift(hidden, shifted, mix, FLOATS[dtype])
    if dtype == torch.half:  # each operation rounds: there is no freedom
        assert torch.equal(result.cpu(), torch.from_numpy(expected))
    else:  # a fused multiply-add spares the rounding of the product
        product = np.abs(mix.reshape(-1, 1, 1, shape[2]) * (hidden - shifted))
        assert_close(result, expected, 2.0**-24 * product + 2.0**-23 * np.abs(expected))


def test_time_shift_by_hand():
    # In Half 0.1 - 2048 rounds to -2048, so the full blend of the two is 0, not 0.1; a mix of 0 leaves 2048.
    hidden, shifted = torch.full((1, 1, 64), 0.1), torch.full((1, 1, 64), 2048.0)
    mix = torch.tensor([1.0, 0.0]).view(2, 1, 1).expand(2, 1, 64)
    result = corvane.rwkv_time_shift(*(t.half().contiguous().to("xpu") for t in (hidden, shifted, mix)))
    assert [plane.float().unique().tolist() for plane in result.cpu()] == [[0.0], [2048.0]]


# --- launches, empty calls ---------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("operator", "arguments", "kernel", "sizes", "sub_group"),
    [
        ("rwkv_linear_attention_v4", v4_arguments(2, 3, 96), "rwkv_linear_attention_kernel_v4", [(2, 96), (1, 32)], 16),
        (
            "rwkv_linear_attention_v5",
            v5_arguments(2, 3, 4),
            "rwkv_linear_attention_kernel_v5",
            [(2, 3, 64), (1, 1, 32)],
            16,
        ),
        ("rwkv_time_shift", shift_arguments(2, 3, 128, 4), "rwkv_time_shift_kernel", [(2, 3, 128), (1, 1, 64)], 32),
    ],
    ids=["v4", "v5", "time_shift"],
)
def test_launch(operator, arguments, kernel, sizes, sub_group):
    with host_xpu.record_launches() as launches:
        getattr(corvane, operator)(*arguments)
    (launch,) = launches
    assert (launch.kernel, launch.source, launch.label) == (kernel, "rwkv", "lumen_kernel")
    assert [launch.global_size, launch.local_size] == sizes
    assert (launch.sub_group_size, launch.waited) == (sub_group, False)


@pytest.mark.parametrize(
    ("operator", "arguments", "shape", "states"),
    [("v4", v4_arguments(*sizes), sizes, 3) for sizes in ((2, 0, 64), (0, 3, 64), (2, 3, 0))]
    + [("v5", v5_arguments(2, heads, tokens), (2, tokens, heads, 64), 1) for heads, tokens in ((3, 0), (0, 3))],
)
def test_attention_without_tokens(operator, arguments, shape, states):
    before = [t.clone() for t in arguments]
    assert getattr(corvane, f"rwkv_linear_attention_{operator}")(*arguments).shape == shape
    assert all(torch.equal(*pair) for pair in list(zip(arguments, before))[-states:])


@pytest.mark.parametrize(("tokens", "mixes"), [(3, 0), (0, 2)])
def test_time_shift_without_tokens(tokens, mixes):
    assert corvane.rwkv_time_shift(*shift_arguments(2, tokens, 64, mixes)).shape == (mixes, 2, tokens, 64)


# --- refusals ----------------------------------------------------------------------------------------------------

ONLY_FLOAT = "unsupported dtype, only fp32 and fp16 are supported"


def zeros(*shape, dtype=torch.float):
    return torch.zeros(*shape, dtype=dtype, device="xpu")


V4_REFUSALS = [  # arguments put in place of good ones for B = 2, S = 3, H = 64, and the text
    ({"time_first": zeros(1, 64)}, "time_decay.dim() == 1 && time_first.dim() == 1"),
    ({"value": zeros(3, 64)}, "key.dim() == 3 && value.dim() == 3"),
    ({"den_state": zeros(64)}, "num_state.dim() == 2 && den_state.dim() == 2 && max_state.dim() == 2"),
    (
        {"key": zeros(2, 3, 64, dtype=torch.half), "max_state": zeros(2, 64, dtype=torch.half)},
        "time_decay.scalar_type() == key.scalar_type() && time_first.scalar_type() == key.scalar_type()",
    ),
    ({name: zeros(48).double() for name in V4_NAMES[:2]} | {"key": zeros(2, 3, 48).double()}, ONLY_FLOAT),
    ({"num_state": zeros(2, 64, dtype=torch.half)}, "expected scalar type Float but found Half"),
    ({"value": zeros(2, 3, 64, dtype=torch.half)}, "expected scalar type Float but found Half"),
    ({"key": torch.zeros(2, 3, 48)}, "hidden_size % GS == 0"),  # before the device is asked for
    ({"key": torch.zeros(2, 3, 64)}, "key must be a XPU tensor"),
    ({"max_state": torch.zeros(2, 64)}, "max_state must be a XPU tensor"),
    ({"time_decay": zeros(32)}, "time_decay must have the sizes [64], found [32]"),
    ({"value": zeros(2, 2, 64)}, "value must have the sizes [2, 3, 64], found [2, 2, 64]"),
    ({"den_state": zeros(1, 64)}, "den_state must have the sizes [2, 64], found [1, 64]"),
    ({"num_state": zeros(1, 64).expand(2, 64)}, "num_state must be contiguous"),
    ({"value": zeros(3, 2, 64).transpose(0, 1)}, "value must be contiguous"),
]
V5_REFUSALS = [  # B = 2, N = 3, S = 4
    ({"time_decay": zeros(192)}, "time_decay.dim() == 2 && time_first.dim() == 2"),
    ({"state": zeros(2, 3, 4096)}, "receptance.dim() == 4 && key.dim() == 4 && value.dim() == 4 && state.dim() == 4"),
    (
        {"state": zeros(2, 3, 64, 64).mT},
        "time_decay.is_contiguous() && time_first.is_contiguous() && state.is_contiguous()",
    ),
    ({"key": zeros(2, 3, 4, 32)}, "head_dim == 64"),
    ({"value": zeros(2, 4, 3, 64, dtype=torch.half).transpose(1, 2)}, "expected scalar type Float but found Half"),
    ({"time_first": zeros(4, 64)}, "time_first must have the sizes [3, 64], found [4, 64]"),
    ({"receptance": torch.zeros(2, 3, 4, 64)}, "receptance must be a XPU tensor"),
    (
        {"receptance": zeros(1, 3, 4, 64).expand(2, 3, 4, 64)},  # key's strides lead behind it
        "receptance must have the strides of key, [768, 64, 192, 1], found [0, 256, 64, 1]",
    ),
    ({"value": zeros(2, 3, 5, 64)}, "value must have the sizes [2, 3, 4, 64], found [2, 3, 5, 64]"),
    ({"key": zeros(2, 3, 64, 4).transpose(2, 3)}, "key must be dense along its last axis, found the stride 4"),
    ({"state": zeros(2, 2, 64, 64)}, "state must have the sizes [2, 3, 64, 64], found [2, 2, 64, 64]"),
]
SHIFT_REFUSALS = [  # B = 2, S = 3, H = 128, M = 2
    ({"mix": zeros(2, 128)}, "hidden.dim() == 3 && shifted.dim() == 3 && mix.dim() == 3"),
    ({"mix": zeros(2, 1, 64)}, "hidden.size(2) == shifted.size(2) && hidden.size(2) == mix.size(2)"),
    (
        {"hidden": zeros(3, 2, 128).transpose(0, 1)},
        "hidden.is_contiguous() && shifted.is_contiguous() && mix.is_contiguous()",
    ),
    (
        {"mix": zeros(2, 1, 128, dtype=torch.half)},
        "hidden.scalar_type() == shifted.scalar_type() && hidden.scalar_type() == mix.scalar_type()",
    ),
    ({name: zeros(2, 3, 96).double() for name in SHIFT_NAMES[:2]} | {"mix": zeros(2, 1, 96).double()}, ONLY_FLOAT),
    ({"hidden": zeros(2, 3, 96), "shifted": torch.zeros(2, 2, 96), "mix": zeros(2, 1, 96)}, "hidden_size % GS == 0"),
    ({"hidden": torch.zeros(2, 3, 128)}, "hidden must be a XPU tensor"),
    ({"shifted": zeros(2, 2, 128)}, "shifted must have the sizes [2, 3, 128], found [2, 2, 128]"),
    ({"mix": zeros(2, 2, 128)}, "mix must have the sizes [2, 1, 128], found [2, 2, 128]"),
]
REFUSALS = [
    pytest.param(operator, names, make, changes, text, id=f"{operator}: {text[:60]}")
    for operator, names, make, refusals in (
        ("rwkv_linear_attention_v4", V4_NAMES, lambda: v4_arguments(2, 3, 64), V4_REFUSALS),
        ("rwkv_linear_attention_v5", V5_NAMES, lambda: v5_arguments(2, 3, 4), V5_REFUSALS),
        ("rwkv_time_shift", SHIFT_NAMES, lambda: shift_arguments(2, 3, 128, 2), SHIFT_REFUSALS),
    )
    for changes, text in refusals
]


@pytest.mark.parametrize(("operator", "names", "make", "changes", "text"), REFUSALS)
def test_refusals(operator, names, make, changes, text):
    arguments = dict(zip(names, make())) | changes
    before = {name: tensor.clone() for name, tensor in arguments.items()}
    assert refusal(lambda: getattr(corvane, operator)(*arguments.values())) == text
    assert all(torch.equal(arguments[name], before[name]) for name in names)
