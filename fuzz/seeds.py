"""Writes the seed corpus, fuzz/corpus/surface: calls that are answered, of every operator and format, and the plain
forms of what is refused. Run it from the root after a change of the order in which the fuzzer reads its input."""

from pathlib import Path

CORPUS = Path("fuzz/corpus/surface")
SEED = b"\x2a\x00\x00\x00\x00\x00"  # of the contents, and nothing wrong with any tensor
ON_CPU = b"\x2a\x00\x00\x00\x80\x00"  # the first tensor in host memory
FORMATS = [2, 3, 6, 7, 8, 10, 11, 15, 16, 19, 21, 23, 24, 26, 27, 28, 29, 30]
FUSED_FORMATS = [2, 16, 19, 21, 29]
OPERATORS = ["forward_new", "forward_qkv", "forward_qkv_bias", "forward_qk", "dequant", "bmm", "mlp_forward_xpu",
             "rwkv_linear_attention_v4", "rwkv_linear_attention_v5", "rwkv_time_shift", "dequantize_rows",
             "get_moe_indexes"]  # fmt: skip
USUAL = 0  # what byte_source::rarely() takes for "no"
FLOAT, HALF, BFLOAT16, DOUBLE = range(4)
SPARSE, DENSE = 0x00, 0xA0


def write(name: str, data: bytes) -> None:
    CORPUS.mkdir(parents=True, exist_ok=True)
    (CORPUS / name).write_bytes(data)


def call(operator: str, *fields: int | bytes, order: int = 0, environment: bytes = bytes(5)) -> bytes:
    """A call on the surface: which operator, the order of work-groups, the environment, then the operator's fields."""
    head = bytes([OPERATORS.index(operator), order]) + environment
    said = b"".join(f if isinstance(f, bytes) else bytes([f]) for f in fields)
    return head + said + bytes(8)  # what is there can be changed


def shape(blocks: int, rows: int) -> bytes:
    """State size in blocks, 1 to 5; rows 16, 32 or 48, or any below 48."""
    return bytes([blocks - 1, USUAL, 2 * (rows // 16 - 1) if rows % 16 == 0 else 2 * rows + 1])


def forward_new(qtype: int, dtype: int, rows: int, blocks: int, outputs: int, **more: int | bytes) -> bytes:
    hint = [int(rows > 20), USUAL]
    fields = [FORMATS.index(qtype), USUAL, dtype, SPARSE, shape(blocks, outputs), rows - 1, *hint, SEED]
    return call("forward_new", *fields, bytes([USUAL, USUAL]), **more)


def surface() -> None:
    dtypes = [FLOAT, HALF, BFLOAT16, DOUBLE]
    for i, qtype in enumerate(FORMATS):  # one row of each format, then more rows by every path
        write(f"forward_new_one_row_{qtype}", forward_new(qtype, dtypes[i % 4], 1, 1 + i % 3, 16 + i))
    for qtype, dtype, rows in [(2, HALF, 5), (10, BFLOAT16, 9), (8, FLOAT, 12), (15, HALF, 3), (19, BFLOAT16, 16),
                               (3, FLOAT, 9), (29, HALF, 9), (30, FLOAT, 9), (27, HALF, 4), (26, DOUBLE, 4)]:  # fmt: skip
        write(f"forward_new_{rows}_rows_{qtype}", forward_new(qtype, dtype, rows, 2, 32, order=0x81))
    for qtype in (2, 8, 19):  # a threshold of 1 and low-memory mode: tiles of 7
        tiles = forward_new(qtype, FLOAT, 40, 2, 32, environment=bytes([USUAL, 1, 2, 2, 2]))
        write(f"forward_new_tiles_{qtype}", tiles)
    malformed = bytes([0xFF, 0, 8, 0, 0])  # the ninth of the numbers is "x"
    write("forward_new_malformed", forward_new(2, FLOAT, 1, 1, 16, environment=malformed))
    write("forward_new_on_the_cpu", forward_new(2, FLOAT, 1, 1, 16).replace(SEED, ON_CPU))
    for qtype in (2, 19, 21):
        fields = [FORMATS.index(qtype), USUAL, HALF, shape(2, 16), SEED, USUAL, USUAL, 1]
        write(f"dequant_{qtype}", call("dequant", *fields))
        projection = [FUSED_FORMATS.index(qtype), USUAL, USUAL, FLOAT, shape(2, 16), 0, 1, 0, 3, 1, 1, USUAL, USUAL, 0]
        write(f"forward_qkv_{qtype}", call("forward_qkv", *projection, SEED))
        write(f"forward_qkv_bias_{qtype}", call("forward_qkv_bias", *projection, SEED))
        mlp = [FUSED_FORMATS.index(qtype), USUAL, HALF, SPARSE, shape(2, 16), USUAL, 0, USUAL, USUAL, USUAL, SEED]
        write(f"mlp_{qtype}", call("mlp_forward_xpu", *mlp))
    write("forward_qk", call("forward_qk", USUAL, USUAL, FLOAT, shape(1, 16), 0, 1, 0, 3, 1, 1, USUAL, USUAL, 0, SEED))
    for picks in (0, 1):
        rows = [USUAL, picks, shape(2, 16), USUAL, USUAL, SEED, USUAL, USUAL, 2, 2]
        write(f"dequantize_rows_{picks}", call("dequantize_rows", *rows))
        for operator, sizes in [("rwkv_linear_attention_v4", [1, 3, 1]), ("rwkv_time_shift", [1, 3, 1, 2])]:
            fields = [*sizes, USUAL, picks, DENSE, USUAL, SEED]
            write(f"{operator}_{picks}", call(operator, *fields))
        v5 = [0, 1, 2, USUAL, SPARSE, picks, SEED]
        write(f"rwkv_linear_attention_v5_{picks}", call("rwkv_linear_attention_v5", *v5))
    write("bmm", call("bmm", 1, 5, 7, 6, DENSE, SEED))
    write("get_moe_indexes", call("get_moe_indexes", 0, SEED, 5, 2))


surface()
