"""One model over several processes, on one machine or more: packed layers cut by heads and columns (tensor parallel).

    begin()                                     # or torch.distributed.init_process_group(...)
    model = shard_(model, group)                # of a model that each process holds whole
    model = load("folder", link=link_to(group))    # reads the share alone

docs/scaling.md says what it gains and what it costs.
"""

from .cut import COLUMNS, ROWS, Cut, Plan, cut_packed
from .layers import INPUT_SHARES, OUTPUT_SHARES, PackedInputShare, PackedOutputShare
from .link import GroupFault, Link, link_to
from .processes import begin
from .shard import fingerprint, join, plan_of, shard_, share, sizes_of, versions

__all__ = [
    "COLUMNS", "Cut", "GroupFault", "INPUT_SHARES", "Link", "OUTPUT_SHARES", "PackedInputShare", "PackedOutputShare", "Plan",
    "ROWS", "begin", "cut_packed", "fingerprint", "join", "link_to", "plan_of", "shard_", "share", "sizes_of", "versions",
]  # fmt: skip
