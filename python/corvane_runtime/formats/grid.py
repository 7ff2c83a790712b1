"""The grid formats iq2_xxs and iq1_s, taken over from the blocks of a GGUF file, whose bytes they keep.

Choosing grid points well needs statistics of a model's activations, so nothing here makes them from dense weights. The
other formats with public block bytes, q2_k and q5_k, can be taken over in the same way.
"""

from __future__ import annotations

import gguf
import numpy as np

from .common import Bytes, Float, Format

# Formats whose packed bytes are the blocks of a GGUF file as they stand, and the file's type for each.
PUBLIC_BLOCKS = {
    "iq2_xxs": gguf.GGMLQuantizationType.IQ2_XXS,
    "iq1_s": gguf.GGMLQuantizationType.IQ1_S,
    "q2_k": gguf.GGMLQuantizationType.Q2_K,
    "q5_k": gguf.GGMLQuantizationType.Q5_K,
}


def take_over(format_: Format, blocks: Bytes, columns: int) -> Bytes:
    """Bytes of a GGUF tensor, uint8 (rows, bytes of a row), as a packed weight (rows, columns) of the same format."""
    if format_.name not in PUBLIC_BLOCKS:
        raise ValueError(f"{format_.name}: its bytes are not those of a public block")
    if blocks.dtype != np.uint8 or blocks.ndim != 2:
        raise ValueError(f"{format_.name}: blocks must be uint8 (rows, bytes of a row), not {blocks.dtype}")
    rows = blocks.shape[0]
    format_.check_shape(rows, columns)
    if blocks.size != format_.packed_bytes(rows, columns):
        raise ValueError(
            f"{format_.name}: {rows} rows of {columns} elements are {format_.packed_bytes(rows, columns)} bytes, "
            f"not {blocks.size}"
        )
    return np.ascontiguousarray(blocks).reshape(-1)


def decode_iq2_xxs(block: Bytes) -> Float:
    return gguf.dequantize(np.ascontiguousarray(block), PUBLIC_BLOCKS["iq2_xxs"])


def decode_iq1_s(block: Bytes) -> Float:
    return gguf.dequantize(np.ascontiguousarray(block), PUBLIC_BLOCKS["iq1_s"])


FORMATS = (
    Format("iq2_xxs", 21, 256, (66,), None, decode_iq2_xxs),
    Format("iq1_s", 24, 256, (50,), None, decode_iq1_s),
)
