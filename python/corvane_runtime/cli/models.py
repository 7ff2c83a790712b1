"""Opens what the command is given as MODEL: a GGUF file, a folder of transformers, or a folder that save() wrote."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import torch
from tqdm import tqdm

from ..calibrate import SAMPLE_TEXT, Importance, load_importance, measure_importance, save_importance
from ..llama import Llama, load_folder, load_gguf
from ..parallel import Link
from ..storage import CONFIG, load
from ..tokenizer import ChatTokenizer
from ..weights import ModelError

DTYPES = {"float": torch.float32, "half": torch.float16, "bfloat16": torch.bfloat16, "double": torch.float64}
DEFAULT_FORMAT = "q4_0"


@contextmanager
def progress_bar(title: str, total: int, unit: str, hidden: bool = False) -> Iterator[Callable[[int], None]]:
    """A bar on standard error, none where that is no terminal; yields a function that is told of work done."""
    with tqdm(total=total, desc=title, unit=unit, unit_scale=True, disable=hidden or None, leave=False) as bar:
        yield bar.update


class ModelSource:
    """A model by its path, to be had in any format, or in the one that it was saved in."""

    def __init__(self, path: str, calibrated: bool = True, link: Link | None = None) -> None:
        """`calibrated`: weigh errors by the inputs' importance, measured at the first use and kept beside the model.

        `link`: to the processes that share the model.
        """
        self.path, self.calibrated, self.link = Path(path), calibrated, link
        self._importance: Importance | None = None
        self._dense: Llama | None = None
        self.is_saved = (self.path / CONFIG).is_file()
        if not self.path.exists():
            raise ModelError(f"{path}: there is no such file or folder")
        self.elements = 0

    @property
    def name(self) -> str:
        return self.path.stem if self.path.is_file() else self.path.resolve().name

    def _load(self, format: str | None, importance: Importance | None, title: str) -> Llama:
        read = load_folder if self.path.is_dir() else load_gguf
        hidden = self.link is not None and self.link.rank > 0
        with progress_bar(title, self.elements or None, "weight", hidden) as advance:
            return read(self.path, format, importance, advance, self.link)

    def dense(self) -> Llama:
        """The model with dense weights; ModelError for a packed one."""
        if self.is_saved:
            raise ModelError(f"{self.path}: is packed already, there are no dense weights")
        model = self._load(None, None, "reading")
        self.elements = sum(layer.weight.numel() for layer in model.modules() if isinstance(layer, torch.nn.Linear))
        return model

    def packed(self, format: str | None) -> Llama:
        """The model in a format, by default q4_0 or what it was saved in."""
        if self.is_saved:
            if format is not None:
                raise ModelError(f"{self.path}: is packed already; leave out --format")
            model = load(self.path, link=self.link)
            if not isinstance(model, Llama) or model.tokenizer is None:
                raise ModelError(f"{self.path}: is not a Llama model with its tokenizer; use it through Python")
            return model
        format = format or DEFAULT_FORMAT
        return self._load(format, self.importance(), f"packing {format}")

    def importance(self) -> Importance | None:
        """Importance of the inputs under the sample text, None where it is not wanted."""
        if self._importance is None and self.calibrated:
            # "modules" tells the names from those that earlier releases used.
            about = self.path if self.path.is_file() else self.path / "config.json"
            source = f"modules {about.stat().st_size} {about.stat().st_mtime_ns} {SAMPLE_TEXT.read_text()}"
            beside = self.path.parent / self.path.stem if self.path.is_file() else self.path / "corvane"
            cache = beside.with_name(beside.name + ".importance.npz")
            self._importance = load_importance(cache, source)
            if self._importance is None and self.link is not None:
                # Measuring takes the whole model, which need not fit here.
                if self.link.rank == 0:
                    text = "packs without the inputs' importance, which corvane pack measures on one machine"
                    print(f"corvane: {text}", file=sys.stderr)
            elif self._importance is None:
                self._importance = self._measure()
                try:
                    save_importance(self._importance, cache, source)
                except OSError as error:
                    print(f"corvane: the importance of inputs is not kept: {error}", file=sys.stderr)
        return self._importance

    def _measure(self) -> Importance:
        model = self.dense().prepare(fused=False)
        tokens = len(tokenizer_of(model).encode(SAMPLE_TEXT.read_text()))
        with progress_bar("reading the sample text", tokens, "token") as advance:
            return measure_importance(model, progress=advance)


def tokenizer_of(model: Llama) -> ChatTokenizer:
    if model.tokenizer is None:
        raise ModelError("the model has no tokenizer (tokenizer.json) beside it")
    return model.tokenizer
