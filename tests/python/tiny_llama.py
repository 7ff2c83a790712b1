"""A tiny Llama model with random weights in a GGUF file, for the tests of the runtime."""

from __future__ import annotations

from collections.abc import Mapping
from pathlib import Path

import gguf
import numpy as np

BYTES_AS_TEXT = [
    # Byte-level BPE writes each byte as one printable character: itself, or one from 256 upwards.
    chr(byte) if 33 <= byte <= 126 or 161 <= byte <= 172 or byte >= 174 else None
    for byte in range(256)
]
CONTROL = ["<|im_start|>", "<|im_end|>"]
MERGES = ["t h", "th e", "Ġ the"]
TEMPLATE = (
    "{{ '<|im_start|>system\nBe brief.<|im_end|>\n' }}"
    "{% for message in messages %}<|im_start|>{{ message.role }}\n{{ message.content }}<|im_end|>\n{% endfor %}"
    "{% if add_generation_prompt %}<|im_start|>assistant\n{% endif %}"
)


def tokens() -> list[str]:
    """Control tokens, all bytes, and what the merges make."""
    spare = iter(range(256, 512))
    alphabet = [text if text is not None else chr(next(spare)) for text in BYTES_AS_TEXT]
    return CONTROL + alphabet + ["th", "the", "Ġthe"]


VOCABULARY = 264  # the tokens above and three spare rows, a multiple of 8

LAYERS, HEADS, KV_HEADS, HEAD_SIZE, ROPE_BASE = 2, 4, 2, 64, 1000.0
HIDDEN, MLP = HEADS * HEAD_SIZE, 512


def shapes(heads: int = HEADS, kv_heads: int = KV_HEADS, mlp: int = MLP) -> dict[str, tuple[int, int]]:
    """Rows and columns of the matrices, by name without ".weight"."""
    inner, kv = heads * HEAD_SIZE, kv_heads * HEAD_SIZE
    layer = {
        "attn_q": (inner, HIDDEN),
        "attn_k": (kv, HIDDEN),
        "attn_v": (kv, HIDDEN),
        "attn_output": (HIDDEN, inner),
        "ffn_gate": (mlp, HIDDEN),
        "ffn_up": (mlp, HIDDEN),
        "ffn_down": (HIDDEN, mlp),
    }
    all_layers = {f"blk.{i}.{part}": shape for i in range(LAYERS) for part, shape in layer.items()}
    return {"token_embd": (VOCABULARY, HIDDEN), **all_layers}


def write_model(
    path: Path,
    blocks: Mapping[str, tuple[np.ndarray, gguf.GGMLQuantizationType]] | None = None,
    architecture: str = "llama",
    seed: int = 0,
    vectors: Mapping[str, np.ndarray] | None = None,
    sizes: tuple[int, int, int] = (HEADS, KV_HEADS, MLP),
) -> Path:
    """Write the model; `blocks` replaces matrices by stored blocks, uint8 (rows, bytes of a row), and their type.

    `vectors` are more tensors, by name; `sizes` are heads, key and value heads, and elements of the MLP.
    """
    rng = np.random.default_rng(seed)
    writer = gguf.GGUFWriter(path, architecture)
    writer.add_block_count(LAYERS)
    writer.add_context_length(128)
    writer.add_embedding_length(HIDDEN)
    heads, kv_heads, mlp = sizes
    writer.add_feed_forward_length(mlp)
    writer.add_head_count(heads)
    writer.add_head_count_kv(kv_heads)
    writer.add_key_length(HEAD_SIZE)
    writer.add_rope_freq_base(ROPE_BASE)
    writer.add_rope_dimension_count(HEAD_SIZE)
    writer.add_layer_norm_rms_eps(1e-5)
    writer.add_tokenizer_model("gpt2")
    writer.add_tokenizer_pre("smollm")
    names = tokens() + [f"<spare{i}>" for i in range(VOCABULARY - len(tokens()))]
    writer.add_token_list(names)
    writer.add_token_types([3 if name in CONTROL or name.startswith("<spare") else 1 for name in names])
    writer.add_token_merges(MERGES)
    writer.add_eos_token_id(1)
    writer.add_chat_template(TEMPLATE)
    for name, (rows, columns) in shapes(*sizes).items():
        if blocks and name in blocks:
            data, kind = blocks[name]
            writer.add_tensor(f"{name}.weight", data, raw_dtype=kind)
        else:
            # Small embeddings, so that the layers and not the last token decide what comes next.
            scale = 0.1 if name == "token_embd" else columns**-0.5
            writer.add_tensor(f"{name}.weight", rng.normal(0, scale, (rows, columns)).astype(np.float32))
    for name in [f"blk.{i}.{norm}" for i in range(LAYERS) for norm in ("attn_norm", "ffn_norm")] + ["output_norm"]:
        writer.add_tensor(f"{name}.weight", rng.uniform(0.5, 1.5, HIDDEN).astype(np.float32))
    for name, values in (vectors or {}).items():
        writer.add_tensor(name, values.astype(np.float32))
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    return path
