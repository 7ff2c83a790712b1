"""Soak: four threads, each on a stream of its own, call mixed operators for minutes, while this process runs short of
memory, forks, and has its threads moved between cores. Every outcome, result or refusal, is to be that of a process
that makes one call at a time, bit for bit; memory is to stay level. Run by scripts/test.sh --soak.

    PYTHONPATH=build/python:tests .venv/bin/python tests/soak/soak.py [seconds] [--seed N]
"""

from __future__ import annotations

import argparse
import collections
import ctypes
import faulthandler
import hashlib
import json
import os
import random
import resource
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import NamedTuple

import host_xpu
import torch
from reference.random_weights import random_weight
from reference.registry import FORMATS
from torch.nn import functional

import corvane

THREADS, CASES, CHILD_CALLS = 4, 400, 12
EXPANDED = ("q4_0", "q4_1", "q8_0", "nf4", "fp4", "fp8_e5m2", "iq2_xxs")  # what dequant writes
FUSED = ("q4_0", "fp4", "fp8_e5m2", "fp6")
EXPECTED_EVENTS = ("calls", "refusals", "failed allocations", "forks", "limits", "moves")
TOLERANCE = 0.05, 32 << 20  # RSS at the end over that after the first minute: a share of it, and bytes
DTYPES = [torch.float, torch.half, torch.bfloat16]


class Case(NamedTuple):
    name: str
    function: Callable
    arguments: list
    written: tuple[int, ...] = ()  # arguments that the call writes


class Made:
    """Cases that follow from a seed."""

    def __init__(self, seed: int) -> None:
        self.pick = random.Random(seed)
        self.values = torch.Generator().manual_seed(seed)

    def floats(self, *shape: int, dtype: torch.dtype = torch.float) -> torch.Tensor:
        return torch.randn(*shape, generator=self.values).to(dtype).to("xpu")

    def weight(self, name: str, n: int, k: int) -> torch.Tensor:
        return torch.from_numpy(random_weight(name, n, k, self.pick.randrange(1 << 30))).to("xpu")

    def sizes(self, name: str) -> tuple[int, int]:
        """Rows and columns of a weight: mostly small, now and then one for all cores and for the large blocks of memory."""
        large = self.pick.random() < 0.15
        unit = FORMATS[name].block_elements
        return 16 * self.pick.randint(*(100, 200) if large else (1, 12)), unit * self.pick.randint(1, 2048 // unit)

    def linear(self) -> Case:
        name, rows = self.pick.choice(list(FORMATS)), self.pick.choice([1, 1, 1, 2, 5, 8, 16, 40, 150])
        n, k = self.sizes(name)
        # double on the systolic path would end the process
        dtype = self.pick.choice([*DTYPES, torch.double] if rows == 1 else DTYPES)
        weight = self.weight(name, n, k)
        return self.case("forward_new", [self.floats(rows, k, dtype=dtype), weight, FORMATS[name].qtype, rows])

    def dequant(self) -> Case:
        name, dtype = self.pick.choice(EXPANDED), self.pick.choice([*DTYPES, torch.double])
        n, k = self.sizes(name)
        return self.case("dequant", [self.floats(1, k, dtype=dtype), self.weight(name, n, k), FORMATS[name].qtype])

    def dequantize_rows(self) -> Case:
        name = self.pick.choice(["q2_k", "q4_k"])
        n, k = self.sizes(name)
        rows = torch.randint(n, (2, 3), generator=self.values).to("xpu")
        return self.case("dequantize_rows", [rows, self.weight(name, n, k), FORMATS[name].qtype, k, n])

    def projection(self) -> Case:
        operator = self.pick.choice(["forward_qkv", "forward_qkv_bias", "forward_qk"])
        name = "iq2_xxs" if operator == "forward_qk" else self.pick.choice([*FUSED, "iq2_xxs"])
        dtype, head = self.pick.choice([*DTYPES, torch.double]), self.pick.choice([8, 64])
        count, k = 2 if operator == "forward_qk" else 3, FORMATS[name].block_elements * self.pick.randint(1, 4)
        kinds = [name, name, "q2_k" if name == "iq2_xxs" else name][:count]
        rows = [head * self.pick.randint(1, 4), *[head * self.pick.randint(1, 3)] * 2][:count]
        biases = [self.floats(n, dtype=dtype) for n in rows] if operator == "forward_qkv_bias" else []
        caches = [self.floats(1, n // head, 6, head, dtype=dtype) for n in rows[1:]]
        weights = [self.weight(kind, n, k) for kind, n in zip(kinds, rows, strict=True)]
        before = [self.floats(1, k, dtype=dtype), *weights, *biases, torch.tensor([5], device="xpu")]
        qtypes = [FORMATS[kind].qtype for kind in (kinds[0], kinds[-1])][: count - 1]
        written = tuple(range(len(before), len(before) + len(caches)))
        return self.case(operator, [*before, *caches, *qtypes, 3, head, 1e4], *written)

    def mlp(self) -> Case:
        name, form = self.pick.choice(FUSED), self.pick.randrange(2)
        n, k = self.sizes(name)
        x = self.floats(1, k, dtype=self.pick.choice([*DTYPES, torch.double]))
        weights = [self.weight(name, n, k) for _ in range(2)]
        return self.case("mlp_forward_xpu", [x, *weights, 1, k, n, form, FORMATS[name].qtype])

    def bmm(self) -> Case:
        b, m, k, n = self.pick.randint(1, 3), *(self.pick.randint(1, 90) for _ in range(3))
        return self.case("bmm", [self.floats(b, m, k), self.floats(b, k, n), self.floats(b, m, n)], 2)

    def rwkv(self) -> Case:
        tokens, hidden, dtype = self.pick.randint(1, 9), 64 * self.pick.randint(1, 6), self.pick.choice(DTYPES[:2])
        kind = self.pick.choice(["v4", "v5", "shift"])
        if kind == "v4":
            state = [self.floats(2, hidden), self.floats(2, hidden).abs() + 1, self.floats(2, hidden)]
            ends = [self.floats(hidden, dtype=dtype) for _ in range(2)]
            inputs = [self.floats(2, tokens, hidden, dtype=dtype) for _ in range(2)]
            return self.case("rwkv_linear_attention_v4", [*ends, *inputs, *state], 4, 5, 6)
        if kind == "v5":
            heads = self.pick.randint(1, 4)
            inputs = [self.floats(1, heads, tokens, 64) for _ in range(3)]
            ends = [self.floats(heads, 64) for _ in range(2)]
            return self.case("rwkv_linear_attention_v5", [*ends, *inputs, self.floats(1, heads, 64, 64)], 5)
        inputs = [self.floats(2, tokens, hidden, dtype=dtype) for _ in range(2)]
        return self.case("rwkv_time_shift", [*inputs, self.floats(3, 1, hidden, dtype=dtype)])

    def framework(self) -> Case:
        """The device's own product, and operators that run as the CPU's."""
        x = self.floats(self.pick.choice([1, 7, 130]), 512, dtype=self.pick.choice(DTYPES))
        if self.pick.random() < 0.5:
            w = self.floats(64 * self.pick.randint(1, 16), 512, dtype=x.dtype)
            return Case(f"linear {tuple(x.shape)} {tuple(w.shape)} {x.dtype}", functional.linear, [x, w])
        return Case(f"elements {tuple(x.shape)} {x.dtype}", lambda t: functional.silu(t).softmax(-1).t() * 2, [x])

    def case(self, operator: str, arguments: list, *written: int) -> Case:
        # torch.ops gives up Python's lock in a call, the module's functions do not.
        direct = operator in ("forward_new", "dequant", "mlp_forward_xpu") and self.pick.random() < 0.3
        name = [operator, *(f"{tuple(a.shape)} {a.dtype}" if isinstance(a, torch.Tensor) else a for a in arguments)]
        if self.pick.random() < 0.15:  # something that is refused
            at = self.pick.choice([i for i, a in enumerate(arguments) if isinstance(a, torch.Tensor)])
            spoil = self.pick.choice([torch.Tensor.cpu, lambda t: t[..., :-1], lambda t: t.unsqueeze(0).unsqueeze(0)])
            arguments = [spoil(a) if i == at else a for i, a in enumerate(arguments)]
            name.append(f"with argument {at} spoilt")
        function = getattr(corvane if direct else torch.ops.corvane, operator)
        return Case(" ".join(map(str, name)), function, arguments, written)

    def cases(self) -> list[Case]:
        kinds = [self.linear] * 6 + [self.dequant, self.dequantize_rows, self.projection, self.projection, self.mlp]
        kinds += [self.bmm, self.rwkv, self.rwkv, self.framework, self.framework]
        return [self.pick.choice(kinds)() for _ in range(CASES)]


def outcome(case: Case) -> str:
    """What came of a call: a digest of results and of what it wrote, or the kind and first line of its refusal."""
    arguments = [a.clone() if i in case.written else a for i, a in enumerate(case.arguments)]
    refusal, result = "", None
    try:
        result = case.function(*arguments)
    except (RuntimeError, TypeError, ValueError, IndexError) as error:
        refusal = f"{type(error).__name__}: {str(error).splitlines()[0]}"
    digest = hashlib.sha256()
    for tensor in [*([] if result is None else [result]), *(arguments[i] for i in case.written)]:
        digest.update(tensor.cpu().contiguous().view(-1).view(torch.uint8).numpy())
    return f"{refusal} {digest.hexdigest()[:16]}"


def memory(field: str) -> int:
    status = Path("/proc/self/status").read_text()
    return int(status.split(field + ":")[1].split()[0]) << 10


class Soak:
    def __init__(self, cases: list[Case], expected: list[str], seed: int) -> None:
        self.cases, self.expected, self.seed = cases, expected, seed
        self.counts: collections.Counter = collections.Counter()
        self.lock = threading.Lock()  # of the counts, when threads end
        self.wrong: list[str] = []
        self.short = 0  # limits on memory so far, twice; odd while there is one
        self.done = False

    def check(self, number: int) -> str:
        """Makes one call; what it counts as."""
        short = self.short
        try:
            found = outcome(self.cases[number])
        except (MemoryError, RuntimeError) as error:  # of the arguments' copies
            found = f"{type(error).__name__}: {error}"
        if found == self.expected[number]:
            return "calls" if found.startswith(" ") else "refusals"
        out_of_memory = any(text in found for text in ("memory", "Memory", "bad_alloc"))
        if out_of_memory and (short % 2 == 1 or self.short != short):
            return "failed allocations"
        self.wrong.append(f"{self.cases[number].name}:\n  {found}, not\n  {self.expected[number]}")
        return "deviations"

    def work(self, number: int) -> None:
        pick, mine = random.Random(self.seed + number), collections.Counter()
        try:
            with host_xpu.stream(host_xpu.Stream()):
                while not self.done:
                    mine[self.check(pick.randrange(CASES))] += 1
        except BaseException as error:
            self.wrong.append(f"a thread ended with {error!r}")
        with self.lock:
            self.counts.update(mine)

    def fork(self, pick: random.Random) -> None:
        numbers = [pick.randrange(CASES) for _ in range(CHILD_CALLS)]
        child = os.fork()
        if child == 0:
            faulthandler.dump_traceback_later(100, exit=True)
            self.wrong = []
            deviations = sum(self.check(number) == "deviations" for number in numbers)
            print(*self.wrong, sep="\n", end="", file=sys.stderr, flush=True)
            os._exit(deviations)
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        self.counts["forks"] += 1
        if status != 0:
            self.wrong.append(f"a forked process ended with {status}; its calls: {numbers}")

    def run_short(self, pick: random.Random) -> None:
        """A limit on address space for a moment, in which this thread asks for more than there is."""
        self.short += 1
        host_xpu.empty_cache()
        limit = memory("VmSize") + pick.randrange(1 << 20)
        resource.setrlimit(resource.RLIMIT_AS, (limit, resource.RLIM_INFINITY))
        refused = False
        try:
            torch.empty(1 << 30, dtype=torch.uint8, device="xpu")
        except (RuntimeError, MemoryError):
            refused = True
        for _ in range(40):
            self.counts[self.check(pick.randrange(CASES))] += 1
        resource.setrlimit(resource.RLIMIT_AS, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        self.short += 1
        self.counts["limits"] += 1
        if not refused:
            self.wrong.append("memory beyond the limit was had")

    def move(self, pick: random.Random) -> None:
        cores = sorted(all_cores)
        for thread in os.listdir("/proc/self/task"):
            try:
                os.sched_setaffinity(int(thread), pick.sample(cores, pick.randint(1, len(cores))))
            except OSError:  # it has ended
                continue
        self.counts["moves"] += 1

    def run(self, seconds: float) -> None:
        # Where threads wait for ever: where, and an end. Forked processes inherit no alarm.
        faulthandler.register(signal.SIGALRM, chain=True)
        signal.alarm(int(2 * seconds) + 300)
        threads = [threading.Thread(target=self.work, args=(number,)) for number in range(THREADS)]
        for thread in threads:
            thread.start()
        pick, start, level = random.Random(self.seed - 1), time.monotonic(), 0
        try:
            while (elapsed := time.monotonic() - start) < seconds and len(self.wrong) < 20:
                if level == 0 and elapsed >= min(60, seconds / 2):
                    level = memory("VmRSS")
                pick.choice([self.fork, self.run_short, self.move])(pick)
                time.sleep(0.3 * pick.random())
        finally:
            self.done = True
            for thread in threads:
                thread.join()
        signal.alarm(0)
        # Limits that no call met, or no refusal, would have shown nothing.
        missing = [what for what in EXPECTED_EVENTS if self.counts[what] == 0]
        if missing and seconds >= 60:
            self.wrong.append(f"there were no {', no '.join(missing)}")
        end, most = memory("VmRSS"), level * (1 + TOLERANCE[0]) + TOLERANCE[1]
        print(f"soak: memory {level >> 20} MiB after the first minute, or half the time; {end >> 20} MiB at the end")
        if end > most and level != 0:
            self.wrong.append(f"memory has grown to {end >> 20} MiB, more than {int(most) >> 20}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("seconds", nargs="?", type=float, default=600)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--expected", action="store_true", help="print the outcomes, in this thread alone")
    options = parser.parse_args()
    cases = Made(options.seed).cases()
    if options.expected:
        print(json.dumps([outcome(case) for case in cases]))
        return 0
    command = [sys.executable, __file__, "--expected", "--seed", str(options.seed)]
    alone = subprocess.run(command, stdout=subprocess.PIPE, check=True)
    ctypes.CDLL(None).mallopt(-3, 1 << 16)  # M_MMAP_THRESHOLD: memory that is freed goes back to the system
    soak = Soak(cases, json.loads(alone.stdout), options.seed)
    soak.run(options.seconds)
    print("soak:", ", ".join(f"{count} {what}" for what, count in sorted(soak.counts.items())))
    print("\n".join(soak.wrong))
    print(f"soak: {len(soak.wrong)} failed" if soak.wrong else "soak: passed")
    return 1 if soak.wrong else 0


all_cores = os.sched_getaffinity(0)
if __name__ == "__main__":
    sys.exit(main())
