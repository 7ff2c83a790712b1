"""forward_new: every format, dtype and path against the reference, and its launches against the stated geometry.

The device class is the process's; an independent statement of path selection says what a call is to do.
"""

import corvane
import host_xpu
import numpy as np
import pytest
import torch
from reference import geometry, paths
from reference.formats import decode
from reference.forward import forward
from reference.linear import matrix_vector, random_input
from reference.paths import QUANTISED
from reference.random_weights import blank_weight, random_weight
from reference.registry import FORMATS, plane_views
from tensors import DTYPES, assert_close, assert_launches, bytes_behind, environment, on_device, refusal, to_numpy

BLOCK_256 = [name for name, f in FORMATS.items() if f.block_elements == 256]
SYSTOLIC = ["q4_0", "q8_0", "fp8_e4m3", "fp8_e5m2"]


def run(name, n, k, rows, dtype, cls, env=None, row_hint=0, seed=0):
    """One call: checks result and launches against the expected outcome."""
    qtype = FORMATS[name].qtype
    data = random_weight(name, n, k, seed)
    x = random_input(rows, k, dtype, seed)
    outcome = paths.select(cls, qtype, rows, n, k, dtype, env, row_hint)
    with environment(env or {}), host_xpu.record_launches() as records:
        y = corvane.forward_new(on_device(x, dtype), on_device(data), qtype, row_hint)
    assert y.device.type == "xpu" and y.dtype == DTYPES[dtype]
    expected, bound = forward(outcome, qtype, x, data, n, k, dtype)
    assert_close(y, expected, bound, f"{name} {dtype} rows {rows} n {n} k {k}: {outcome.path}")
    tile = int((env or {}).get("TILE_SIZE", n)) if outcome.path == "tile" else n
    sizes = [min(tile, n - start) for start in range(0, n, tile)] if outcome.path == "tile" else [n] * 2
    launches = [geometry.linear(kernel, cls, size, k, rows) for (kernel, _), size in zip(outcome.launches, sizes)]
    assert_launches(records, launches)
    assert [r.waited for r in records] == [waited for _, waited in outcome.launches]
    return outcome


def whole_rows(name: str, k: int) -> int:
    """k, made a whole number of the format's blocks."""
    block = FORMATS[name].block_elements
    return -(-k // block) * block


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", FORMATS)
@pytest.mark.parametrize(("n", "k"), [(1, 128), (7, 1088), (33, 384), (64, 2048)])
def test_one_row(name, dtype, n, k, device_class):
    assert run(name, n, whole_rows(name, k), 1, dtype, device_class).path == "matrix_vector"


@pytest.mark.parametrize("dtype", ["float", "half"])
@pytest.mark.parametrize("name", [f.name for f in FORMATS.values() if f.qtype not in paths.QUANTISED])
def test_one_row_of_any_whole_number_of_blocks(name, dtype):
    n, k = 5, 3 * FORMATS[name].block_elements
    data, x = random_weight(name, n, k, 1), random_input(1, k, dtype, 1)
    expected, bound = matrix_vector(name, data, n, k, x, dtype)
    assert_close(corvane.forward_new(on_device(x, dtype), on_device(data), FORMATS[name].qtype, 1), expected, bound)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", FORMATS)
def test_rows_around_every_threshold(name, dtype, device_class):
    n, k = 32, whole_rows(name, 192)
    for rows in [2, 3, 6, 7, 8, 9, 14, 15, 16, 17, 64, 65]:
        outcome = paths.select(device_class, FORMATS[name].qtype, rows, n, k, dtype)
        if outcome.path not in ("refused", "exit"):
            run(name, n, k, rows, dtype, device_class)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ["fp8_e4m3", "fp6", "fp6_k"])
@pytest.mark.parametrize("n", [24, 3])  # 3: blocks that fill no thread of an expansion
def test_rows_without_an_expansion_are_refused(name, dtype, n, device_class):
    k, qtype = whole_rows(name, 192), FORMATS[name].qtype
    x, data = on_device(random_input(65, k, dtype, 0), dtype), on_device(random_weight(name, n, k, 0))
    if paths.select(device_class, qtype, 65, n, k, dtype).path == "refused":
        text = refusal(lambda: corvane.forward_new(x, data, qtype, 0))
        assert text == "Unsupported input dtype, only fp32 and fp16 are supported"
    else:
        corvane.forward_new(x, data, qtype, 0)


@pytest.mark.parametrize("dtype", ["float", "half", "bfloat16"])
@pytest.mark.parametrize("name", SYSTOLIC)
@pytest.mark.parametrize("blocks", [3, 9])  # threads without a share of K; unequal shares
def test_systolic_rows_of_the_last_tile(name, blocks, dtype, device_class):
    if device_class > 2:
        pytest.skip("no systolic unit on this class")
    for rows in range(9, 17):
        run(name, 48, 64 * blocks, rows, dtype, device_class)


@pytest.mark.parametrize("name", SYSTOLIC)
def test_systolic_can_be_closed(name, device_class):
    env = {"VOREL_LLM_SYSDOT_DISABLED": "1"}
    assert run(name, 32, 128, 8, "half", device_class, env).path != "systolic"
    for other in ("0", "true", "", "1 "):
        run(name, 32, 128, 8, "half", device_class, {"VOREL_LLM_SYSDOT_DISABLED": other})


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize(("name", "rows"), [("q4_0", 70), ("q8_0", 70), ("fp8_e5m2", 70), ("q4_0", 7)])
def test_tiles(name, rows, dtype, device_class):
    env = {"TILE_THRESHOLD": "40", "TILE_SIZE": "16", "TARN_LLM_LOW_MEM": "1"}
    for n, changed in ((40, {}), (41, {}), (41, {"TILE_SIZE": "4096"}), (41, {"TARN_LLM_LOW_MEM": "2"})):
        for row_hint in (128, 129):
            run(name, n, 320, rows, dtype, device_class, env | changed, row_hint)


@pytest.mark.parametrize(("name", "n"), [("q4_0", 50000), ("q4_0", 50008), ("q8_0", 49992), ("q8_0", 50000)])
def test_the_tile_threshold_without_environment(name, n, device_class):
    env, f = {"TARN_LLM_LOW_MEM": "1"}, FORMATS[name]
    with environment(env), host_xpu.record_launches() as records:
        data = torch.zeros(n * f.block_bytes, dtype=torch.uint8, device="xpu")
        corvane.forward_new(torch.zeros(70, 64, dtype=torch.half, device="xpu"), data, f.qtype, 129)
    outcome = paths.select(device_class, f.qtype, 70, n, 64, "half", env, 129)
    assert [(r.kernel, r.waited) for r in records] == list(outcome.launches)


@pytest.mark.parametrize("dtype", DTYPES)
def test_two_rows_of_a_small_batch_are_two_calls(dtype, device_class):
    """To the last bit, where a group of the one-row kernel has two rows as well."""
    if device_class in (0, 5):
        pytest.skip("other groups")
    for name, k in [(name, k) for name in ("nf4", "q4_0") for k in (64, 128, 192, 960, 1088)]:
        data, x = on_device(random_weight(name, 6, k, 3)), on_device(random_input(2, k, dtype, 3), dtype)
        with environment({"VOREL_LLM_SYSDOT_DISABLED": "1"}):
            first, second, both = (
                corvane.forward_new(part, data, FORMATS[name].qtype, 1) for part in (x[:1], x[1:], x)
            )
        assert torch.equal(both, torch.cat([first, second]))


@pytest.mark.parametrize(("dtype", "value"), [("bfloat16", 1e-30), ("half", 2000)])
@pytest.mark.parametrize("name", ["nf4", "q4_0"])
def test_rows_of_a_small_batch_do_not_know_of_each_other(name, dtype, value, device_class):
    """A value so small or so large that results cannot be rounded the quick way concerns its own row alone."""
    k, qtype = 1088, FORMATS[name].qtype
    rows = on_device(random_input(5, k, dtype, 7), dtype)
    data = on_device(random_weight(name, 34, k, 7))
    with environment({"VOREL_LLM_SYSDOT_DISABLED": "1"}):
        plain = corvane.forward_new(rows, data, qtype, 0)
        for spoilt in range(5):
            x = rows.clone()
            x[spoilt, 3] = value
            y = corvane.forward_new(x, data, qtype, 0)
            others = [row for row in range(5) if row != spoilt]
            assert torch.equal(y[others], plain[others])
            if device_class not in (0, 5):  # where a group of the one-row kernel has two rows as well
                assert torch.equal(y[[spoilt]], corvane.forward_new(x[[spoilt]], data, qtype, 0))


@pytest.mark.parametrize(("name", "most"), [("q4_0", 1000), ("q4_1", 533), ("q8_0", 125), ("q4_k", 266), ("q6_k", 125)])
def test_half_is_rounded_alike_the_quick_way_and_the_other(name, most):
    """Which is taken depends on the largest input: here it meets a block without a scale, and adds nothing."""
    n, k = 19, 1024
    data = random_weight(name, n, k, 9)
    block = FORMATS[name].block_elements
    plane_views(name, data, n * k // block)[-1][k // block - 1 :: k // block] = 0
    weight = on_device(data)
    x = random_input(1, k, "half", 9) * 10.0 ** np.random.default_rng(9).integers(-6, 1, k)
    x[0, -1] = 0
    quick = corvane.forward_new(on_device(x, "half"), weight, FORMATS[name].qtype, 1)
    x[0, -1] = 1.02 * most
    assert torch.equal(corvane.forward_new(on_device(x, "half"), weight, FORMATS[name].qtype, 1), quick)


@pytest.mark.parametrize("n", [3, 5])
@pytest.mark.parametrize("dtype", DTYPES)
def test_small_batch_with_odd_output_size(n, dtype, device_class):
    for name in ("nf4", "q4_0"):
        run(name, n, 192, 3, dtype, device_class)


# Kernels that write the result themselves, and sizes that leave something of its last cache line.
WRITERS = [(name, dtype, 5, 1) for name in FORMATS for dtype in ("float", "half")]
WRITERS += [(name, dtype, 5, 3) for name in ("q4_0", "nf4") for dtype in ("float", "half")]
WRITERS += [(name, "half", 16, rows) for name in SYSTOLIC for rows in (7, 9)]


@pytest.mark.parametrize(("name", "dtype", "n", "rows"), WRITERS)
def test_nothing_is_written_behind_the_result(name, dtype, n, rows):
    x = on_device(random_input(rows, whole_rows(name, 256), dtype, 0), dtype)
    data, qtype = on_device(random_weight(name, n, x.shape[1], 0)), FORMATS[name].qtype
    assert bytes_behind(rows * n * x.element_size(), lambda: corvane.forward_new(x, data, qtype, 0)) == {0xA5}


def test_paths_of_fp8_e5m2_differ_on_the_stored_scale(device_class):
    n, k = 32, 128
    data, x = random_weight("fp8_e5m2", n, k, 4, stored_scales=True), random_input(8, k, "half", 4)
    for rows, env in ((1, {}), (8, {}), (8, {"VOREL_LLM_SYSDOT_DISABLED": "1"})):
        outcome = paths.select(device_class, 19, rows, n, k, "half", env)
        with environment(env):
            y = corvane.forward_new(on_device(x[:rows], "half"), on_device(data), 19, rows)
        assert_close(y, *forward(outcome, 19, x[:rows], data, n, k, "half"))


# --- the arithmetic of the one-row kernels, by hand ------------------------------------------------------------------


def one_output(name, data, x, dtype):
    return corvane.forward_new(x[None].to(DTYPES[dtype]).to("xpu"), on_device(data), FORMATS[name].qtype, 1).item()


def all_ones(name, d=1.0):
    """A block of codes with all bits set under scales of d, sub-block scales of 1, no minimums."""
    data, planes = blank_weight(name, d)
    if name == "q5_k":
        planes[0][:, [4, 5, 6, 7, 12, 13, 14, 15]], planes[0][:, 16:] = 1, 0xFF
    elif name == "q4_k":
        planes[0][:], planes[1][:, ::2] = 0xFF, 1
    else:
        planes[0][:], planes[1][:], planes[2][:] = 0xFF, 0xFF, 1
    return data


def test_q8_0_sums_in_half_overflow_where_those_in_float_do_not():
    data, (codes, _) = blank_weight("q8_0")
    codes[:] = 127
    x = torch.full((64,), 100.0)
    assert [one_output("q8_0", data, x, dtype) for dtype in ("half", "float")] == [float("inf"), 127 * 6400]


def test_q4_k_sums_in_half_before_it_scales():
    x = torch.zeros(256)
    x[:8] = x[16:24] = 300  # one chunk: 16 products of 15 * 300, which the scale would bring down to a Half
    data = all_ones("q4_k", 2.0**-7)
    assert [one_output("q4_k", data, x, dtype) for dtype in ("half", "float")] == [float("inf"), 562.5]


def test_q5_k_sums_in_float_and_multiplies_in_its_type():
    x = torch.zeros(256)
    x[[0, 16]], x[[1, 17]] = 500, -499  # pairs of 31000 and -30938, as Halfs 31008 and -30944
    assert one_output("q5_k", all_ones("q5_k"), x, "half") == 64
    data = all_ones("q5_k", 2.0**-7)  # 128 pairs go far beyond a Half until d brings them back
    assert one_output("q5_k", data, torch.full((256,), 500.0), "half") == 31008
    assert one_output("q5_k", data, torch.full((256,), 1100.0), "half") == float("inf")  # 31 * 1100 * 2 is no Half


def test_double_stays_double_but_in_q5_k():
    x = torch.zeros(256, dtype=torch.double)
    x[5] = 1 + 2.0**-40
    values = {"q4_k": 15 * x[5], "q6_k": 31 * x[5], "fp6_k": -0.00732421875 * x[5], "q5_k": 31}
    assert all(one_output(name, all_ones(name), x, "double") == value for name, value in values.items())


def test_q2_k_a_lane_of_8_bit_products_becomes_a_half():
    data, (block,) = blank_weight("q2_k")
    block[:, :16], block[:, 16:80] = 0x0F, 0xFF
    x = torch.full((256,), 127.0)  # codes of 3 under scales of 15: each of 16 lanes has 16 * 127 * 45, which is no Half
    assert one_output("q2_k", data, x, "half") == float("inf")
    block[:, 81] = 0x20  # d = 2^-7: lanes of 714.375, which a Half holds as 714.5
    assert one_output("q2_k", data, x, "half") == 16 * 714.5


def test_q8_1_rows_of_an_odd_number_of_blocks_end_there():
    data, (block,) = blank_weight("iq2_xxs", float("inf"))
    assert one_output("iq2_xxs", data, torch.ones(256), "float") == float("inf")  # no infinity times what is not there


@pytest.mark.parametrize("dtype", ["float", "double"])
@pytest.mark.parametrize(("name", "scales"), [("iq2_xxs", (0, 2)), ("iq1_s", (0, 2)), ("q2_k", (80, 84))])
def test_q8_1_products_are_exact_where_nothing_rounds(name, scales, dtype):
    """Whole inputs with a 127 in each block are their own codes; scales of 1 leave sums of eighths that a float holds."""
    n, k = 5, 3 * 256
    data, rng = random_weight(name, n, k, 8), np.random.default_rng(8)
    plane_views(name, data, 3 * n)[0][:, slice(*scales)] = [0x00, 0x3C] * ((scales[1] - scales[0]) // 2)
    x = rng.integers(-3, 4, (1, k))
    x[0, np.arange(0, k, 32) + rng.integers(0, 32, k // 32)] = rng.choice([-127, 127], k // 32)
    y = corvane.forward_new(on_device(x, dtype), on_device(data), FORMATS[name].qtype, 1)
    np.testing.assert_array_equal(to_numpy(y), x @ decode(name, data, n, k).T)


# --- sizes ------------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", FORMATS)
@pytest.mark.parametrize("rows", [0, 1, 4, 100])
def test_no_rows_and_no_outputs(name, rows):
    k = whole_rows(name, 256)
    empty = corvane.forward_new(torch.zeros(rows, k, device="xpu"), torch.zeros(0, dtype=torch.uint8, device="xpu"),
                                FORMATS[name].qtype, 0)  # fmt: skip
    assert empty.shape == (rows, 0)
    if rows == 0:
        data = on_device(random_weight(name, 32, k, 0))
        assert corvane.forward_new(torch.zeros(0, k, device="xpu"), data, FORMATS[name].qtype, 0).shape == (0, 32)


@pytest.mark.parametrize("rows", [1, 2])
@pytest.mark.parametrize("name", [name for name in FORMATS if FORMATS[name].qtype not in QUANTISED])
def test_subnormal_bfloat16_is_not_lost(name, rows, device_class):
    """Instructions that round two results at once take subnormal ones for zero."""
    n, k, qtype = 16, whole_rows(name, 1024), FORMATS[name].qtype
    data = random_weight(name, n, k, 2, scale=256)
    outcome = paths.select(device_class, qtype, rows, n, k, "bfloat16", {}, 0)
    if outcome.path not in ("matrix_vector", "small_batch"):
        pytest.skip(f"by the path {outcome.path}")
    for magnitude in (2.0**-128, 2.0**-133):  # for codes below 1, for integers
        x = np.where(random_input(rows, k, "float", 2) < 0, -magnitude, magnitude)
        y = corvane.forward_new(on_device(x, "bfloat16"), on_device(data), qtype, 0)
        expected, bound = forward(outcome, qtype, x, data, n, k, "bfloat16")
        assert_close(y, expected, bound, name)


@pytest.mark.parametrize("dtype", [torch.half, torch.bfloat16])
def test_offsets_of_q4_1_meet_no_sum_over_more_than_their_rows_can_hold(dtype):
    """64 inputs of 1500 would be beyond what Half holds, had they been added up before the offset came to them."""
    codes, pairs = np.full(2 * 32, 0x22, np.uint8), np.tile(np.array([0.5, -0.999], np.float16), 2)
    weight = on_device(np.concatenate([codes, pairs.view(np.uint8)]))
    y = corvane.forward_new(torch.full((1, 64), 1504.0, dtype=dtype).to("xpu"), weight, 3, 1)
    exact = 64 * 1504 * (2 * 0.5 + float(np.float16(-0.999)))  # what is left of two sums of that size
    unit = 2.0**-11 if dtype == torch.half else 2.0**-8
    assert (y.cpu().double() - exact).abs().max() <= 10 * unit * 64 * 1504  # ten roundings on the way of each product


@pytest.mark.parametrize("name", FORMATS)
def test_rows_that_end_within_a_block_are_refused(name):
    block = FORMATS[name].block_elements
    for rows, dtype, k, text in (
        (1, torch.float, block + block // 4, f"{block + block // 4} must be a multiple of {block}"),
        (
            100,
            torch.double,
            96,
            "96 must be a multiple of 64|Unsupported input dtype, only fp32 and fp16 are supported",
        ),
    ):
        data = torch.zeros(8 * k * FORMATS[name].block_bytes // block, dtype=torch.uint8, device="xpu")
        with host_xpu.record_launches() as records, pytest.raises(RuntimeError, match=text):
            corvane.forward_new(torch.zeros(rows, k, dtype=dtype, device="xpu"), data, FORMATS[name].qtype, 0)
        assert not records


@pytest.mark.parametrize("name", sorted(set(BLOCK_256) - {"fp6_k"}))  # fp6_k has another word for it
def test_a_last_block_that_no_row_fills_is_refused_before_anything_runs(name):
    data = torch.zeros(3 * FORMATS[name].block_bytes, dtype=torch.uint8, device="xpu")  # one row of 640 elements
    for dtype in (torch.float, torch.half):
        x = torch.zeros(100, 640, dtype=dtype, device="xpu")
        text = refusal(lambda x=x: corvane.forward_new(x, data, FORMATS[name].qtype, 0))
        assert text.endswith("of state_size 640 does not end with a block of 256 elements")


def test_tail_bytes_and_further_dimensions_are_not_looked_at():
    n, k = 4, 128
    data, x = random_weight("q4_0", n, k, 5), random_input(1, k, "float", 5)
    expected, bound = matrix_vector("q4_0", data, n, k, x, "float")
    longer = torch.cat([torch.from_numpy(data), torch.full((33,), 255, dtype=torch.uint8)]).to("xpu")
    assert_close(corvane.forward_new(on_device(x, "float").view(1, k, 1), longer, 2, 1), expected, bound)


@pytest.mark.parametrize("rows", [1, 3, 100])
@pytest.mark.parametrize("name", FORMATS)
def test_the_shape_of_a_weight_behind_its_first_dimension_changes_nothing(name, rows):
    n, k = (8 if name in ("fp6", "fp6_k") else 5), whole_rows(name, 192)  # 5: the last thread's blocks are not whole
    x, data = on_device(random_input(rows, k, "float", 6), "float"), on_device(random_weight(name, n, k, 6))
    flat = corvane.forward_new(x, data, FORMATS[name].qtype, 0)
    for packed in (data[:, None], torch.cat([data, data])[:, None].view(-1, 2), data[:, None, None]):
        assert torch.equal(corvane.forward_new(x, packed, FORMATS[name].qtype, 0), flat)
