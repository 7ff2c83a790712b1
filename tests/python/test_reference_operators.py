"""Products, fused and recurrent operators, paths and launch ranges of the reference, by hand-computed numbers."""

import numpy as np
import pytest
from reference import expand, formats, forward, fused, geometry, linear, operators, paths, q8_1, rwkv, systolic
from reference.formats import blank_weight
from reference.rounding import DTYPES, add, multiply, round_to

# ---- tolerances


@pytest.mark.parametrize("dtype", ["half", "bfloat16"])
def test_tolerance_holds_for_a_plain_order_and_is_no_licence(dtype):
    """q4_0 summed in T, chunk by chunk over 32 lanes, then a tree; every operation rounded."""
    n, k = 24, 2048
    data = formats.random_weight("q4_0", n, k, 4)
    x = linear.random_input(1, k, dtype, 4)
    f = formats.fields("q4_0", data, n * k // 64)
    code = round_to(f.code.reshape(n, k) - 8, dtype)
    scale = round_to(np.repeat(f.d.reshape(n, -1), 4, axis=1), dtype)  # one per chunk of 16
    products = multiply(code, x, dtype).reshape(n, k // 16, 16)
    chunk = np.zeros((n, k // 16), dtype=products.dtype)
    for j in range(16):
        chunk = add(chunk, products[:, :, j], dtype)
    chunk = multiply(chunk, scale, dtype).reshape(n, -1, 32)
    lanes = np.zeros((n, 32), dtype=products.dtype)
    for step in range(chunk.shape[1]):
        lanes = add(lanes, chunk[:, step], dtype)
    while lanes.shape[1] > 1:
        half = lanes.shape[1] // 2
        lanes = add(lanes[:, :half], lanes[:, half:], dtype)
    exact, bound = linear.matrix_vector("q4_0", data, n, k, x, dtype)
    error = np.abs(lanes[:, 0] - exact[0])
    assert np.all(error <= bound[0])
    assert bound.mean() < (0.03 if dtype == "half" else 0.25) * exact.std()
    assert error.max() > bound.mean() / 200


def test_tolerance_grows_for_terms_of_one_sign():
    mixed = np.where(np.arange(1024) % 2, 1.0, -1.0)
    assert linear.coherent_power(mixed) == 1024 and linear.coherent_power(np.abs(mixed)) == 1024**2


# ---- 8-bit activations


def test_quantising_by_hand():
    x = np.zeros(64)
    x[32:36] = 127.0, -63.5, 1.0, 0.49
    blocks = q8_1.quantize_q8_1(x, "float")
    assert blocks.d[0] == 0 and blocks.s[0] == 0 and not blocks.qs[0].any()
    assert blocks.d[1] == 1.0 and list(blocks.qs[1, :4]) == [127, -64, 1, 0]
    assert blocks.s[1] == np.float16(64.99)
    assert blocks.to_bytes().size == 72 and list(blocks.to_bytes()[40:42]) == [127, 0xC0]


@pytest.mark.parametrize("name", ["iq2_xxs", "q2_k", "iq1_s"])
@pytest.mark.parametrize("dtype", DTYPES)
def test_integer_dots_are_the_product_with_dequantised_activations(name, dtype):
    n, k = 5, 1280
    data = formats.random_weight(name, n, k, 8)
    x = linear.random_input(1, k, dtype, 9)[0]
    a = q8_1.quantize_q8_1(x, dtype)
    rounded = (a.qs * a.d.astype(float)[:, None]).reshape(-1)
    expected = linear.linear(rounded[None], formats.decode(name, data, n, k))[0]
    if name == "iq1_s":  # the offset meets the sum of the inputs before quantising
        f = formats.fields(name, data, n * k // 256)
        dl = (f.d * (2 * f.sub + 1) * f.delta).reshape(n, -1)
        expected += dl @ (a.s.astype(float) - a.qs.sum(axis=1) * a.d.astype(float))
    y, bound = q8_1.matrix_vector_q8_1(name, data, n, k, x, dtype)
    np.testing.assert_allclose(y, expected, rtol=1e-12, atol=1e-12)
    assert np.all(bound < (0.03, 0.3)[dtype == "bfloat16"] * np.abs(y).max())
    wide = linear.linear(x[None], formats.decode(name, data, n, k))[0]
    assert np.abs(y - wide).max() < 0.05 * np.abs(wide).max()  # 8-bit activations: under a hundredth each


# ---- systolic, fused, recurrent, small operators


def test_systolic_shares():
    sizes = [(s.stop - s.start) // 64 for s in systolic.shares(9 * 64)]
    assert sizes == [2, 2, 2, 2, 1, 0, 0, 0]


def test_systolic_scales_and_midpoints():
    data, (codes, _) = blank_weight("fp8_e4m3", 4.0, blocks=16)
    y, _ = systolic.systolic(np.ones((2, 64)), "fp8_e4m3", data, 16, 64, "half")
    assert not y.any()
    data, _ = blank_weight("fp8_e5m2", 2.0, blocks=16)
    y, _ = systolic.systolic(np.ones((2, 64)), "fp8_e5m2", data, 16, 64, "half")
    assert np.all(y == 64 * 2.0**-16)
    data, (codes, _) = blank_weight("q8_0", 1000.0, blocks=16)
    codes[:] = 127
    y, _ = systolic.systolic(np.ones((2, 64)), "q8_0", data, 16, 64, "float")
    assert np.all(np.isinf(y))  # float input, but the eight sums meet in half


def test_rotation_by_hand():
    heads = np.array([[1.0, 2.0, 3.0, 4.0]])
    turned, _ = fused.rotate(heads, np.zeros_like(heads), 1, 100.0, "float")
    # pairs (1, 3) by one radian and (2, 4) by 100^(-2/4) = 0.1
    expected = [np.cos(1) - 3 * np.sin(1), 2 * np.cos(0.1) - 4 * np.sin(0.1),
                3 * np.cos(1) + np.sin(1), 4 * np.cos(0.1) + 2 * np.sin(0.1)]  # fmt: skip
    np.testing.assert_allclose(turned[0], expected, rtol=1e-6)
    still, _ = fused.rotate(heads, np.zeros_like(heads), 0, 100.0, "float")
    assert np.array_equal(still, heads)


def test_projections_pair_rows_of_a_head_and_leave_the_value():
    k, head = 128, 8
    weights = [formats.random_weight("q4_0", n, k, s) for s, n in enumerate((16, 8, 8))]
    x = linear.random_input(1, k, "float", 0)
    out = fused.projections(x, weights, ["q4_0"] * 3, k, "float", 5, head, biases=[np.ones(n) for n in (16, 8, 8)])
    assert [y.shape for y, _ in out] == [(2, 8), (1, 8), (1, 8)]
    plain = linear.linear(x, formats.decode("q4_0", weights[2], 8, k))
    np.testing.assert_allclose(out[2][0], plain + 1)
    query = linear.linear(x, formats.decode("q4_0", weights[0], 16, k))[0] + 1
    f = 10000.0 ** (-2 * 3 / 8)  # element 3 of the second head
    expected = np.cos(5 * f) * query[11] - np.sin(5 * f) * query[15]
    assert abs(out[0][0][1, 3] - expected) < 1e-6


def test_activations():
    g = np.array([0.0, 1.0, -1000.0, 30.0])
    np.testing.assert_allclose(fused.activation(g, 0), [0, 0.7310585786300049, 0, 30], atol=1e-9)
    np.testing.assert_allclose(fused.activation(g, 7), [0, 0.8411919906, 0, 30], atol=1e-7)
    assert np.array_equal(fused.activation(g, 1), fused.activation(g, 7))


def test_rwkv_v4_first_token_from_an_empty_state():
    key, value = np.array([[[0.5], [2.0]]]), np.array([[[3.0], [5.0]]])
    empty = np.zeros((1, 1)), np.zeros((1, 1)), np.full((1, 1), -1e38)
    y, _, (num, den, top), _ = rwkv.attention_v4(np.array([-0.25]), np.array([1.0]), key, value, *empty, "float")
    assert y[0, 0, 0] == 3.0
    w0, w1 = np.exp(0.5 - 3.0), 1.0  # second token: key 2 + 1 against the stored exponent 0.5
    np.testing.assert_allclose(y[0, 1, 0], (w0 * 3 + w1 * 5) / (w0 + w1))
    np.testing.assert_allclose([num[0, 0], den[0, 0], top[0, 0]], [np.exp(-1.75) * 3 + 5, np.exp(-1.75) + 1, 2.0])


def test_rwkv_goes_on_from_its_state():
    rng = np.random.default_rng(0)
    r, k, v = rng.standard_normal((3, 2, 3, 6, 64))
    decay, first, state = rng.uniform(0, 1, (3, 64)), rng.standard_normal((3, 64)), rng.standard_normal((2, 3, 64, 64))
    whole, _, end, _ = rwkv.attention_v5(decay, first, r, k, v, state)
    head, _, middle, _ = rwkv.attention_v5(decay, first, r[:, :, :2], k[:, :, :2], v[:, :, :2], state)
    tail, _, last, _ = rwkv.attention_v5(decay, first, r[:, :, 2:], k[:, :, 2:], v[:, :, 2:], middle)
    np.testing.assert_allclose(np.concatenate([head, tail], axis=1), whole)
    np.testing.assert_allclose(last, end)
    acc = sum(r[1, 2, 0, j] * (first[2, j] * k[1, 2, 0, j] * v[1, 2, 0, 7] + state[1, 2, j, 7]) for j in range(64))
    np.testing.assert_allclose(whole[1, 0, 2, 7], acc)


def test_time_shift_rounds_each_step_in_half():
    y = rwkv.time_shift(np.full((1, 1, 1), 0.1), np.full((1, 1, 1), 1000.0), np.ones((1, 1, 1)), "half")
    assert y.dtype == np.float16 and y.item() == 0.0  # 1000 + (0.1 - 1000), the difference being -1000 in half


def test_moe_indexes_by_hand():
    assert operators.moe_indexes([[1, 0], [1, 2]], 3) == [[[1], [0, 0], [1]], [[0], [0, 1], [1]]]
    assert operators.moe_indexes([[4, 1, 1, 4]], 5)[0][4] == [0, 3]
    assert operators.moe_indexes(np.empty((0, 2), dtype=np.int32), 2) == [[[], []], [[], []]]


@pytest.mark.parametrize("name", ["q2_k", "q4_k"])
def test_row_lookup(name):
    n, k = 7, 768
    data = formats.random_weight(name, n, k, 5)
    table = expand.expand_general(name, data, n, k, "float")
    rows = np.array([[3, 3, 0], [6, 1, 2]])
    assert np.array_equal(operators.dequantize_rows(name, data, rows, k), table[rows])


# ---- paths and geometry


@pytest.mark.parametrize("rows, expected", [
    (1, "mv mv mv mv mv mv"), (2, "sy sb sb sb sb sb"), (6, "sy sb sb sb sb sb"), (7, "sy sy sy sb sb sb"),
    (8, "sy sy sy ex ex ex"), (16, "sy sy sy ex ex ex"), (17, "ex sy sy ex ex ex"), (64, "ex sy sy ex ex ex"),
    (65, "ex ex ex ex ex ex"),
])  # fmt: skip
def test_q4_0_paths_by_class(rows, expected):
    names = {"mv": "matrix_vector", "sy": "systolic", "sb": "small_batch", "ex": "expansion"}
    found = [paths.select(cls, 2, rows, 4096, 4096, "half").path for cls in range(6)]
    assert found == [names[e] for e in expected.split()]


@pytest.mark.parametrize("case, path, kernel", [
    (dict(cls=1, qtype=2, rows=7, n=1000), "small_batch", "qlinear_xpu_kernel_q4_0_2x16_by_batch"),
    (dict(cls=1, qtype=8, rows=6), "expansion", "dequantize_q8_0_kernel"),
    (dict(cls=2, qtype=15, rows=2), "systolic", "sysdot_forward_kernel"),
    (dict(cls=1, qtype=8, rows=100, n=50000), "tile", "qlinear_xpu_tile_dequantize_kernel_q8_0_1x1"),
    (dict(cls=4, qtype=2, rows=100, n=50000, row_hint=999), "expansion", "dequantize_q4_0_kernel"),
    (dict(cls=4, qtype=2, rows=100, n=50001, row_hint=129), "tile", "qlinear_xpu_tile_dequantize_kernel_q4_0_1x2"),
    (dict(cls=4, qtype=2, rows=100, n=50001, row_hint=128), "expansion", "dequantize_q4_0_kernel"),
    (dict(cls=0, qtype=2, rows=3, n=50001, row_hint=129, env={"TARN_LLM_LOW_MEM": "1x"}), "tile",
     "qlinear_xpu_tile_dequantize_kernel_q4_0_1x4"),
    (dict(cls=3, qtype=2, rows=100, n=50001, row_hint=129, env={"TARN_LLM_LOW_MEM": "2"}), "expansion",
     "dequantize_q4_0_kernel"),
    (dict(cls=3, qtype=10, rows=14), "small_batch", "qlinear_xpu_kernel_nf4_2x16_batch"),
    (dict(cls=3, qtype=10, rows=15), "expansion", "qlinear_xpu_dequantize_kernel_nf4_1x2"),
    (dict(cls=3, qtype=2, rows=100, dtype="double"), "expansion", "qlinear_xpu_dequantize_kernel_q4_0_1x2"),
    (dict(cls=1, qtype=27, rows=9, n=3, k=256), "expansion", "qlinear_xpu_dequantize_kernel_q4_k"),
    (dict(cls=1, qtype=2, rows=9, env={"VOREL_LLM_SYSDOT_DISABLED": "1"}), "expansion", "dequantize_q4_0_kernel"),
    (dict(cls=1, qtype=2, rows=9, env={"VOREL_LLM_SYSDOT_DISABLED": "1 "}), "systolic", "sysdot_forward_kernel"),
    (dict(cls=1, qtype=15, rows=2, env={"VOREL_LLM_SYSDOT_DISABLED": "1"}), "expansion",
     "dequantize_fp8_e4m3_kernel"),
])  # fmt: skip
def test_path_of(case, path, kernel):
    outcome = paths.select(**{"n": 4096, "k": 4096, "dtype": "half", **case})
    assert outcome.path == path and outcome.launches[0][0] == kernel
    if path == "tile":
        assert len(outcome.launches) == 13
        assert outcome.launches[0][1] == (kernel != "qlinear_xpu_tile_dequantize_kernel_q4_0_1x4")


@pytest.mark.parametrize("case, error", [
    (dict(qtype=15, rows=2, dtype="bfloat16", env={"VOREL_LLM_SYSDOT_DISABLED": "1"}), paths.UNSUPPORTED),
    (dict(qtype=29, rows=3, n=3, k=64), paths.UNSUPPORTED),
    (dict(qtype=2, rows=1, k=100), "100 must be a multiple of 16"),
    (dict(qtype=28, rows=1, k=96), "96 must be a multiple of 64"),
    (dict(qtype=23, rows=2, k=96), "96 must be a multiple of 64"),
    (dict(qtype=2, rows=1, env={"TILE_THRESHOLD": "abc"}), "invalid stoll argument"),
    (dict(qtype=8, rows=1, env={"TILE_SIZE": str(2**64)}), "stoull argument out of range"),
    (dict(qtype=3, rows=1, dtype="int"), "\"qlinear_forward_xpu\" not implemented for 'Int'"),
    (dict(qtype=22, rows=1), None), (dict(qtype=32, rows=1), None),
])  # fmt: skip
def test_refusal_of(case, error):
    outcome = paths.select(**{"cls": 1, "n": 4096, "k": 4096, "dtype": "half", **case})
    assert outcome.path == "refused" and outcome.error == error
    assert paths.select(1, 6, 1, 64, 64, "half", {"TILE_THRESHOLD": "abc"}).path == "matrix_vector"


def test_launches_that_the_host_waits_for():
    quantised = paths.select(3, 21, 1, 64, 256, "half")
    assert quantised.launches == (("quantize_xpu_kernel_q8_1", False), ("qlinear_xpu_kernel_iq2_xxs_q8_1", True))
    waits = {q: paths.select(3, q, 65, 64, 1024, "half").launches[0][1] for q in paths.RULES}
    assert {q for q, waited in waits.items() if waited} == {6, 10, 11, 21, 23, 24, 30}


@pytest.mark.parametrize("variant, k, local", [
    ("1x4", 4096, 256), ("1x4", 4160, 16), ("1x4", 64, 16), ("1x4", 1024, 256), ("1x2", 64, 32), ("1x2", 192, 32),
    ("1x1", 320, 64), ("1x1", 128, 128),
])  # fmt: skip
def test_row_expansion_groups(variant, k, local):
    assert geometry.row_local(variant, k) == local


def test_ranges():
    assert geometry.linear("qlinear_xpu_kernel_q4_0_2x16", 5, 9, 64)[3:] == ((64,), (32,), 16)
    assert geometry.linear("qlinear_xpu_kernel_q4_0_2x16", 0, 9, 64)[3:] == ((320,), (64,), 32)
    assert geometry.linear("qlinear_xpu_kernel_q5_1", 1, 9, 64)[3:] == ((288,), (32,), 16)
    assert geometry.linear("qlinear_xpu_kernel_iq2_xxs_q8_1", 1, 3, 256)[3:] == ((64, 2), (32, 2), 32)
    assert geometry.linear("sysdot_forward_kernel", 1, 32, 64, 17)[3:5] == ((32, 3), (8, 1))
    assert geometry.linear("dequantize_q4_k_kernel", 1, 4, 256)[1:5] == ("dequantize", "dequantize q4_k", (2,), (1,))
    assert geometry.projections(1, 2, 64, (64, 32, 32))[0][3:] == ((1024, 3), (32, 1), 16)
    assert geometry.mlp(5, 29, 64, 64)[0][3:] == ((256,), (32,), 16)


@pytest.mark.parametrize("qtype", paths.RULES)
@pytest.mark.parametrize("rows", [1, 2, 65])
def test_forward_gives_a_finite_result_with_a_useful_tolerance(qtype, rows):
    n, k = 16, 1024
    name = paths.ACCEPTED[qtype]
    data = formats.random_weight(name, n, k, 1)
    x = linear.random_input(rows, k, "float", 1)
    outcome = paths.select(1, qtype, rows, n, k, "float")
    y, bound = forward.forward(outcome, qtype, x, data, n, k, "float")
    plain = linear.linear(x, formats.decode(name, data, n, k))
    assert y.shape == (rows, n) and np.all(bound > 0)
    limit = 0.02 if outcome.path == "systolic" else 1e-3
    assert bound.max() < limit * np.abs(y).max()
    near = 0.3 if outcome.path == "systolic" and name == "fp8_e4m3" else 0.05  # without midpoints there
    assert np.abs(y - plain).max() < near * np.abs(plain).max()
