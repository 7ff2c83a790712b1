"""The exchanges of a model that several processes share: sums, gathered pieces, and the best of each one's candidates.

They go through a group of torch.distributed. Memory of the device is the host's, so a backend that takes tensors of the
CPU gets a view of it: nothing is copied before it is sent.
"""

from __future__ import annotations

import contextlib
import ctypes
import json
import socket
from collections.abc import Mapping, Sequence
from datetime import timedelta

import torch
import torch.distributed as dist

from ..device import DEVICE, host_xpu
from ..weights import ModelError
from .watch import FAULT, Watch

HOST_BACKENDS = ("gloo", "mpi", "ucc")
TICK = timedelta(seconds=0.5)  # after so long a wait looks whether another process is gone


class GroupFault(RuntimeError):
    """A process of the group has ended or does not answer; the text names its rank."""


class Link:
    """What a process has in common with the others of a group.

    Attributes: `rank` and `count` of the group; `sums`, `gathers` and `payload`, the exchanges made so far and the bytes
    of this process's tensors that went into them.
    """

    def __init__(self, group: dist.ProcessGroup) -> None:
        """Only for link_to(): what two links await of one group would be taken for each other's."""
        self.group = group
        self.rank, self.count = dist.get_rank(group), dist.get_world_size(group)
        self.on_host = any(name in dist.get_backend(group) for name in HOST_BACKENDS)
        self.device = torch.device("cpu") if self.on_host else DEVICE
        self.limit = limit_of(group, self.device)
        # Of two, each sends its values and adds: as many bytes as a reduction of the group, and a third of its time.
        self.pair = Pair(group, 1 - self.rank, self.limit) if self.count == 2 and self.on_host else None
        self.watch: Watch | None = None
        self.sums = self.gathers = self.payload = 0
        self.names: list[str] = []

    def open(self) -> None:
        """Begin to watch the other processes."""
        self.names = [f"rank {rank} on {host}" for rank, host in enumerate(self.texts(socket.gethostname()))]
        watch = Watch(dist.distributed_c10d._pg_map[self.group][1], self.rank, self.names, self.limit)
        watch.tell("0")
        self.texts("told")  # nobody looks for signs that are not there yet
        watch.start()
        self.watch = watch
        self.sums = self.gathers = self.payload = 0

    def sum(self, values: torch.Tensor) -> torch.Tensor:
        """The sum over the processes: in place for contiguous float and double, anew for others, which go as float."""
        if values.dtype not in (torch.float32, torch.float64) or not values.is_contiguous():
            return self.sum(values.float().contiguous()).to(values.dtype)
        self.sums += 1
        self.payload += values.numel() * values.element_size()
        own = self.sent(values)
        if self.pair is None:
            self.finish(self.group.allreduce([own]))
        else:
            torch.add(own, self.swap(own), out=own)
        return values

    def gather(self, values: torch.Tensor, sizes: Sequence[int]) -> torch.Tensor:
        """All processes' last dimensions side by side: (..., sizes[rank]) of each to (..., sum of sizes)."""
        piece = values.new_zeros(*values.shape[:-1], max(sizes))
        piece[..., : values.shape[-1]] = values
        pieces = self.pieces(piece)
        return torch.cat([part[..., :size] for part, size in zip(pieces, sizes, strict=True)], dim=-1)

    def best(self, value: float, number: int) -> int:
        """The number that belongs to the largest of all processes' values; of equal ones, that of the lowest rank."""
        pairs = torch.stack(self.pieces(torch.tensor([value, number], dtype=torch.float64, device=self.device)))
        return int(pairs[int(pairs[:, 0].argmax()), 1])

    def pieces(self, own: torch.Tensor) -> list[torch.Tensor]:
        """The tensors of all processes by rank, all of one shape and dtype."""
        self.gathers += 1
        self.payload += own.numel() * own.element_size()
        if self.pair is not None:
            other = self.swap(self.sent(own)).to(own.device, copy=True)
            return [own, other] if self.rank == 0 else [other, own]
        found = [torch.empty_like(own) for _ in range(self.count)]
        self.finish(self.group.allgather([[self.sent(piece) for piece in found]], [self.sent(own)]))
        return found

    def texts(self, own: str) -> list[str]:
        """A text of each process, by rank."""
        data = own.encode()
        lengths = [int(size) for size in self.pieces(torch.tensor([len(data)], device=self.device))]
        padded = torch.zeros(max(lengths), dtype=torch.uint8)
        padded[: len(data)] = torch.tensor(list(data), dtype=torch.uint8)
        pieces = self.pieces(padded.to(self.device))
        return [bytes(piece[:size].tolist()).decode() for piece, size in zip(pieces, lengths, strict=True)]

    def agree(self, facts: Mapping[str, str]) -> None:
        """Refuse a group whose processes differ in a fact, such as a version or a model. ModelError in all of them."""
        found = [json.loads(text) for text in self.texts(json.dumps(dict(facts)))]
        for rank, other in enumerate(found):
            for key in {**found[0], **other}:
                if other.get(key) != found[0].get(key):
                    raise ModelError(
                        f"{self.names[rank]} has another {key} than rank 0: {other.get(key)}, not {found[0].get(key)}"
                    )

    def sent(self, values: torch.Tensor) -> torch.Tensor:
        """A contiguous tensor as the backend takes it: a view on the CPU of the device's memory, or the tensor itself."""
        if not self.on_host or values.device.type == "cpu":
            return values
        host_xpu.synchronize()
        memory = (ctypes.c_char * (values.numel() * values.element_size())).from_address(values.data_ptr())
        return torch.frombuffer(memory, dtype=values.dtype).view(values.shape)

    def finish(self, work: dist.Work) -> None:
        """Wait for an exchange. GroupFault: another process has ended, or has not answered within the limit."""
        watch = self.watch
        if watch is not None:
            watch.begun += 1
        while True:
            try:
                work.wait(TICK)
                return
            except RuntimeError as error:
                if work.is_completed():
                    raise self.fault(error) from error
                if watch is not None and watch.fault is not None:
                    raise self.passed_on(watch.fault) from None

    def swap(self, own: torch.Tensor) -> torch.Tensor:
        """The other one's values, for a pair. Errors as those of finish."""
        if self.watch is not None:
            self.watch.begun += 1
        try:
            return self.pair.swap(own)
        except RuntimeError as error:
            raise self.fault(error) from error

    def fault(self, error: RuntimeError) -> GroupFault:
        """What an exchange that failed means."""
        text = str(error).splitlines()[0]
        if self.watch is None:
            return GroupFault(text)
        return self.passed_on(f"{self.watch.blame('imed out' not in text)} ({text})")

    def passed_on(self, text: str) -> GroupFault:
        """A fault of which the other processes learn too."""
        with contextlib.suppress(RuntimeError):  # from a store that is gone
            self.watch.fail(text, FAULT)
        return GroupFault(text)

    def fail(self, cause: str) -> None:
        """Tell the other processes that this one ends, and why, unless it is a fault of which they know."""
        with contextlib.suppress(RuntimeError):
            if not self.watch.is_told:
                self.watch.fail(cause)
            self.watch.linger()

    def close(self) -> None:
        """The last exchange: nobody ends before all have done their part."""
        if self.watch is not None:
            self.texts("done")
            self.watch.close()
            self.watch = None


_LINKS: dict[dist.ProcessGroup, Link] = {}


def link_to(group: dist.ProcessGroup | None = None) -> Link:
    """The link to the processes of a group, by default the default one; models of one group have it in common.

    All processes of the group call it together. RuntimeError: torch.distributed is not initialised.
    """
    group = dist.distributed_c10d._get_default_group() if group is None else group
    if group not in _LINKS:
        _LINKS[group] = Link(group)
    link = _LINKS[group]
    if link.watch is None:
        link.open()
    return link


class Pair:
    """The other one of two processes: a tensor goes each way. Of shapes of one row the next is awaited beforehand.

    A message that finds its place prepared goes at once; one that does not has to ask for it first.
    """

    def __init__(self, group: dist.ProcessGroup, other: int, limit: float) -> None:
        self.group, self.other = group, other
        self.wait = timedelta(seconds=limit * 0.7)  # a wait that ends cannot be taken up again
        self.places: dict[tuple[torch.dtype, int], Place] = {}

    def swap(self, own: torch.Tensor) -> torch.Tensor:
        """The other one's tensor of the same shape and dtype, on the CPU; its memory is used again two swaps later."""
        size = own.numel()
        place = self.places.get((own.dtype, size))
        if place is None:
            place = Place(own, 2 * len(self.places))
            place.coming = self.group.recv([place.tensors[0]], self.other, place.tag)
            self.places[own.dtype, size] = place
        turn = place.turn
        going = self.group.send([own], self.other, place.tag + turn)
        place.coming.wait(self.wait)
        going.wait(self.wait)
        if own.shape[-1] == size:
            place.turn = 1 - turn
            place.coming = self.group.recv([place.tensors[1 - turn]], self.other, place.tag + 1 - turn)
        else:
            del self.places[own.dtype, size]
        return place.tensors[turn].view(own.shape)


class Place:
    """Where the tensors of one size arrive, in turn in one of two."""

    def __init__(self, like: torch.Tensor, tag: int) -> None:
        self.tensors = torch.empty_like(like), torch.empty_like(like)
        self.tag, self.turn = tag, 0
        self.coming: dist.Work | None = None


def limit_of(group: dist.ProcessGroup, device: torch.device) -> float:
    """The time limit of a group's exchanges in seconds."""
    backend = group._get_backend(device) if hasattr(group, "_get_backend") else group
    return backend.options._timeout.total_seconds()
