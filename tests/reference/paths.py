"""Which path a linear call takes, which kernels it launches and which of them the host waits for: as tables.

Written apart from the kernels' own selection, so that one checks the other. `select` looks the tables up; all that
varies by format stands in RULES, ONE_ROW and SYSTOLIC.
"""

from __future__ import annotations

import re
from typing import NamedTuple

from .registry import FORMATS

ALL = (0, 1, 2, 3, 4, 5)
FOUR_DTYPES = ("half", "float", "double", "bfloat16")
ACCEPTED = {f.qtype: f.name for f in FORMATS.values()}

UNSUPPORTED = "Unsupported input dtype, only fp32 and fp16 are supported"
MULTIPLE = "{} must be a multiple of {}"


class Outcome(NamedTuple):
    path: str  # systolic, matrix_vector, small_batch, tile, expansion; refused; exit (process status 2); open
    launches: tuple = ()  # (kernel, host waits), in order
    error: str | None = None  # a part of the exception's text; None where the wording is free
    error_kind: str | None = None  # check, dispatch, runtime, invalid_argument, out_of_range


class OneRow(NamedTuple):
    kernel: str
    width: int  # state_size has to be a multiple of it, or the call is refused; 1: nothing is tested
    defined: tuple  # state_size multiples from which the result is defined: class 0, other classes
    quantised: bool = False  # the input row is quantised first


ONE_ROW = {
    2: OneRow("qlinear_xpu_kernel_q4_0_2x16", 16, (64, 64)),
    3: OneRow("qlinear_xpu_kernel_q4_1_2x16", 16, (64, 64)),
    6: OneRow("qlinear_xpu_kernel_q5_0", 1, (128, 64)),
    7: OneRow("qlinear_xpu_kernel_q5_1", 1, (128, 64)),
    8: OneRow("qlinear_xpu_kernel_q8_0_2x8", 8, (64, 64)),
    10: OneRow("qlinear_xpu_kernel_nf4_2x16", 16, (64, 64)),
    11: OneRow("qlinear_xpu_kernel_nf3_2x16", 16, (64, 64)),
    15: OneRow("qlinear_xpu_kernel_fp8_e4m3_2x8", 8, (64, 64)),
    16: OneRow("qlinear_xpu_kernel_fp4_2x16", 16, (64, 64)),
    19: OneRow("qlinear_xpu_kernel_fp8_e5m2_2x8", 8, (64, 64)),
    21: OneRow("qlinear_xpu_kernel_iq2_xxs_q8_1", 1, (256, 256), quantised=True),
    23: OneRow("qlinear_xpu_kernel_q2_k_q8_1", 1, (256, 256), quantised=True),
    24: OneRow("qlinear_xpu_kernel_iq1_s_q8_1", 1, (256, 256), quantised=True),
    26: OneRow("qlinear_xpu_kernel_q6_k_2x16", 16, (1024, 512)),
    27: OneRow("qlinear_xpu_kernel_q4_k_2x16", 16, (1024, 512)),
    28: OneRow("qlinear_xpu_kernel_q5_k", 64, (256, 256)),
    29: OneRow("qlinear_xpu_kernel_fp6_2x16", 16, (64, 64)),
    30: OneRow("qlinear_xpu_kernel_fp6_k_2x16", 16, (256, 256)),
}

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
    k_multiple: int = 1  # state_size has to be a multiple, or the launch is refused


def _general(stem: str, other: str = "") -> Rule:
    name = "qlinear_xpu_dequantize_kernel_"
    return Rule("expansion", name + stem, name + other if other else "", k_multiple=64)


def _fast(stem: str, multiple: int = 1, unit: int = 64, k: int = 1) -> Rule:
    return Rule("expansion", f"dequantize_{stem}_kernel", fast=(unit, multiple, k))


def _tile(stem: str, other: str, **conditions) -> Rule:
    name = "qlinear_xpu_tile_dequantize_kernel_"
    return Rule("tile", name + stem, name + other, k_multiple=64, **conditions)


def _batch(stem: str, most_rows: int, classes: tuple = ALL) -> Rule:
    return Rule("small_batch", "qlinear_xpu_kernel_" + stem, classes=classes, most_rows=most_rows, k_multiple=16)


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

# Variables that a launcher parses before anything else, in order: name, signed, default.
PARSED = {
    2: (("TILE_THRESHOLD", True, 50000), ("TARN_LLM_LOW_MEM", True, 0), ("TILE_SIZE", False, 4096)),
    8: (("TILE_THRESHOLD", True, 50000), ("TILE_SIZE", False, 4096)),
    19: (("TILE_THRESHOLD", True, 50000), ("TILE_SIZE", False, 4096)),
}


class Malformed(Exception):
    """An environment value that does not parse; carries the kind of exception and its text."""


def parse_number(text: str, signed: bool) -> int:
    """Leading white space, sign and digits; what follows is ignored. An unsigned number may have a minus: it wraps."""
    match = re.match(r"[ \t\n\v\f\r]*([+-]?)([0-9]+)", text)
    function = "stoll" if signed else "stoull"
    if not match:
        raise Malformed("invalid_argument", f"invalid {function} argument")
    number = int(match[2]) * (-1 if match[1] == "-" else 1)
    if not (-(2**63) <= number < 2**63 if signed else -(2**64) < number < 2**64):
        raise Malformed("out_of_range", f"{function} argument out of range")
    return number if signed else number % 2**64


def not_implemented(label: str, dtype: str) -> str:
    return f"\"{label}\" not implemented for '{dtype.capitalize()}'"


def _launched(kernels) -> tuple:
    return tuple((kernel, kernel in WAITED) for kernel in kernels)


def _one_row(cls: int, qtype: int, k: int, dtype: str) -> Outcome:
    row = ONE_ROW[qtype]
    if dtype not in FOUR_DTYPES:
        return Outcome("refused", error=not_implemented("qlinear_forward_xpu", dtype), error_kind="dispatch")
    if k % row.width:
        return Outcome("refused", error=MULTIPLE.format(k, row.width), error_kind="check")
    if k % row.defined[0 if cls == 0 else 1]:
        return Outcome("open")
    kernels = ("quantize_xpu_kernel_q8_1", row.kernel) if row.quantised else (row.kernel,)
    return Outcome("matrix_vector", _launched(kernels))


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


def _several_rows(rule: Rule, cls: int, qtype: int, n: int, k: int, dtype: str, env: dict) -> Outcome:
    if rule is REFUSE:
        return Outcome("refused", error=UNSUPPORTED, error_kind="runtime")
    if rule.path == "tile" and n == 0:
        return Outcome("tile")
    if rule.path == "tile" and env["TILE_SIZE"] == 0:
        return Outcome("open")
    if not rule.fast and dtype not in FOUR_DTYPES:
        return Outcome("refused", error=not_implemented("qlinear_forward_xpu", dtype), error_kind="dispatch")
    if k % rule.k_multiple:
        return Outcome("refused", error=MULTIPLE.format(k, rule.k_multiple), error_kind="check")
    open_end = rule.kernel.endswith("nf4_2x16_batch") and n % 2  # the last output row would stay unwritten
    partial = n * k % FORMATS[ACCEPTED[qtype]].block_elements  # elements behind the last whole block
    if k % 64 or partial or open_end or (qtype == 15 and (n * k // 64) % 4):
        return Outcome("open")
    kernel = rule.other if cls != 0 and rule.other else rule.kernel
    count = -(-n // env["TILE_SIZE"]) if rule.path == "tile" else 1
    return Outcome(rule.path, _launched([kernel] * count))


def select(cls: int, qtype: int, rows: int, n: int, k: int, dtype: str, env: dict | None = None, row_hint: int = 0):
    """The outcome of one call. `env` holds the variables that are set; `dtype` is one of rounding.DTYPES, or another
    type's name ("int", "long"), which is refused. "open" marks calls whose treatment the design leaves free."""
    env = env or {}
    if qtype not in ACCEPTED:
        return Outcome("refused")
    allowed = env.get("VOREL_LLM_SYSDOT_DISABLED") != "1" and n % 16 == 0
    fewest, most = SYSTOLIC.get((cls, qtype), (1, 0))
    if allowed and fewest <= rows <= most:
        if dtype not in ("float", "half", "bfloat16"):
            return Outcome("exit", error="unsupported dtype")
        if k % 64:
            return Outcome("refused", error="state_size % QK == 0", error_kind="check")
        return Outcome("systolic", (("sysdot_forward_kernel", False),))
    numbers = {}
    try:
        for name, signed, default in PARSED.get(qtype, ()):
            numbers[name] = parse_number(env[name], signed) if name in env else default
    except Malformed as bad:
        return Outcome("refused", error=bad.args[1], error_kind=bad.args[0])
    if rows == 1:
        return _one_row(cls, qtype, k, dtype)
    rule = next(r for r in RULES[qtype] if _holds(r, cls, rows, n, k, dtype, row_hint, numbers))
    return _several_rows(rule, cls, qtype, n, k, dtype, numbers)
