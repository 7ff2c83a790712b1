"""The Python examples of the documentation, run as a reader would: those of a page one after the other."""

import re
from pathlib import Path

import corvane
import pytest
import torch

ROOT = Path(__file__).parents[2]
PAGES = ["README.md", "docs/operators.md", "docs/architecture.md", "docs/device_classes.md", "docs/formats.md",
         "docs/runtime.md"]  # fmt: skip
if hasattr(torch, "compile"):
    PAGES.append("docs/pytorch.md")


def python_blocks(page: str) -> list[tuple[int, str]]:
    """Line number and text of each Python block of a page."""
    text = (ROOT / page).read_text()
    found = re.finditer(r"^```python\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
    return [(text.count("\n", 0, block.start(1)), block[1]) for block in found]


@pytest.mark.parametrize("page", PAGES)
def test_examples_run(page):
    blocks = python_blocks(page)
    assert blocks
    namespace = {}
    for line, text in blocks:
        exec(compile("\n" * line + text, str(ROOT / page), "exec"), namespace)


def test_every_operator_has_a_section_with_an_example():
    operators = [name for name in vars(corvane) if not name.startswith("_")]
    sections = re.split(r"^## ", (ROOT / "docs/operators.md").read_text(), flags=re.MULTILINE)
    titles = [section.splitlines()[0] for section in sections]
    assert [title for title in titles if title in operators] == operators
    for title, section in zip(titles, sections, strict=True):
        assert title not in operators or f"corvane.{title}(" in section
