"""forward_qkv, forward_qkv_bias and forward_qk: results, cache writes, launches, and what is refused."""

import corvane
import host_xpu
import numpy as np
import pytest
import torch
from reference import fused, geometry
from reference.linear import random_input
from reference.random_weights import random_weight
from reference.registry import FORMATS
from tensors import DTYPES, assert_close, assert_launches, on_device, refusal, to, to_numpy

# Format of query and key, format of value.
KINDS = {name: (name, name) for name in ("q4_0", "fp4", "fp8_e5m2", "fp6")} | {"iq2_xxs": ("iq2_xxs", "q2_k")}

# Rows of query, key and value, K in units of the format's block, head size.
SHAPES = [
    ((2, 2, 2), 1, 2),  # half a head is one row
    ((48, 12, 24), 3, 6),  # an odd half, more value rows than key rows
    ((64, 64, 64), 17, 64),  # K beyond one pass of a work-group, by a part of the next
    ((96, 16, 8), 4, 8),
    ((192, 320, 64), 2, 64),  # the key is the largest
]


class Cache:
    """A cache argument of `positions` positions in a buffer with room for more, all of whose elements are known."""

    def __init__(self, heads, head_size, dtype, layout="heads", positions=3, room=6):
        if layout == "heads":  # (1, heads, room, head_size)
            strides, size = (room * head_size, head_size), heads * room * head_size
        elif layout == "positions":  # (1, room, heads, head_size), exchanged
            strides, size = (head_size, heads * head_size), heads * room * head_size
        elif layout == "close":  # no room for another position between heads
            strides, size = (positions * head_size, head_size), heads * positions * head_size
        else:  # one position after another has more than it needs, and so has a head
            strides, size = (room * (head_size + 3) + 5, head_size + 3), heads * (room * (head_size + 3) + 5)
        self.offset = 7
        self.buffer = torch.arange(size + self.offset + 9).remainder(251).to(DTYPES[dtype]).to("xpu")
        self.before = to_numpy(self.buffer)
        self.shape = (1, heads, positions, head_size)
        self.strides = (size, *strides, 1)
        self.view = self.buffer.as_strided(self.shape, self.strides, self.offset)

    def check(self, result, expected, bound, position):
        """The longer view over the same memory, `expected` (heads, head_size) in it at `position`, all else untouched."""
        _, heads, positions, head_size = self.shape
        assert result.shape == (1, heads, positions + 1, head_size) and result.stride() == self.strides
        assert result.data_ptr() == self.view.data_ptr()
        at = self.offset + position * self.strides[2] + np.arange(head_size)[None, :]
        at = at + np.arange(heads)[:, None] * self.strides[1]
        after = to_numpy(self.buffer)
        assert_close(torch.from_numpy(after[at]), expected, bound, "cache")
        after[at] = self.before[at]
        assert np.array_equal(after, self.before), "elements beside the new position changed"

    def untouched(self):
        return np.array_equal(to_numpy(self.buffer), self.before)


def run(
    operator, kind, dtype, rows, k, head_size, cls=None, position=5, kv_seq_len=3, layout="heads", base=10000.0, seed=0
):
    """One call, everything checked against the reference; its results."""
    names = [KINDS[kind][0], KINDS[kind][0], KINDS[kind][1]][: 2 if operator == "forward_qk" else 3]
    rows = rows[: len(names)]
    weights = [random_weight(name, n, k, seed + m, stored_scales=True) for m, (name, n) in enumerate(zip(names, rows))]
    x = random_input(1, k, dtype, seed)
    biases = None
    if operator == "forward_qkv_bias":
        biases = [random_input(1, n, dtype, seed + 10 + m)[0] for m, n in enumerate(rows)]
    caches = [Cache(n // head_size, head_size, dtype, layout, room=6 + m) for m, n in enumerate(rows[1:])]
    position_ids = torch.tensor([[position, 77, -1]], device="xpu")
    ids = [FORMATS[name].qtype for name in (names[0], names[-1])][: len(names) - 1]
    arguments = [on_device(x, dtype), *map(on_device, weights), *[on_device(b, dtype) for b in biases or ()],
                 position_ids, *[c.view for c in caches], *ids, kv_seq_len, head_size, base]  # fmt: skip
    with host_xpu.record_launches() as records:
        query, *views = getattr(corvane, operator)(*arguments)

    expected = fused.projections(x, weights, names, k, dtype, position, head_size, base, biases)
    assert query.shape == (1, rows[0] // head_size, 1, head_size)
    assert query.dtype == DTYPES[dtype] and query.device.type == "xpu"
    assert_close(query[0, :, 0], *expected[0], "query")
    for cache, view, (new, bound) in zip(caches, views, expected[1:], strict=True):
        cache.check(view, new, bound, kv_seq_len)
    if cls is not None:
        assert_launches(records, geometry.projections(cls, ids[0], k, rows))
        assert not any(record.waited for record in records)
    return [query, *views]


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_projections(kind, dtype, shape, device_class):
    rows, blocks, head_size = shape
    k = blocks * FORMATS[kind].block_elements
    for operator in ["forward_qkv", "forward_qkv_bias"] + ["forward_qk"] * (kind == "iq2_xxs"):
        run(operator, kind, dtype, rows, k, head_size, device_class)


@pytest.mark.parametrize("kind", KINDS)
def test_a_layer_of_a_model(kind):
    run("forward_qkv", kind, "half", (512, 128, 128), 4096, 128, position=1000, seed=3)


@pytest.mark.parametrize("layout", ["heads", "positions", "apart"])
@pytest.mark.parametrize("kv_seq_len", [0, 3, 5])
def test_where_key_and_value_land(layout, kv_seq_len):
    """Before, at and behind the end of the argument: always at kv_seq_len, and the views grow by one."""
    run("forward_qkv", "q4_0", "float", (32, 16, 24), 64, 8, kv_seq_len=kv_seq_len, layout=layout)
    run("forward_qk", "iq2_xxs", "bfloat16", (32, 16), 256, 8, kv_seq_len=kv_seq_len, layout=layout)


@pytest.mark.parametrize("kv_seq_len", [0, 2])
def test_heads_may_lie_close_where_the_position_is_within_the_argument(kv_seq_len):
    run("forward_qkv", "q4_0", "float", (32, 16, 24), 64, 8, kv_seq_len=kv_seq_len, layout="close")
    run("forward_qk", "iq2_xxs", "half", (32, 16), 256, 8, kv_seq_len=kv_seq_len, layout="close")


@pytest.mark.parametrize(("position", "base"), [(0, 1e4), (1, 1e4), (4095, 5e5), (131071, 1e6), (-3, 1e4), (9, 1.0)])
@pytest.mark.parametrize("dtype", ["float", "double"])
def test_rotation(position, base, dtype):
    run("forward_qkv", "q4_0", dtype, (64, 32, 32), 128, 32, position=position, base=base)


def test_biases_of_iq2_xxs_are_ignored():
    a = run("forward_qkv", "iq2_xxs", "half", (32, 16, 16), 512, 8)
    b = run("forward_qkv_bias", "iq2_xxs", "half", (32, 16, 16), 512, 8)
    assert all(torch.equal(x.cpu(), y.cpu()) for x, y in zip(a, b))


# --- single calls ----------------------------------------------------------------------------------------------------


class Call:
    """The arguments of a call that works, to be changed or spoilt."""

    def __init__(self, kind="q4_0", k=256, dtype="float"):
        self.input = on_device(random_input(1, k, dtype, 0), dtype)
        names, rows = [KINDS[kind][0], KINDS[kind][0], KINDS[kind][1]], (32, 16, 16)
        self.weight_q, self.weight_k, self.weight_v = (
            on_device(random_weight(f, n, k, 0)) for f, n in zip(names, rows)
        )
        self.bias_q, self.bias_k, self.bias_v = (torch.ones(n, dtype=DTYPES[dtype], device="xpu") for n in rows)
        self.position_ids = torch.tensor([2], device="xpu")
        self.caches = [Cache(2, 8, dtype) for _ in range(2)]
        self.cache_k, self.cache_v = (c.view for c in self.caches)
        self.src_0_qtype, self.src_0_vtype = (FORMATS[name].qtype for name in KINDS[kind])
        self.kv_seq_len, self.head_size, self.rope_base = 3, 8, 10000.0

    def arguments(self, operator):
        names = ["input", "weight_q", "weight_k", "weight_v", "bias_q", "bias_k", "bias_v", "position_ids", "cache_k",
                 "cache_v", "src_0_qtype", "src_0_vtype", "kv_seq_len", "head_size", "rope_base"]  # fmt: skip
        left_out = {"forward_qkv": ["bias_"], "forward_qkv_bias": [], "forward_qk": ["bias_", "_v", "vtype"]}[operator]
        return {name: getattr(self, name) for name in names if not any(part in name for part in left_out)}

    def run(self, operator="forward_qkv"):
        return [t.cpu() for t in getattr(corvane, operator)(*self.arguments(operator).values())]


def test_position_zero_turns_nothing():
    call = Call(k=64, dtype="half")  # one unit of K: no order of summation to differ in
    call.position_ids = torch.tensor([0], device="xpu")
    plain = corvane.forward_new(call.input, call.weight_q, 2, 1).cpu()
    assert torch.equal(call.run()[0].view(1, 32), plain)


def test_keywords_and_the_default_of_rope_base():
    by_position = Call().run()[0]

    def by_name(**changes):
        arguments = Call().arguments("forward_qkv")
        del arguments["rope_base"]
        return corvane.forward_qkv(**arguments, **changes)[0].cpu()

    assert torch.equal(by_name(), by_position) and torch.equal(by_name(rope_base=10000.0), by_position)
    assert not torch.equal(by_name(rope_base=500.0), by_position)


def test_the_value_weight_is_read_in_the_format_of_the_kernel():
    """src_0_vtype names a format of the same block size: it selects nothing."""
    call = Call()
    call.src_0_vtype = FORMATS["nf4"].qtype
    assert torch.equal(call.run()[2], Call().run()[2])


def test_matrices_without_rows():
    call = Call()
    call.weight_q = call.weight_k = call.weight_v = torch.zeros(0, dtype=torch.uint8, device="xpu")
    call.cache_k, call.cache_v = (torch.zeros(1, 0, 4, 8, device="xpu") for _ in range(2))
    with host_xpu.record_launches() as records:
        assert [t.shape for t in call.run()] == [(1, 0, 1, 8), (1, 0, 5, 8), (1, 0, 5, 8)]
    assert [r.global_size for r in records] == [(0, 3)]


# --- refusals --------------------------------------------------------------------------------------------------------


def full_layer(call):
    """A cache that fills its part of a larger buffer: one more position would be the next head's first."""
    call.cache_k, call.kv_seq_len = torch.zeros(2, 1, 2, 4, 8, device="xpu")[0], 4


def behind_the_buffer(call, position):
    """Positions one after another, all heads in each: nothing but the storage ends them."""
    call.cache_k, call.kv_seq_len = torch.zeros(1, 6, 2, 8, device="xpu").transpose(1, 2)[:, :, :3], position


APART = "cache_k must keep heads and positions apart"
ROOM = "cache_k must have room for one row of 2 heads of 8 elements"

# What is spoilt, and the first line of the message or a part of it.
SPOILT = [
    (to(input=lambda t: t.expand(2, -1).contiguous()), "batch_size == 1"),
    (to(input=torch.zeros(0, 256, device="xpu")), "batch_size == 1"),
    (to(input=lambda t: t[0]), "input must have two dimensions, found 1"),
    (to(input=torch.zeros(1, 0, device="xpu")), "state_size must be at least 1, found 0"),
    (to(input=torch.zeros(1, 256, 0, device="xpu")), "input must not have an empty dimension"),
    (to(input=lambda t: t.int()), "\" not implemented for 'Int'"),
    *[(to(src_0_qtype=q), "does not name a weight format") for q in (-1, 9, 2**31 - 1)],
    (to(src_0_qtype=8), "no kernel for qtype 8 (q8_0)"),
    (to(weight_q=lambda t: t.float()), "weight_q must be unsigned bytes, found Float"),
    (to(weight_k=lambda t: t[0]), "weight_k must have at least one dimension"),
    *[(to(head_size=h), "head_size must be even and at least 2") for h in (0, 7, -(2**63))],
    *[(to(head_size=h), "must divide the rows of weight_q") for h in (12, 2**62)],
    (to(head_size=32), "head_size 32 must divide the rows of weight_k, found 16"),
    (to(cache_k=lambda t: t[0]), "cache_k must have four dimensions, found 3"),
    (to(cache_k=torch.zeros(1, 2, 9, 8, dtype=torch.half, device="xpu")[:, :, :3]), "expected scalar type"),
    (to(cache_k=lambda t: t.cpu()[:, :, :2]), "cache_k must be on xpu:0, found on cpu"),
    (to(cache_k=torch.zeros(1, 2, 3, 8, device="xpu")), "out of bounds for storage"),
    (to(cache_k=lambda t: t[:, :1]), ROOM),
    (to(cache_k=lambda t: t[..., :6]), ROOM),
    (to(cache_k=lambda t: t.expand(2, -1, -1, -1)), ROOM),
    (to(cache_k=torch.zeros(1, 2, 9, 9, device="xpu").transpose(2, 3)[:, :, :8]), "cache_k must be dense in its last"),
    (to(cache_k=lambda t: t[:, :1].expand(-1, 2, -1, -1)), APART),
    (to(cache_k=lambda t: t[:, :, :1].expand(-1, -1, 3, -1)), APART),
    (full_layer, APART),
    *[(to(kv_seq_len=n), APART) for n in (6, 2**62, 2**63 - 1)],
    *[(lambda c, n=n: behind_the_buffer(c, n), f"cache_k must have room at position {n}") for n in (6, 2**63 - 1)],
    (to(cache_k=torch.zeros(95, device="xpu").as_strided((1, 2, 3, 8), (95, 8, 16, 1)), kv_seq_len=5),
     "cache_k must have room at position 5 in its storage of 95 elements"),  # of the 96 that it takes
    (to(kv_seq_len=-1), "kv_seq_len must not be negative, found -1"),
    (to(position_ids=lambda t: t.int()), "expected scalar type Long"),
    (to(position_ids=lambda t: t[:0]), "position_ids must hold the token's position"),
    (to(position_ids=lambda t: t.cpu()), "position_ids must be on xpu:0, found on cpu"),
]  # fmt: skip

SPOILT_VALUE = [
    *[(to(src_0_vtype=q), "does not name a weight format") for q in (-1, 9)],
    (to(weight_v=lambda t: t[:-34]), "must divide the rows of weight_v"),
    (to(weight_v=lambda t: t[: 16 * 4 * 26], src_0_vtype=11), "weight_v must hold 2176 bytes of q4_0, found 1664"),
    (to(cache_v=torch.zeros(1, 2, 9, 8, dtype=torch.double, device="xpu")[:, :, :3]), "expected scalar type"),
    (to(cache_v=lambda t: t[:, :1]), "cache_v must have room"),
    (lambda c: setattr(c, "cache_v", c.cache_k), "cache_k and cache_v must not be the same memory"),
]

SPOILT_BIAS = [
    (to(bias_q=lambda t: t.half()), "expected scalar type"),
    (to(bias_k=lambda t: t[:-1]), "bias_k must be 16 contiguous elements, found 15"),
    (
        to(bias_v=torch.zeros(16, 2, device="xpu")[:, 0]),
        "bias_v must be 16 contiguous elements, found 16, not contiguous",
    ),
    (to(bias_v=lambda t: t.cpu()), "bias_v must be on xpu:0, found on cpu"),
]


def check_refusal(call, operator, message):
    caches = [call.cache_k, call.cache_v]
    before = [to_numpy(cache) for cache in caches]
    assert message in refusal(lambda: call.run(operator))
    assert all(cache.untouched() for cache in call.caches)
    assert all(np.array_equal(to_numpy(cache), b, equal_nan=True) for cache, b in zip(caches, before))


@pytest.mark.parametrize("operator", ["forward_qkv", "forward_qkv_bias", "forward_qk"])
@pytest.mark.parametrize(("spoil", "message"), SPOILT, ids=[f"{i}-{text}" for i, (_, text) in enumerate(SPOILT)])
def test_refusals(spoil, message, operator):
    call = Call("iq2_xxs" if operator == "forward_qk" else "q4_0")
    spoil(call)
    check_refusal(call, operator, message)


@pytest.mark.parametrize(
    ("spoil", "message", "operator"),
    [(*case, "forward_qkv") for case in SPOILT_VALUE] + [(*case, "forward_qkv_bias") for case in SPOILT_BIAS],
)
def test_refusals_of_value_and_bias(spoil, message, operator):
    call = Call()
    spoil(call)
    check_refusal(call, operator, message)


@pytest.mark.parametrize(
    ("kind", "k", "message"),
    [
        *[(kind, 24, "24 must be a multiple of 16") for kind in ("q4_0", "fp4", "fp6")],
        ("fp8_e5m2", 20, "20 must be a multiple of 8"),
        *[(kind, 80, "state_size 80 must be a multiple of 64") for kind in ("q4_0", "fp4", "fp6", "fp8_e5m2")],
        ("iq2_xxs", 128, "state_size 128 must be a multiple of 256"),
    ],
)
def test_state_sizes_without_a_defined_result_are_refused(kind, k, message):
    call = Call(kind)
    call.input = torch.zeros(1, k, device="xpu")
    call.weight_q, call.weight_k, call.weight_v = (
        torch.zeros(16 * k // FORMATS[f].block_elements * FORMATS[f].block_bytes, dtype=torch.uint8, device="xpu")
        for f in (*KINDS[kind][:1] * 2, KINDS[kind][1])
    )
    check_refusal(call, "forward_qkv", message)


def test_a_value_weight_shorter_than_the_kernel_reads_it_is_refused():
    call = Call("iq2_xxs")
    call.weight_v, call.src_0_vtype = call.weight_k.clone(), FORMATS["iq2_xxs"].qtype
    check_refusal(call, "forward_qkv", "weight_v must hold 1344 bytes of q2_k, found 1056")


@pytest.mark.parametrize("name", [name for name in FORMATS if name != "iq2_xxs"])
def test_formats_without_a_kernel_are_refused(name):
    call = Call("iq2_xxs")
    call.src_0_qtype = FORMATS[name].qtype
    for operator in ["forward_qk"] + ["forward_qkv"] * (name not in KINDS):
        check_refusal(call, operator, f"no kernel for qtype {call.src_0_qtype} ({name})")
