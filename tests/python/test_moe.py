"""The grouping of expert choices."""

import re

import corvane
import pytest
import torch
from reference.operators import moe_indexes


def choices(rows):
    return torch.tensor(rows, dtype=torch.int32)


@pytest.mark.parametrize(
    ("selected", "experts", "positions", "tokens"),
    [
        (choices([[1, 0], [1, 2]]), 3, [[1], [0, 0], [1]], [[0], [0, 1], [1]]),
        (choices([[0, 2, 1, 2], [2, 1, 0, 2]]), 3, [[0, 2], [2, 1], [1, 3, 0, 3]], [[0, 1], [0, 1], [0, 0, 1, 1]]),
        (torch.empty(0, 2, dtype=torch.int32), 2, [[], []], [[], []]),
        (torch.empty(2, 0, dtype=torch.int32), 2, [[], []], [[], []]),
        (torch.empty(2**40, 0, dtype=torch.int32), 1, [[]], [[]]),
        (torch.empty(0, 2, dtype=torch.int32), 0, [], []),
    ],
    ids=["each token once", "an expert twice for a token", "no tokens", "none selected", "very long", "no experts"],
)
def test_by_hand(selected, experts, positions, tokens):
    assert corvane.get_moe_indexes(selected, experts) == [positions, tokens]


def test_against_the_reference():
    selected = torch.randint(0, 60, (500, 6), dtype=torch.int32, generator=torch.Generator().manual_seed(1))
    assert corvane.get_moe_indexes(selected, 64) == moe_indexes(selected, 64)


GOOD = choices([[1, 0], [1, 2]])


@pytest.mark.parametrize(
    ("selected", "experts", "kind", "text"),
    [
        (GOOD.long(), -1, RuntimeError, "expected scalar type Int but found Long"),
        (GOOD[0], -1, RuntimeError, "selected_experts.dim() == 2"),
        (GOOD.T, -1, RuntimeError, "selected_experts.is_contiguous()"),
        (GOOD, -1, ValueError, "cannot create std::vector larger than max_size()"),
        (choices([[7]]), 2**31 - 1, RuntimeError, "n_experts must be at most 16777216, found 2147483647"),
        (GOOD.to("xpu"), 3, RuntimeError, "selected_experts must be in host memory: move it with .cpu()"),
        (GOOD, 2, RuntimeError, "selected_experts[1][1] is 2, which is none of 2 experts"),
        (choices([[0], [0], [-1]]), 2, RuntimeError, "selected_experts[2][0] is -1, which is none of 2 experts"),
        (choices([[0]]), 0, RuntimeError, "selected_experts[0][0] is 0, which is none of 0 experts"),
    ],
    ids=lambda value: value if isinstance(value, str) else "",
)
def test_refusals(selected, experts, kind, text):
    with pytest.raises(kind, match=rf"^{re.escape(text)}(\n|$)"):
        corvane.get_moe_indexes(selected, experts)
