"""What goes wrong at the authority while a fleet registers."""

from __future__ import annotations

import contextlib
import os
import select
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

import paths
from authority_site import Site

NAMES = ("kill", "reset", "full")
DISK_BYTES = 48 << 20

_OUTAGE_S = 3.0
_FULL_S = 10.0
_REFILL_S = 0.02
_CHUNK = bytes(1 << 16)
_START_LIMIT_S = 30.0
_INSIDE = "TZREGISTER_LOAD_INSIDE"
_LAUNCHERS: Sequence[Sequence[str]] = (
    ("unshare", "--mount"),
    ("unshare", "--map-root-user", "--mount"),
    (sys.executable, str(paths.ROOT / "tests/end_to_end/harness/own_root.py")),
)


def enter_mount_namespace() -> None:
    """Starts the program anew where it may mount, unless it is there already."""
    if os.environ.get(_INSIDE):
        return
    os.environ[_INSIDE] = "yes"
    for launcher in _LAUNCHERS:
        probe = [*launcher, "mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", "/mnt"]
        if subprocess.run(probe, capture_output=True, check=False).returncode == 0:
            os.execvp(launcher[0], [*launcher, sys.executable, *sys.argv])
    sys.exit("load: no disk can be made full here: neither root nor a user namespace may mount")


@contextlib.contextmanager
def disk(directory: Path, small: bool) -> Iterator[None]:
    """Puts a small disk under a directory while the block runs, if one is wanted."""
    if not small:
        yield
        return
    options = f"size={DISK_BYTES},mode=0700"
    subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", str(directory)], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "--lazy", str(directory)], check=True)


def kill(site: Site) -> None:
    """Kills both servers in the middle of what they do, and starts them again."""
    site.end(signal.SIGKILL)
    time.sleep(_OUTAGE_S)
    site.start()


def fill(site: Site) -> None:
    """Keeps the authority's disk full for a while: what becomes free is taken at once."""
    filler = site.data / "filler"
    deadline = time.monotonic() + _FULL_S
    with open(filler, "wb", buffering=0) as stream:
        while time.monotonic() < deadline:
            with contextlib.suppress(OSError):
                while True:
                    stream.write(_CHUNK)
            with contextlib.suppress(OSError):
                stream.write(b"\0" * (os.fstatvfs(stream.fileno()).f_bsize))
            time.sleep(_REFILL_S)
    filler.unlink()


@dataclass
class Schedule:
    """Which fault comes when: once this part of the hosts is in."""

    site: Site
    hosts: int
    pending: list[tuple[float, str, Callable[[Site], None]]]

    @classmethod
    def of(cls, names: Sequence[str], site: Site, hosts: int) -> Schedule:
        """The faults of these names; `reset` has no moment."""
        known = ((0.25, "full", fill), (0.5, "kill", kill))
        return cls(site, hosts, [fault for fault in known if fault[1] in names])

    def at(self, done: int) -> None:
        """Called in the main thread when this many hosts have ended."""
        while self.pending and done >= self.pending[0][0] * self.hosts:
            _, name, strike = self.pending.pop(0)
            print(f"{name}: after {done} hosts", flush=True)
            strike(self.site)


@contextlib.contextmanager
def address(site: Site, resetting: bool) -> Iterator[str]:
    """Where the hosts are to ask: the site itself, or a proxy that resets every tenth connection."""
    if not resetting:
        yield site.url
        return
    proxy = Path(__file__).with_name("reset_proxy.py")
    command = ["setpriv", "--pdeathsig", "TERM", "--", sys.executable, str(proxy), "--to", str(site.port)]
    process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    try:
        assert process.stdout is not None
        if not select.select([process.stdout], [], [], _START_LIMIT_S)[0]:
            raise RuntimeError("the proxy did not start")
        yield f"https://127.0.0.1:{int(process.stdout.readline())}"
    finally:
        process.terminate()
        process.communicate()
