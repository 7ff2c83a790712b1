"""How processes that share a machine begin: each on cores of its own, the engine's thread behind the process's own."""

from __future__ import annotations

import contextlib
import os
from collections.abc import Iterator
from datetime import timedelta

import torch.distributed as dist


def begin(time_limit: float = 1800.0) -> None:
    """Initialise torch.distributed with gloo from the variables that torchrun sets, for exchanges as quick as it has them.

    Those of one machine (LOCAL_RANK, LOCAL_WORLD_SIZE) divide the cores that this process may use: two that wake each
    other through a socket are otherwise drawn to one core and take turns. `time_limit`: seconds that an exchange may take.
    """
    keep_to_own_cores(int(os.environ.get("LOCAL_RANK", 0)), int(os.environ.get("LOCAL_WORLD_SIZE", 1)))
    with threads_that_give_way():
        dist.init_process_group("gloo", timeout=timedelta(seconds=time_limit))


def keep_to_own_cores(rank: int, count: int) -> None:
    """Of this process's cores the share of process `rank` of `count`, at least one."""
    cores = sorted(os.sched_getaffinity(0))
    first = rank * len(cores) // count
    os.sched_setaffinity(0, cores[first : max((rank + 1) * len(cores) // count, first + 1)])


@contextlib.contextmanager
def threads_that_give_way() -> Iterator[None]:
    """Threads that begin meanwhile do not interrupt another one when there is something to do, and wait for its pause.

    gloo's thread, told that data have come while the main one sends, spins until the connection's lock is free; on the
    same core it keeps the main one from ending that for a whole slice of time: ten times what an exchange takes.
    """
    policy, parameter = os.sched_getscheduler(0), os.sched_getparam(0)
    if policy == os.SCHED_OTHER:
        os.sched_setscheduler(0, os.SCHED_BATCH, parameter)
    try:
        yield
    finally:
        os.sched_setscheduler(0, policy, parameter)
