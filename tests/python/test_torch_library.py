"""torch.ops.corvane: the same results as the module's functions; and, where PyTorch has a compiler, that it may trace,
export and reorder them."""

import corvane
import pytest
import torch
from reference.formats import FORMATS
from reference.random_weights import random_weight
from tensors import on_device, refusal

compiles = pytest.mark.skipif(not hasattr(torch, "compile"), reason="this PyTorch has no compiler")
HEADS, HEAD, ROOM = 2, 8, 6


def weight(name, rows, k):
    return on_device(random_weight(name, rows, k, 0))


def random(*shape):
    return torch.randn(*shape, generator=torch.Generator().manual_seed(len(shape))).to("xpu")


def caches(count):
    return [torch.zeros(1, HEADS, ROOM, HEAD, device="xpu") for _ in range(count)]


def projection(kind, matrices, with_bias=False):
    k, rows = FORMATS[kind].block_elements, (32, 16, 16)[:matrices]
    weights = [weight(kind if i < 2 or kind != "iq2_xxs" else "q2_k", n, k) for i, n in enumerate(rows)]
    biases = [random(n) for n in rows] if with_bias else []
    qtypes = [FORMATS[kind].qtype] * (matrices - 1)
    position = torch.tensor([2], device="xpu")
    return [random(1, k), *weights, *biases, position, *caches(matrices - 1), *qtypes, 3, HEAD, 1e4]


def rwkv_v4():
    states = [
        torch.zeros(1, 64, device="xpu"),
        torch.zeros(1, 64, device="xpu"),
        torch.full((1, 64), -1e38, device="xpu"),
    ]
    return [random(64), random(64), random(1, 3, 64), random(1, 3, 64), *states]


CASES = {
    "forward_new": lambda: [random(3, 64), weight("q4_0", 32, 64), 2, 1],
    "forward_qkv": lambda: projection("q4_0", 3),
    "forward_qkv_bias": lambda: projection("q4_0", 3, with_bias=True),
    "forward_qk": lambda: projection("iq2_xxs", 2),
    "dequant": lambda: [random(1, 64), weight("q4_0", 32, 64), 2],
    "bmm": lambda: [random(2, 4, 8), random(2, 8, 4), torch.zeros(2, 4, 4, device="xpu")],
    "mlp_forward_xpu": lambda: [random(1, 64), weight("q4_0", 32, 64), weight("q4_0", 32, 64), 1, 64, 32, 0, 2],
    "rwkv_linear_attention_v4": rwkv_v4,
    "rwkv_linear_attention_v5": lambda: [random(2, 64), random(2, 64), *(random(1, 2, 3, 64) for _ in range(3)),
                                         torch.zeros(1, 2, 64, 64, device="xpu")],
    "rwkv_time_shift": lambda: [random(1, 3, 64), random(1, 3, 64), random(2, 1, 64)],
    "dequantize_rows": lambda: [torch.tensor([[1, 0, 3]], device="xpu"), weight("q2_k", 4, 256), 23, 256, 4],
}  # fmt: skip


def by_function(name, arguments):
    """What the module's function gives, in the operator's form; the arguments are written as the operator writes them."""
    arguments = list(arguments)
    if name.startswith("forward_q"):
        arguments = [a.narrow(2, 0, 3) if torch.is_tensor(a) and a.dim() == 4 else a for a in arguments]
    found = getattr(corvane, name)(*arguments)
    if name == "bmm":
        return None
    return found[0] if isinstance(found, list) else found


def assert_same(found, expected):
    for x, y in zip(found, expected, strict=True):
        assert torch.equal(x, y) if torch.is_tensor(x) else x == y


def test_every_function_but_one_is_an_operator():
    functions = {name for name in vars(corvane) if not name.startswith("_")}
    assert functions - set(CASES) == {"get_moe_indexes"}


@pytest.mark.parametrize("name", CASES)
def test_operators_give_and_write_what_the_functions_do(name):
    mine, others = CASES[name](), CASES[name]()
    found = getattr(torch.ops.corvane, name)(*mine)
    assert_same([found, *mine], [by_function(name, others), *others])


@compiles
@pytest.mark.parametrize("backend", ["eager", "aot_eager"])
@pytest.mark.parametrize("name", CASES)
def test_compiled_whole(name, backend):
    operator = getattr(torch.ops.corvane, name)

    def program(*arguments):
        result = operator(*arguments)
        return None if result is None else result * 2

    torch._dynamo.reset()
    mine, others = CASES[name](), CASES[name]()
    found = torch.compile(program, fullgraph=True, backend=backend)(*mine)
    expected = by_function(name, others)
    assert_same([found, *mine], [None if expected is None else expected * 2, *others])


@compiles
def test_compiled_for_any_number_of_rows_and_positions():
    torch._dynamo.reset()
    packed, key, value = weight("q4_0", 32, 64), *caches(2)
    query = weight("q4_0", 16, 64)

    @torch.compile(fullgraph=True, backend="aot_eager", dynamic=True)
    def program(x, position, length):
        torch.ops.corvane.forward_qkv(x[:1], query, query, query, position, key, value, 2, 2, length, HEAD)
        return torch.ops.corvane.forward_new(x, packed, 2, 1)

    for rows in (2, 3, 5):
        x = random(rows, 64)
        found = program(x, torch.tensor([rows], device="xpu"), rows)
        assert torch.equal(found, corvane.forward_new(x, packed, 2, 1))
        assert value[0, :, rows].abs().sum() > 0


@compiles
@pytest.mark.parametrize("name", CASES)
def test_exported(name):
    class Program(torch.nn.Module):
        def forward(self, tensors):
            others = iter(tensors)
            result = getattr(torch.ops.corvane, name)(*(next(others) if torch.is_tensor(a) else a for a in template))
            return tensors[-1] + 0 if result is None else result

    template, others = CASES[name](), CASES[name]()
    tensors = [a for a in template if torch.is_tensor(a)]
    exported = torch.export.export(Program(), (tensors,))
    mine = CASES[name]()
    found = exported.module()([a for a in mine if torch.is_tensor(a)])
    expected = by_function(name, others)
    assert_same([found, *mine], [others[-1] if expected is None else expected, *others])


@pytest.mark.skipif(not hasattr(torch.library, "opcheck"), reason="this PyTorch has no opcheck")
@pytest.mark.parametrize("name", CASES)
def test_opcheck(name):
    torch.library.opcheck(getattr(torch.ops.corvane, name).default, tuple(CASES[name]()))


# Where the ids of formats stand among the arguments.
IDS = {"forward_new": [2], "forward_qkv": [-5, -4], "forward_qkv_bias": [-5, -4], "forward_qk": [-4], "dequant": [2],
       "mlp_forward_xpu": [-1], "dequantize_rows": [2]}  # fmt: skip


@pytest.mark.parametrize(("name", "at"), [(name, at) for name in IDS for at in IDS[name]])
def test_ids_beyond_32_bits_name_no_format(name, at):
    arguments = CASES[name]()
    arguments[at] += 2**32
    text = f"qtype {arguments[at]} does not name a weight format"
    assert refusal(lambda: getattr(torch.ops.corvane, name)(*arguments)) == text


def test_caches_without_room_are_refused():
    for length in (-1, ROOM, ROOM + 1):
        arguments = projection("q4_0", 3)
        arguments[-3] = length
        assert "with room for position" in refusal(lambda call=arguments: torch.ops.corvane.forward_qkv(*call))
