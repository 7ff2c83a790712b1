"""Text to token numbers and back for a GGUF file's byte-level BPE, and the chat form that instruction models expect."""

from __future__ import annotations

import re
from collections.abc import Iterable, Iterator, Sequence

from tokenizers import AddedToken, Tokenizer, decoders, models, pre_tokenizers

CONTROL_KIND = 3  # token_type of the tokens that mark turns and ends, never part of text

# How text is cut into words before the merges, by the file's name for it.
BYTE_LEVEL = pre_tokenizers.ByteLevel(add_prefix_space=False, use_regex=True)
SPLITS = {
    "smollm": pre_tokenizers.Sequence([pre_tokenizers.Digits(individual_digits=True), BYTE_LEVEL]),
    "gpt-2": BYTE_LEVEL,
    "default": BYTE_LEVEL,
}


class ChatTokenizer:
    """Byte-level BPE from a GGUF file's lists of tokens, kinds and merges."""

    def __init__(
        self,
        tokens: Sequence[str],
        kinds: Sequence[int],
        merges: Sequence[str],
        split: str,
        chat_template: str,
        begin: int | None,
        ends: set[int],
    ) -> None:
        if split not in SPLITS:
            raise ValueError(f"its text is split by {split}; this runtime knows {', '.join(SPLITS)}")
        pairs = [tuple(merge.split(" ", 1)) for merge in merges]
        self.core = Tokenizer(models.BPE({token: number for number, token in enumerate(tokens)}, pairs))
        self.core.pre_tokenizer = SPLITS[split]
        self.core.decoder = decoders.ByteLevel()
        control = [token for token, kind in zip(tokens, kinds, strict=True) if kind == CONTROL_KIND]
        self.core.add_special_tokens([AddedToken(token, normalized=False, special=True) for token in control])
        self.begin = begin
        self.ends = ends
        self.chat_template = chat_template

    def encode(self, text: str) -> list[int]:
        """Token numbers of a text, with the begin token where the model wants one."""
        numbers = self.core.encode(text, add_special_tokens=False).ids
        return numbers if self.begin is None else [self.begin, *numbers]

    def decode(self, numbers: Iterable[int]) -> str:
        """Text of token numbers, without control tokens."""
        return self.core.decode(list(numbers), skip_special_tokens=True)

    def chat(self, prompt: str) -> str:
        """One user turn in the model's chat form; the prompt as it is where the file names no form known here."""
        if "<|im_start|>" not in self.chat_template:
            return prompt
        # Templates of this form name the system turn that the model was tuned with.
        default = re.search(r"<\|im_start\|>system(?:\\n|\n)(.*?)<\|im_end\|>", self.chat_template, re.DOTALL)
        system = f"<|im_start|>system\n{default[1]}<|im_end|>\n" if default else ""
        return f"{system}<|im_start|>user\n{prompt}<|im_end|>\n<|im_start|>assistant\n"

    def stream(self, numbers: Iterable[int]) -> Iterator[str]:
        """Text piece by piece as token numbers come; bytes of a character that spans tokens are held until whole."""
        pending: list[int] = []
        for number in numbers:
            pending.append(number)
            piece = self.decode(pending)
            if not piece.endswith("\ufffd"):
                yield piece
                pending.clear()
        if pending:
            yield self.decode(pending)
