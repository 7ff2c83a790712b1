"""How each kernel is launched: source stem, profiler label, ranges and required sub-group size.

Ranges are tuples, dimension 0 first. A sub-group size of None means that the kernel requires none; ANY that nothing
is fixed.
"""

from __future__ import annotations

from typing import NamedTuple

from .paths import RULES

ANY = "any"

LINEAR, PROJECTION, MLP = "linear_xpu_kernel", "linear_xpu_fused_qkv_kernel", "mlp_xpu_kernel"
LABEL = "lumen_kernel"


class Launch(NamedTuple):
    kernel: str
    source: str
    label: str
    global_size: tuple
    local_size: tuple
    sub_group_size: int | str | None


def ceil_div(a: int, b: int) -> int:
    return -(-a // b)


def sizes(cls: int) -> tuple[int, int]:
    """Sub-group and work-group size of the matrix-vector kernels on a device class."""
    return (32, 64) if cls == 0 else (16, 32)


# Output rows that a work-group of a one-row kernel makes; q4_0 makes 8 on class 5.
_ROWS = {"q5_0": 1, "q5_1": 1}

# Row expansion: local size by the largest of these that divides state_size, else the last number.
_LOCAL = {
    "1x4": (((1024, 256), (512, 128), (256, 64), (128, 32)), 16),
    "1x2": (((512, 256), (256, 128), (128, 64)), 32),
    "1x1": (((256, 256), (128, 128)), 64),
}

# Other general expansions: local size, work-items that a super-block takes (None: one for each element).
_EXPANSION = {
    "q5_0": (256, None), "q5_1": (256, None), "nf3_new": (256, None), "q2_k": (64, 64), "q4_k": (32, 32),
    "q5_k": (64, 64), "q6_k": (64, 64), "iq2_xxs": (32, 32), "iq1_s": (32, 32),
}  # fmt: skip

# Explicit-SIMD expansions: blocks that a thread expands, elements of a block, label.
_SIMD = {
    "q4_0": (8, 64, "dequantize q4_0"), "q4_1": (8, 64, "dequantize q4_1"), "fp4": (8, 64, "dequantize fp4"),
    "q8_0": (4, 64, "dequantize q8_0"), "fp8_e4m3": (4, 64, "dequantize fp8 e4m3"),
    "fp8_e5m2": (4, 64, "dequantize fp8 e5m2"), "fp6": (8, 64, "dequantize fp6"),
    "fp6_k": (2, 256, "dequantize fp6_k"), "q4_k": (2, 256, "dequantize q4_k"), "q6_k": (2, 256, "dequantize q6_k"),
}  # fmt: skip


def row_local(variant: str, k: int) -> int:
    """Work-group size of a row expansion kernel."""
    table, least = _LOCAL[variant]
    return next((local for divisor, local in table if k % divisor == 0), least)


def quantize(k: int) -> Launch:
    return Launch("quantize_xpu_kernel_q8_1", LINEAR, LABEL, (k,), (256,), 32)


def expansion(kernel: str, cls: int, n: int, k: int) -> Launch:
    """Kernels that expand a whole weight, or a tile of n rows of one."""
    if kernel.startswith("dequantize_"):
        blocks, elements, label = _SIMD[kernel[len("dequantize_") : -len("_kernel")]]
        return Launch(kernel, "dequantize", label, (ceil_div(n * k // elements, blocks),), (1,), ANY)
    stem = kernel.split("_kernel_")[1]
    if stem[-3:] in _LOCAL:
        local = row_local(stem[-3:], k)
        return Launch(kernel, LINEAR, LABEL, (n * local,), (local,), sizes(cls)[0])
    local, per_block = _EXPANSION[stem]
    total = n * k if per_block is None else n * k // 256 * per_block
    return Launch(kernel, LINEAR, LABEL, (total,), (local,), ANY)


def linear(kernel: str, cls: int, n: int, k: int, rows: int = 1) -> Launch:
    """Any kernel of a linear call. For a tile kernel n is the rows of the tile."""
    sub, local = sizes(cls)
    if kernel == "quantize_xpu_kernel_q8_1":
        return quantize(k)
    if kernel == "sysdot_forward_kernel":
        columns = 16 if cls == 0 else 8
        return Launch(kernel, "sysdot_xpu_kernel", LABEL, (n // columns * 8, ceil_div(rows, 8)), (8, 1), 1)
    if "dequantize" in kernel:
        return expansion(kernel, cls, n, k)
    if kernel == "qlinear_xpu_kernel_iq2_xxs_q8_1":
        return Launch(kernel, LINEAR, LABEL, ((n * 16 + 16) // 32 * 32, 2), (32, 2), 32)
    if kernel == "qlinear_xpu_kernel_iq1_s_q8_1":
        return Launch(kernel, LINEAR, LABEL, (n * 32, 1), (32, 1), 32)
    if kernel == "qlinear_xpu_kernel_q2_k_q8_1":
        return Launch(kernel, LINEAR, LABEL, (n * 32, 1), (32, 1), None)
    if kernel == "qlinear_xpu_kernel_q5_k":
        return Launch(kernel, LINEAR, LABEL, (ceil_div(n, 2) * 32,), (32,), 8)
    if kernel.endswith("_batch"):
        return Launch(kernel, LINEAR, LABEL, (ceil_div(n, 2) * local, ceil_div(rows, 2)), (local, 1), sub)
    per_group = _ROWS.get(kernel.rsplit("_kernel_")[-1], 2)
    if kernel == "qlinear_xpu_kernel_q4_0_2x16" and cls == 5:
        per_group = 8
    return Launch(kernel, LINEAR, LABEL, (ceil_div(n, per_group) * local,), (local,), sub)


_QKV = {
    2: "qlinear_xpu_kernel_q4_0_2x16_qkv", 16: "qlinear_xpu_kernel_fp4_2x16_qkv",
    19: "qlinear_xpu_kernel_fp8_e5m2_2x8_qkv", 29: "qlinear_xpu_kernel_fp6_qkv", 21: "qlinear_xpu_kernel_iq2_xxs_qkv",
}  # fmt: skip


def projections(cls: int, qtype: int, k: int, row_counts: tuple) -> list:
    """Launches of forward_qkv (three row counts) or forward_qk (two)."""
    sub, local = {21: (32, 32), 29: (32, 64)}.get(qtype, sizes(cls))
    kernel = _QKV[qtype] if len(row_counts) == 3 else "qlinear_xpu_kernel_iq2_xxs_qk"
    main = Launch(kernel, PROJECTION, LABEL, (max(row_counts) // 2 * local, len(row_counts)), (local, 1), sub)
    return [quantize(k), main] if qtype == 21 else [main]


def mlp(cls: int, qtype: int, n: int, k: int) -> list:
    """Launches of the gated MLP."""
    if qtype == 21:
        return [quantize(k), Launch("mlp_forward_iq2_xxs_kernel", MLP, LABEL, ((n + 1) // 2 * 32, 2), (32, 2), 32)]
    name = {2: "q4_0", 16: "fp4", 19: "fp8_e5m2", 29: "fp6"}[qtype]
    sub, local = sizes(cls)
    per_group = 8 if cls == 5 and qtype in (2, 29) else 2
    return [Launch(f"mlp_forward_{name}_kernel", MLP, LABEL, (-(-n // per_group) * local,), (local,), sub)]


def dequantize_rows(qtype: int, count: int, k: int) -> Launch:
    """`count` rows of k elements."""
    name, local = {23: ("q2_k", 64), 27: ("q4_k", 32)}[qtype]
    groups = count * (k // 256)
    return Launch(f"xpu_dequantize_rows_kernel_{name}", LINEAR, LABEL, (groups * local,), (local,), None)


def dequant(cls: int, qtype: int, n: int, k: int) -> Launch:
    """The operator `dequant`: the general expansion that ends the format's rules."""
    rule = RULES[qtype][-1]
    return expansion(rule.other if cls != 0 and rule.other else rule.kernel, cls, n, k)
