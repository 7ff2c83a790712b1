"""Two network namespaces that stand for two machines, with a link between them that delays and loses packets.

The link is a TUN device in each namespace and a process that carries packets from one to the other: kernels without
netem, of which there are many in containers, can do no other.

    python two_machines.py NAMESPACE NAMESPACE DELAY LOSS     seconds, and the part of packets that are lost
"""

from __future__ import annotations

import contextlib
import ctypes
import fcntl
import heapq
import os
import random
import select
import shutil
import struct
import subprocess
import sys
import time
from collections.abc import Iterator

ADDRESSES, DEVICE = ("10.77.0.1", "10.77.0.2"), "wire"
TUNSETIFF, IFF_TUN, IFF_NO_PI, CLONE_NEWNET = 0x400454CA, 0x0001, 0x1000, 0x40000000


def missing() -> str | None:
    """What the machine lacks for it, None for nothing."""
    if os.geteuid() != 0:
        return "two network namespaces need root"
    if shutil.which("ip") is None:
        return "there is no ip command (Debian package iproute2)"
    if not os.path.exists("/dev/net/tun"):
        return "the kernel has no TUN devices"
    return None


@contextlib.contextmanager
def machines(delay: float, loss: float) -> Iterator[tuple[str, str]]:
    """The names of two namespaces that reach each other at ADDRESSES over DEVICE."""
    names = f"corvane-{os.getpid()}-a", f"corvane-{os.getpid()}-b"
    made = []
    relay = None
    try:
        for name in names:
            subprocess.run(["ip", "netns", "add", name], check=True)
            made.append(name)
        command = [sys.executable, __file__, *names, str(delay), str(loss)]
        relay = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        if relay.stdout.readline() != "ready\n":
            raise RuntimeError("the link between the namespaces did not come up")
        for name, address in zip(names, ADDRESSES, strict=True):
            for line in (f"addr add {address}/24 dev {DEVICE}", f"link set {DEVICE} up", "link set lo up"):
                subprocess.run(["ip", "-n", name, *line.split()], check=True)
        yield names
    finally:
        if relay is not None:
            relay.kill()
            relay.wait()
        for name in made:
            subprocess.run(["ip", "netns", "del", name], check=True)


def device_in(namespace: str) -> int:
    """A TUN device of a namespace, as a file of this process."""
    with open(f"/var/run/netns/{namespace}") as file:
        if ctypes.CDLL(None, use_errno=True).setns(file.fileno(), CLONE_NEWNET):
            raise OSError(ctypes.get_errno(), f"cannot enter {namespace}")
    device = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    fcntl.ioctl(device, TUNSETIFF, struct.pack("16sH", DEVICE.encode(), IFF_TUN | IFF_NO_PI))
    return device


def carry(devices: list[int], delay: float, loss: float) -> None:
    """Carry packets between two devices until this process ends."""
    chance, under_way, number = random.Random(1), [], 0
    while True:
        wait = max(0.0, under_way[0][0] - time.monotonic()) if under_way else None
        for device in select.select(devices, [], [], wait)[0]:
            packet = os.read(device, 65536)
            if chance.random() >= loss:
                number += 1
                target = devices[1 - devices.index(device)]
                heapq.heappush(under_way, (time.monotonic() + delay, number, target, packet))
        while under_way and under_way[0][0] <= time.monotonic():
            _, _, target, packet = heapq.heappop(under_way)
            with contextlib.suppress(OSError):  # a device that is not up yet
                os.write(target, packet)


if __name__ == "__main__":
    found = [device_in(name) for name in sys.argv[1:3]]
    print("ready", flush=True)
    carry(found, float(sys.argv[3]), float(sys.argv[4]))
