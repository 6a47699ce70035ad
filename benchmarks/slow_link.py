"""Two network namespaces with a link between them that takes its time.

The link is a pair of TUN devices and a process that hands every packet on
after the delay: it needs no kernel module beyond TUN, and root, but no name in
the system. Everything is gone when the processes end.
"""

from __future__ import annotations

import ctypes
import fcntl
import os
import select
import struct
import subprocess
import sys
import time
from collections import deque
from pathlib import Path
from typing import Any, Deque, Optional, Sequence

NEAR_ADDRESS = "10.77.0.1"
FAR_ADDRESS = "10.77.0.2"

_CLONE_NEWNET = 0x40000000
_TUNSETIFF = 0x400454CA
_IFF_TUN_WITHOUT_HEADER = 0x1001
_DEVICE = "link0"
_PACKET_BYTES = 65536
# Enough for a whole window of small packets: the link delays, it does not lose.
_QUEUE_PACKETS = "20000"

# What a Debian host comes with, whatever this machine is set to.
_KERNEL_SETTINGS = {
    "tcp_rmem": "4096 131072 6291456",
    "tcp_wmem": "4096 16384 4194304",
}


class LinkError(Exception):
    """This machine or this user cannot make the link."""


def enter_new_namespace(own_windows: bool = False) -> None:
    """Moves this process into a network namespace of its own, with loopback up.

    TCP's windows are those of an untouched Debian, or as this machine has them.
    """
    if ctypes.CDLL(None, use_errno=True).unshare(_CLONE_NEWNET) != 0:
        raise LinkError(f"no network namespace can be made (root is needed): {os.strerror(ctypes.get_errno())}")
    _ip("link", "set", "lo", "up")
    for name, value in () if own_windows else _KERNEL_SETTINGS.items():
        Path("/proc/sys/net/ipv4", name).write_text(value, encoding="ascii")


def open_end(address: str, peer: str) -> int:
    """Makes this namespace's end of the link; the descriptor carries its packets."""
    try:
        end = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
        fcntl.ioctl(end, _TUNSETIFF, struct.pack("16sH22x", _DEVICE.encode(), _IFF_TUN_WITHOUT_HEADER))
    except OSError as error:
        raise LinkError(f"no TUN device can be made: {error}") from error
    _ip("addr", "add", address, "peer", peer, "dev", _DEVICE)
    _ip("link", "set", _DEVICE, "txqueuelen", _QUEUE_PACKETS, "up")
    return end


def this_namespace() -> int:
    """A descriptor of the network namespace that this process is in."""
    return os.open("/proc/self/ns/net", os.O_RDONLY)


def start(command: Sequence[str], descriptors: Sequence[int] = (), **more: Any) -> "subprocess.Popen[bytes]":
    """Starts a process that ends when this one does."""
    return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], pass_fds=descriptors, **more)


def start_in(namespace: int, command: Sequence[str], **more: Any) -> "subprocess.Popen[bytes]":
    """Starts a process in another network namespace."""
    return start(["nsenter", f"--net=/proc/self/fd/{namespace}", *command], [namespace], **more)


def start_carrier(near: int, far: int, delay_seconds: float) -> "subprocess.Popen[bytes]":
    """Starts the process that carries packets both ways, each after the delay."""
    return start([sys.executable, __file__, str(near), str(far), str(delay_seconds)], [near, far])


def _ip(*arguments: str) -> None:
    """Runs the `ip` command in this namespace."""
    subprocess.run(["ip", *arguments], check=True)


class _Lane:
    """One direction: packets with the time at which they arrive."""

    def __init__(self, source: int, target: int, delay_seconds: float) -> None:
        self.source = source
        self._target = target
        self._delay = delay_seconds
        self._packets: Deque[tuple[float, bytes]] = deque()

    def take(self) -> None:
        """Takes in everything that was sent by now."""
        try:
            while True:
                self._packets.append((time.monotonic() + self._delay, os.read(self.source, _PACKET_BYTES)))
        except BlockingIOError:
            pass

    def hand_on(self) -> Optional[float]:
        """Hands on what is due; the time at which the next packet is."""
        while self._packets and self._packets[0][0] <= time.monotonic():
            os.write(self._target, self._packets.popleft()[1])
        return self._packets[0][0] if self._packets else None


def _carry(near: int, far: int, delay_seconds: float) -> None:
    """Carries packets until the process is ended."""
    lanes = (_Lane(near, far, delay_seconds), _Lane(far, near, delay_seconds))
    while True:
        due = [at for lane in lanes if (at := lane.hand_on()) is not None]
        pause = max(0.0, min(due) - time.monotonic()) if due else None
        readable, _, _ = select.select([near, far], [], [], pause)
        for lane in lanes:
            if lane.source in readable:
                lane.take()


if __name__ == "__main__":
    _carry(int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3]))
