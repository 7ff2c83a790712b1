"""Text to token numbers and back, and the chat template that instruction models expect."""

from __future__ import annotations

import json
from collections.abc import Iterable, Iterator, Mapping, Sequence
from pathlib import Path

from jinja2 import TemplateError
from jinja2.sandbox import ImmutableSandboxedEnvironment
from tokenizers import AddedToken, Regex, Tokenizer, decoders, models, normalizers, pre_tokenizers

from .weights import ModelError, naming

CONTROL_KIND, USER_KIND = 3, 4  # token types of a GGUF file for tokens that are matched whole; control ones are no text

BYTE_LEVEL = pre_tokenizers.ByteLevel(add_prefix_space=False, use_regex=True)


def split_by(pattern: str) -> pre_tokenizers.Sequence:
    """Words by a pattern, then bytes as characters."""
    words = pre_tokenizers.Split(Regex(pattern), behavior="isolated")
    return pre_tokenizers.Sequence([words, pre_tokenizers.ByteLevel(add_prefix_space=False, use_regex=False)])


CONTRACTIONS = r"(?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|"
PUNCTUATION = r"| ?[^\s\p{L}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+"

# How text is cut into words before the merges, by a GGUF file's name for it.
SPLITS = {
    "smollm": pre_tokenizers.Sequence([pre_tokenizers.Digits(individual_digits=True), BYTE_LEVEL]),
    "gpt-2": BYTE_LEVEL,
    "default": BYTE_LEVEL,
    "llama-bpe": split_by(CONTRACTIONS + r"\p{N}{1,3}" + PUNCTUATION),
    "qwen2": split_by(CONTRACTIONS + r"\p{N}" + PUNCTUATION),
}


def byte_level_bpe(tokens: Sequence[str], merges: Sequence[str], split: str) -> Tokenizer:
    """A tokenizer of the GPT-2 kind. ModelError: a way to cut words that is not known here."""
    if split not in SPLITS:
        raise ModelError(f"its text is split by {split}; this runtime knows {', '.join(SPLITS)}")
    pairs = [tuple(merge.split(" ", 1)) for merge in merges]
    core = Tokenizer(models.BPE({token: number for number, token in enumerate(tokens)}, pairs))
    core.pre_tokenizer = SPLITS[split]
    core.decoder = decoders.ByteLevel()
    return core


def sentence_piece_bpe(tokens: Sequence[str], scores: Sequence[float], space_first: bool) -> Tokenizer:
    """A tokenizer of the SentencePiece kind: pieces with scores, the highest merged first, bytes for what is unknown."""
    numbers = {token: number for number, token in enumerate(tokens)}
    merges = []
    for token, number in numbers.items():
        for cut in range(1, len(token)):
            if token[:cut] in numbers and token[cut:] in numbers:
                merges.append((-scores[number], numbers[token[:cut]], numbers[token[cut:]], token[:cut], token[cut:]))
    pairs = [merge[3:] for merge in sorted(merges)]
    core = Tokenizer(models.BPE(numbers, pairs, unk_token="<unk>", fuse_unk=True, byte_fallback=True))
    spaces = [normalizers.Replace(" ", "▁")]
    core.normalizer = normalizers.Sequence([normalizers.Prepend("▁"), *spaces] if space_first else spaces)
    back = [decoders.Replace("▁", " "), decoders.ByteFallback(), decoders.Fuse()]
    core.decoder = decoders.Sequence([*back, decoders.Strip(" ", 1, 0)] if space_first else back)
    return core


def mark_control_tokens(core: Tokenizer, tokens: Sequence[str], kinds: Sequence[int]) -> None:
    """Tokens that mark turns and ends are matched whole, and are no part of decoded text."""
    whole = [(token, kind == CONTROL_KIND) for token, kind in zip(tokens, kinds) if kind in (CONTROL_KIND, USER_KIND)]
    core.add_special_tokens([AddedToken(token, normalized=False, special=True) for token, special in whole if special])
    core.add_tokens([AddedToken(token, normalized=False) for token, special in whole if not special])


class ChatTokenizer:
    """A tokenizer with what a conversation needs: begin and end tokens and the chat template."""

    def __init__(self, core: Tokenizer, begin: int | None, ends: set[int], chat_template: str | None = None) -> None:
        self.core = core
        self.begin = begin  # put before every text, None for models without
        self.ends = ends  # tokens that end an answer
        self.chat_template = chat_template

    def check(self) -> ChatTokenizer:
        """Gives itself back. ValueError: a begin or end that is no token's number, a chat template that is no text."""
        for token in [*self.ends, *([] if self.begin is None else [self.begin])]:
            if type(token) is not int or not 0 <= token < 1 << 32:
                raise ValueError(f"{token!r} is no token")
        if self.begin is not None and self.core.id_to_token(self.begin) is None:
            raise ValueError(f"there is no token {self.begin} to begin with")
        if not isinstance(self.chat_template, (str, type(None))):
            raise ValueError("the chat template is no text")
        return self

    def encode(self, text: str, begin: bool = True) -> list[int]:
        """Token numbers of a text, with the begin token where the model wants one."""
        numbers = self.core.encode(text, add_special_tokens=False).ids
        return numbers if self.begin is None or not begin else [self.begin, *numbers]

    def decode(self, numbers: Iterable[int]) -> str:
        """Text of token numbers, without control tokens."""
        return self.core.decode(list(numbers), skip_special_tokens=True)

    def chat(self, messages: str | Sequence[Mapping[str, str]]) -> list[int]:
        """Tokens of a conversation up to where the answer begins.

        `messages` are {"role": "system" | "user" | "assistant", "content": text}, or one user's text. Without a chat
        template the contents as they are. ModelError: a template that fails.
        """
        if isinstance(messages, str):
            messages = [{"role": "user", "content": messages}]
        if not self.chat_template:
            return self.encode("\n".join(message["content"] for message in messages))
        text = self.rendered(messages)
        begin = None if self.begin is None else self.core.id_to_token(self.begin)
        return self.encode(text, begin=begin is None or not text.startswith(begin))

    def rendered(self, messages: Sequence[Mapping[str, str]]) -> str:
        """The conversation in the template's words; the template runs in a sandbox that can change nothing."""
        sandbox = ImmutableSandboxedEnvironment(trim_blocks=True, lstrip_blocks=True)
        sandbox.globals["raise_exception"] = refuse
        sandbox.filters["tojson"] = lambda value, **_: json.dumps(value, ensure_ascii=False)
        names = {
            "bos_token": "" if self.begin is None else self.core.id_to_token(self.begin),
            "eos_token": self.core.id_to_token(min(self.ends)) if self.ends else "",
        }
        try:
            return sandbox.from_string(self.chat_template).render(
                messages=list(messages), add_generation_prompt=True, **names
            )
        except (TemplateError, TypeError, ValueError) as error:
            raise ModelError(f"the model's chat template failed: {error}") from error

    def stream(self, numbers: Iterable[int]) -> Iterator[str]:
        """Text piece by piece as token numbers come; bytes of a character that spans tokens are held until whole."""
        seen: list[int] = []
        text = ""
        for number in numbers:
            seen.append(number)
            whole = self.decode(seen)
            if not whole.endswith("\ufffd"):
                yield whole[len(text) :]
                # A few tokens stay, since a piece's leading space shows only behind another.
                seen = seen[-4:]
                text = self.decode(seen)
        rest = self.decode(seen)[len(text) :]
        if rest:
            yield rest

    def save(self, folder: Path) -> None:
        """Write tokenizer.json and chat.json, which load() reads."""
        (folder / "tokenizer.json").write_text(self.core.to_str())
        about = {"begin": self.begin, "ends": sorted(self.ends), "chat_template": self.chat_template}
        (folder / "chat.json").write_text(json.dumps(about, indent=1, ensure_ascii=False) + "\n")

    @classmethod
    def load(cls, folder: Path) -> ChatTokenizer | None:
        """The tokenizer of a folder that save() or transformers wrote, None where there is none."""
        file = folder / "tokenizer.json"
        if not file.is_file():
            return None
        try:
            core = Tokenizer.from_file(str(file))
        except Exception as error:  # the library's own kind has no name
            raise ModelError(f"{file}: cannot be read as a tokenizer: {error}") from error
        if (folder / "chat.json").is_file():
            about = read_json(folder / "chat.json")
            with naming(folder / "chat.json", "does not describe a conversation"):
                return cls(core, about["begin"], set(about["ends"]), about["chat_template"]).check()
        with naming(folder, "does not describe a conversation"):
            return cls(core, *from_transformers(folder, core)).check()


def refuse(text: str) -> None:
    raise TemplateError(text)


def read_json(path: Path) -> dict:
    try:
        found = json.loads(path.read_text())
    except (OSError, ValueError) as error:
        raise ModelError(f"{path}: cannot be read as JSON: {error}") from error
    if not isinstance(found, dict):
        raise ModelError(f"{path}: holds no JSON object")
    return found


def from_transformers(folder: Path, core: Tokenizer) -> tuple[int | None, set[int], str | None]:
    """Begin token, end tokens and chat template of a folder of transformers."""
    about = read_json(folder / "tokenizer_config.json") if (folder / "tokenizer_config.json").is_file() else {}
    ends: set[int] = set()
    for name in ("generation_config.json", "config.json"):
        if (folder / name).is_file():
            found = read_json(folder / name).get("eos_token_id")
            ends |= set(found if isinstance(found, list) else [found]) - {None}
    eos = token_text(about.get("eos_token"))
    if eos is not None and core.token_to_id(eos) is not None:
        ends.add(core.token_to_id(eos))
    bos = token_text(about.get("bos_token"))
    # What a tokenizer puts before a text is found by letting it.
    alone = core.encode("").ids
    begin = core.token_to_id(bos) if bos is not None and alone[:1] == [core.token_to_id(bos)] else None
    template = about.get("chat_template")
    if (folder / "chat_template.jinja").is_file():
        template = (folder / "chat_template.jinja").read_text()
    return begin, ends, template if isinstance(template, str) else None


def token_text(token: str | Mapping[str, str] | None) -> str | None:
    return token["content"] if isinstance(token, Mapping) else token
