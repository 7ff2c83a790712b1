"""Who of a group still runs: each process shows signs of life in the group's store, and looks for those of the others.

A process that ends closes its connections, which says that somebody is gone but not who, and one that hangs says nothing
at all. A thread of each process counts up in the store, twice a second; who stops counting is the one.
"""

from __future__ import annotations

import threading
import time
from collections.abc import Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from torch.distributed import Store

PERIOD = 0.5  # seconds between two signs of life, less for groups with a short limit
MISSED = 4  # signs that a process may miss after a connection broke, before it counts as ended
DONE, FAILED, FAULT = "done", "failed", "fault"  # of its own; of another process


@dataclass
class Sign:
    """The last sign of a process: its text, when it was new, and the exchanges that the process has begun."""

    text: str
    seen: float
    begun: int


class Watch(threading.Thread):
    """The thread; `fault` is None or a text that names the process that is gone, and why it is thought so."""

    def __init__(self, store: Store, rank: int, names: Sequence[str], limit: float) -> None:
        """`names` are the processes by rank, as messages call them; `limit` is the group's time limit in seconds."""
        super().__init__(name="corvane-watch", daemon=True)
        self.store, self.rank, self.names, self.limit = store, rank, names, limit
        self.period = min(PERIOD, limit / 20)
        self.begun = 0  # exchanges, counted up by who makes them
        self.fault: str | None = None
        self._beat, self._stopped = 0, threading.Event()
        self._others: dict[int, Sign] = {}

    def run(self) -> None:
        turned = time.monotonic()
        while not self._stopped.wait(self.period):
            now = time.monotonic()
            if now - turned > 4 * self.period:  # this process stood still itself
                for sign in self._others.values():
                    sign.seen = now
            turned = now
            try:
                self.tell(f"{self._beat}")
                self.look(now)
            except RuntimeError as error:
                if not self._stopped.is_set():
                    self.fault = f"the group's store, of rank 0 or the launcher, is gone: {str(error).splitlines()[0]}"
                return
            self._beat += 1

    def tell(self, state: str) -> None:
        self.store.set(f"corvane/{self.rank}", f"{state} {self.begun}")

    def look(self, now: float) -> None:
        """Read the others' signs."""
        for rank, name in enumerate(self.names):
            if rank == self.rank:
                continue
            text = self.store.get(f"corvane/{rank}").decode()
            sign = self._others.get(rank)
            if sign is None or sign.text != text:
                state, _, begun = text.partition(" ")
                if state in (FAILED, FAULT):
                    self.fault = self.fault or (begun if state == FAULT else f"{name} has failed: {begun}")
                    begun = "0"
                self._others[rank] = Sign(text, now, int(begun))
            elif not text.startswith(DONE) and now - sign.seen > self.limit / 2:
                self.fault = self.fault or f"{name} does not answer"

    @property
    def is_told(self) -> bool:
        """Whether the others know that this process ends."""
        return self._stopped.is_set()

    def fail(self, cause: str, state: str = FAILED) -> None:
        """Tell the others that this process ends, and why: a failure of its own, or (FAULT) of another process."""
        self._stopped.set()
        self.join(2 * self.period)
        self.store.set(f"corvane/{self.rank}", f"{state} {cause}")

    def linger(self) -> None:
        """Keep the store, which may be of this process, until the others have read why it ends, or a while has passed."""
        end = time.monotonic() + min((MISSED + 2) * self.period, self.limit / 5)
        others = [rank for rank in range(len(self.names)) if rank != self.rank]
        while others and time.monotonic() < end:
            time.sleep(self.period / 4)
            signs = [self.store.get(f"corvane/{rank}").decode().split(" ")[0] for rank in others]
            others = [rank for rank, sign in zip(others, signs, strict=True) if sign not in (DONE, FAILED, FAULT)]

    def close(self) -> None:
        """Say that this process has done its part, so that its silence is no fault."""
        if not self._stopped.is_set():
            self._stopped.set()
            self.join(self.limit)
            self.tell(DONE)

    def blame(self, broken: bool) -> str:
        """Who is behind an exchange that failed. `broken`: a connection broke, so a process has ended.

        Waits until the one that ended has missed enough signs.
        """
        start = time.monotonic()
        patience = (MISSED + 2) * self.period if broken else 0.0
        while self.fault is None and time.monotonic() - start < patience:
            time.sleep(self.period / 4)
            missing = [rank for rank, sign in self._others.items() if self.is_missing(sign, start)]
            if missing:
                return f"{self.names[missing[0]]} has ended"
        if self.fault is not None:
            return self.fault
        late = min(self._others, key=lambda rank: self._others[rank].begun, default=None)
        if late is not None and self._others[late].begun < self.begun:
            return f"{self.names[late]} does not answer, though it runs"
        return "all processes run, but their connections do not hold"

    def is_missing(self, sign: Sign, start: float) -> bool:
        """Whether a process has shown no sign since shortly before `start`, for longer than it may."""
        now = time.monotonic()
        return not sign.text.startswith(DONE) and now - sign.seen > MISSED * self.period and now - start > self.period
