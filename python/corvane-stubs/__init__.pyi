"""LLM inference primitives on packed low-bit weights, for tensors on the device "xpu".

A packed weight of `output_size` rows of `state_size` elements is a contiguous one-dimensional torch.uint8 tensor; an
integer, `qtype`, names its format. The number of rows follows from the number of bytes. A row begins on a block:
`state_size` is a multiple of the format's 64 or 256 elements. "A floating type" is float, half, bfloat16 or double, the
same for all tensors that it is said of.

Ids: 2 q4_0, 3 q4_1, 6 q5_0, 7 q5_1, 8 q8_0, 10 nf4, 11 nf3, 15 fp8_e4m3, 16 fp4, 19 fp8_e5m2, 21 iq2_xxs, 23 q2_k,
24 iq1_s, 26 q6_k, 27 q4_k, 28 q5_k, 29 fp6, 30 fp6_k.

Everything is checked before anything is launched or written: TypeError for a wrong number or kind of arguments,
RuntimeError for tensors, sizes, element types and formats that an operator does not take. Tensors have to be contiguous
and on the XPU device unless an operator says otherwise.
"""

from torch import Tensor

__version__: str

def forward_new(input: Tensor, weight: Tensor, qtype: int, row_hint: int, /) -> Tensor:
    """Linear layer y = x W^T from a packed weight of any format, for any number of rows.

    input: (rows, state_size), a floating type. weight: packed. row_hint: a number of rows that the caller expects; above
    128 it allows the expansion of q4_0 in tiles, and nothing else reads it.

    Returns (rows, output_size), of the type of input.

    Reads VOREL_LLM_SYSDOT_DISABLED, TILE_THRESHOLD, TILE_SIZE and TARN_LLM_LOW_MEM at every call; one that ought to be a
    number and is not raises ValueError, one out of range IndexError. Several rows of double or bfloat16 with fp8_e4m3,
    fp6 or fp6_k may be refused with RuntimeError: those are expanded to float and half alone.
    """

def forward_qkv(
    input: Tensor,
    weight_q: Tensor,
    weight_k: Tensor,
    weight_v: Tensor,
    position_ids: Tensor,
    cache_k: Tensor,
    cache_v: Tensor,
    src_0_qtype: int,
    src_0_vtype: int,
    kv_seq_len: int,
    head_size: int,
    rope_base: float = 10000.0,
) -> list[Tensor]:
    """Query, key and value of one token in one launch; query and key are rotated, key and value go into the caches.

    input: (1, K), a floating type. weight_q, weight_k, weight_v: packed, K columns, rows a multiple of head_size.
    position_ids: torch.int64, the first is the token's position. cache_k, cache_v: (1, heads, length, head_size), of the
    type of input, narrowed views of larger buffers. src_0_qtype: format of weight_q and weight_k, one of 2, 16, 19, 21,
    29. src_0_vtype: format by which the size of weight_v is read; weight_v itself is read as src_0_qtype, or as q2_k with
    21. kv_seq_len: the place in the caches. head_size: even.

    Returns [query, key, value]: (1, heads of weight_q, 1, head_size), and views of the caches one position longer.

    Raises RuntimeError for more than one row, a format without a kernel, an odd head_size or one that does not divide the
    rows, and caches of another type or shape or without room for the token.
    """

def forward_qkv_bias(
    input: Tensor,
    weight_q: Tensor,
    weight_k: Tensor,
    weight_v: Tensor,
    bias_q: Tensor,
    bias_k: Tensor,
    bias_v: Tensor,
    position_ids: Tensor,
    cache_k: Tensor,
    cache_v: Tensor,
    src_0_qtype: int,
    src_0_vtype: int,
    kv_seq_len: int,
    head_size: int,
    rope_base: float,
    /,
) -> list[Tensor]:
    """forward_qkv with a bias for each row of a weight, of the type of input, added before the rotation.

    iq2_xxs (21) ignores the biases. Raises RuntimeError as forward_qkv does, and for a bias that does not fit its weight.
    """

def forward_qk(
    input: Tensor,
    weight_q: Tensor,
    weight_k: Tensor,
    position_ids: Tensor,
    cache_k: Tensor,
    src_0_qtype: int,
    kv_seq_len: int,
    head_size: int,
    rope_base: float,
    /,
) -> list[Tensor]:
    """Query and key of forward_qkv without a value, for iq2_xxs (src_0_qtype 21) alone; K is a multiple of 256.

    Returns [query, key]: (1, heads of weight_q, 1, head_size), and a view of cache_k one position longer. Raises
    RuntimeError as forward_qkv does.
    """

def dequant(input: Tensor, weight: Tensor, qtype: int, /) -> Tensor:
    """A packed weight as a dense matrix.

    input: (any, state_size), a floating type; its values are not read. qtype: 2, 3, 8, 10, 16, 19 or 21; with the id of
    another format the result has undefined values.

    Returns (output_size, state_size), of the type of input.
    """

def bmm(a: Tensor, b: Tensor, c: Tensor, /) -> Tensor:
    """c = a b for each matrix of a batch, in float, each sum in ascending order.

    a: (batch, M, K). b: (batch, K, N). c: at least batch * M * N elements, written in the order (batch, M, N).

    Returns c. Raises RuntimeError for sizes that do not fit each other, and for another type than float.
    """

def mlp_forward_xpu(
    input: Tensor,
    first: Tensor,
    second: Tensor,
    batch_size: int,
    state_size: int,
    output_size: int,
    activation: int,
    qtype: int,
    /,
) -> Tensor:
    """act(x first^T) * (x second^T): the gated half of a feed-forward layer, for one row, in one launch.

    input: one row of state_size elements, a floating type. first, second: packed, output_size rows. batch_size: 1.
    activation: 0 for SiLU, any other for the tanh form of GELU. qtype: 2, 16, 19 or 29; 21 on device classes 0 and 5.

    Returns (1, output_size), of the type of input. Raises RuntimeError for another batch_size, a format without a kernel,
    and weights smaller than the sizes say.
    """

def rwkv_linear_attention_v4(
    time_decay: Tensor,
    time_first: Tensor,
    key: Tensor,
    value: Tensor,
    num_state: Tensor,
    den_state: Tensor,
    max_state: Tensor,
    /,
) -> Tensor:
    """RWKV attention, version 4, over all tokens of the call; the three states are updated in place.

    time_decay, time_first: (H), H a multiple of 32. key, value: (B, S, H). These are float or half, all the same.
    num_state, den_state, max_state: (B, H), float; a fresh start is 0, 0 and -1e38.

    Returns (B, S, H), of the type of key. Raises RuntimeError for other sizes and types.
    """

def rwkv_linear_attention_v5(
    time_decay: Tensor, time_first: Tensor, receptance: Tensor, key: Tensor, value: Tensor, state: Tensor, /
) -> Tensor:
    """RWKV attention, version 5, over all tokens of the call; state is updated in place. All float.

    time_decay, time_first: (N, 64). receptance, key, value: (B, N, S, 64), all read with key's strides.
    state: (B, N, 64, 64).

    Returns (B, S, N, 64). Raises RuntimeError for other sizes, strides and types.
    """

def rwkv_time_shift(hidden: Tensor, shifted: Tensor, mix: Tensor, /) -> Tensor:
    """shifted + mix * (hidden - shifted) for each of M mix vectors, in one pass.

    hidden, shifted: (B, S, H), H a multiple of 64. mix: (M, 1, H). Float or half, all the same.

    Returns (M, B, S, H). Raises RuntimeError for other sizes and types.
    """

def dequantize_rows(input: Tensor, weight: Tensor, qtype: int, state_size: int, output_size: int, /) -> Tensor:
    """Rows of a packed table by number.

    input: (d0, d1), torch.int64, numbers from 0 to output_size - 1. weight: packed, output_size rows of state_size
    elements, a multiple of 256. qtype: 23 or 27; with the id of another format the result has undefined values.

    Returns float (d0, d1, state_size). Raises RuntimeError for a number out of range and a weight of another size.
    """

def get_moe_indexes(selected_experts: Tensor, n_experts: int, /) -> list[list[list[int]]]:
    """The places at which each expert was selected, from the experts of each token. Runs on the host.

    selected_experts: (tokens, selected), torch.int32, contiguous, in host memory, entries from 0 to n_experts - 1.

    Returns two lists of n_experts lists: result[0][e] the positions at which expert e was selected, result[1][e] the
    tokens. Raises ValueError for a negative n_experts, RuntimeError for one above 2^24, for an entry that is no expert
    and for a tensor of another type, shape or device.
    """
