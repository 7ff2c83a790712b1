"""The processes that torchrun starts for --tensor-parallel: their group, what they have to agree on, how they end."""

from __future__ import annotations

import argparse
import contextlib
import logging
import os
import sys
from collections.abc import Iterator

import torch.distributed as dist

from ..parallel import Link, begin, link_to

OWN_OPTIONS = ("model", "run", "figures")  # in these the processes may differ


@contextlib.contextmanager
def processes(options: argparse.Namespace) -> Iterator[Link]:
    """The group, from the variables that torchrun sets. Rank 0 alone prints; each process that fails says why, and ends.

    RuntimeError: no such variables.
    """
    if "RANK" not in os.environ or "WORLD_SIZE" not in os.environ:
        raise RuntimeError(
            "--tensor-parallel takes its processes from torchrun: "
            "torchrun --nproc-per-node 2 -m corvane_runtime generate MODEL --tensor-parallel"
        )
    rank, link = int(os.environ["RANK"]), None
    if rank:
        logging.getLogger("corvane_runtime").setLevel(logging.ERROR)  # rank 0 says the same
    try:
        begin(options.time_limit)
        link = link_to()
        link.agree({f"--{name}": str(value) for name, value in vars(options).items() if name not in OWN_OPTIONS})
        with open(os.devnull, "w") as nowhere, contextlib.redirect_stdout(sys.stdout if rank == 0 else nowhere):
            yield link
        link.close()
    except BaseException as error:
        text = str(error).splitlines()[0] if str(error) else type(error).__name__
        print(f"corvane: rank {rank}: {text}", file=sys.stderr, flush=True)
        if link is not None:
            link.fail(text)
        # A thread of the group may be in an exchange that nobody answers, and would be waited for.
        os._exit(1)
    dist.destroy_process_group()
