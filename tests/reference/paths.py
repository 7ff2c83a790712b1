"""Which path a linear call takes, which kernels it launches and which of them the host waits for: as tables.

Written apart from the kernels' own selection, so that one checks the other. `select` looks the tables up; all that
varies by format stands in RULES, ONE_ROW and SYSTOLIC.
"""

from __future__ import annotations

from typing import NamedTuple

from .registry import FORMATS

ALL = (0, 1, 2, 3, 4, 5)
ACCEPTED = {f.qtype: f.name for f in FORMATS.values()}


class Outcome(NamedTuple):
    path: str  # systolic, matrix_vector, small_batch, tile, expansion; refused; exit (process status 2)
    launches: tuple = ()  # (kernel, host waits), in order


_ONE_ROW = {
    2: "q4_0_2x16", 3: "q4_1_2x16", 6: "q5_0", 7: "q5_1", 8: "q8_0_2x8", 10: "nf4_2x16", 11: "nf3_2x16",
    15: "fp8_e4m3_2x8", 16: "fp4_2x16", 19: "fp8_e5m2_2x8", 21: "iq2_xxs_q8_1", 23: "q2_k_q8_1", 24: "iq1_s_q8_1",
    26: "q6_k_2x16", 27: "q4_k_2x16", 28: "q5_k", 29: "fp6_2x16", 30: "fp6_k_2x16",
}  # fmt: skip
ONE_ROW = {qtype: "qlinear_xpu_kernel_" + stem for qtype, stem in _ONE_ROW.items()}
QUANTISED = (21, 23, 24)  # their input row is quantised first

# (class, qtype): fewest rows, most rows. output_size must be a multiple of 16.
SYSTOLIC = {
    **{(0, q): (2, 16) for q in (2, 8, 15, 19)},
    **{(c, q): (7, 64) for c in (1, 2) for q in (2, 8, 19)},
    **{(c, 15): (2, 64) for c in (1, 2)},
}


class Rule(NamedTuple):
    """One line of a format's list for several rows; all that is given must hold, the first that does is taken."""

    path: str
    kernel: str = ""  # on class 0
    other: str = ""  # on the other classes; the same where left out
    classes: tuple = ALL
    most_rows: int | None = None
    tile: str | None = None  # "q4_0" or "byte": which of the two tile tests
    fast: tuple | None = None  # float or half; (unit, multiple, state_size multiple) of the number of units


def _general(stem: str, other: str = "") -> Rule:
    name = "qlinear_xpu_dequantize_kernel_"
    return Rule("expansion", name + stem, name + other if other else "")


def _fast(stem: str, multiple: int = 1, unit: int = 64, k: int = 1) -> Rule:
    return Rule("expansion", f"dequantize_{stem}_kernel", fast=(unit, multiple, k))


def _tile(stem: str, other: str, **conditions) -> Rule:
    name = "qlinear_xpu_tile_dequantize_kernel_"
    return Rule("tile", name + stem, name + other, **conditions)


def _batch(stem: str, most_rows: int, classes: tuple = ALL) -> Rule:
    return Rule("small_batch", "qlinear_xpu_kernel_" + stem, classes=classes, most_rows=most_rows)


REFUSE = Rule("refused")

RULES = {
    2: (
        _batch("q4_0_2x16_by_batch", 7, classes=(1, 2, 3, 4, 5)),
        _tile("q4_0_1x4", "q4_0_1x2", tile="q4_0"),
        _fast("q4_0", 8),
        _general("q4_0_1x4", "q4_0_1x2"),
    ),
    3: (_fast("q4_1", 8), _general("q4_1_1x4", "q4_1_1x2")),
    6: (_general("q5_0"),),
    7: (_general("q5_1"),),
    8: (
        _tile("q8_0_1x1", "q8_0_1x1", classes=(1,), tile="byte"),
        _fast("q8_0", 4),
        _general("q8_0_1x2", "q8_0_1x1"),
    ),
    10: (
        _batch("nf4_2x16_batch", 14),
        _general("nf4_1x4", "nf4_1x2"),
    ),
    11: (_general("nf3_new"),),
    15: (_fast("fp8_e4m3"), REFUSE),
    16: (_fast("fp4", 8), _general("fp4_1x4", "fp4_1x2")),
    19: (
        _tile("fp8_e5m2_1x1", "fp8_e5m2_1x1", classes=(1,), tile="byte"),
        _fast("fp8_e5m2", 4),
        _general("fp8_e5m2_1x2", "fp8_e5m2_1x1"),
    ),
    21: (_general("iq2_xxs"),),
    23: (_general("q2_k"),),
    24: (_general("iq1_s"),),
    26: (_fast("q6_k", 2, unit=256, k=256), _general("q6_k")),
    27: (_fast("q4_k", 2, unit=256, k=256), _general("q4_k")),
    28: (_general("q5_k"),),
    29: (_fast("fp6", 8), REFUSE),
    30: (_fast("fp6_k", 8), REFUSE),
}

_DEQUANTIZE = "qlinear_xpu_dequantize_kernel_"
_TILE = "qlinear_xpu_tile_dequantize_kernel_"
WAITED = {
    "qlinear_xpu_kernel_iq2_xxs_q8_1",
    "qlinear_xpu_kernel_q2_k_q8_1",
    "qlinear_xpu_kernel_iq1_s_q8_1",
    "dequantize_fp6_k_kernel",
    *(_DEQUANTIZE + f for f in ("q5_0", "nf3_new", "nf4_1x4", "nf4_1x2", "iq2_xxs", "q2_k", "iq1_s")),
    *(_TILE + f for f in ("q4_0_1x2", "q8_0_1x1", "fp8_e5m2_1x1")),
}

TILE_POLICY = {"TILE_THRESHOLD": 50000, "TILE_SIZE": 4096, "TARN_LLM_LOW_MEM": 0}


def _launched(kernels) -> tuple:
    return tuple((kernel, kernel in WAITED) for kernel in kernels)


def _tile_test(kind: str, cls: int, n: int, row_hint: int, env: dict) -> bool:
    if kind == "byte":
        return n >= env["TILE_THRESHOLD"]
    return (cls == 4 or env["TARN_LLM_LOW_MEM"] == 1) and n > env["TILE_THRESHOLD"] and row_hint > 128


def _holds(rule: Rule, cls: int, rows: int, n: int, k: int, dtype: str, row_hint: int, env: dict) -> bool:
    if cls not in rule.classes or (rule.most_rows is not None and rows > rule.most_rows):
        return False
    if rule.tile and not _tile_test(rule.tile, cls, n, row_hint, env):
        return False
    if rule.fast:
        unit, multiple, k_multiple = rule.fast
        return dtype in ("half", "float") and k % k_multiple == 0 and (n * k // unit) % multiple == 0
    return True


def select(cls: int, qtype: int, rows: int, n: int, k: int, dtype: str, env: dict | None = None, row_hint: int = 0):
    """The outcome of one call that no check of its sizes refuses. `env` holds the variables that are set."""
    env = env or {}
    allowed = env.get("VOREL_LLM_SYSDOT_DISABLED") != "1" and n % 16 == 0
    fewest, most = SYSTOLIC.get((cls, qtype), (1, 0))
    if allowed and fewest <= rows <= most:
        return Outcome("exit") if dtype == "double" else Outcome("systolic", (("sysdot_forward_kernel", False),))
    if rows == 1:
        first = ("quantize_xpu_kernel_q8_1",) * (qtype in QUANTISED)
        return Outcome("matrix_vector", _launched((*first, ONE_ROW[qtype])))
    numbers = {name: int(env.get(name, default)) for name, default in TILE_POLICY.items()}
    rule = next(r for r in RULES[qtype] if _holds(r, cls, rows, n, k, dtype, row_hint, numbers))
    if rule is REFUSE or n * k % FORMATS[ACCEPTED[qtype]].block_elements:  # a block behind the last whole one
        return Outcome("refused")
    count = -(-n // numbers["TILE_SIZE"]) if rule.path == "tile" else 1
    return Outcome(rule.path, _launched([rule.other if cls != 0 and rule.other else rule.kernel] * count))
