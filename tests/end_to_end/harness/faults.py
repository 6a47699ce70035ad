"""Runs of the tool in which one call fails: the other side of tests/faults/faults.c."""

from __future__ import annotations

import contextlib
import os
import socket
import ssl
import struct
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, Mapping, Optional, Sequence

from harness.raw_server import RawServer, Reply, end_sending, http_answer
from harness.registered_host import RegisteredHost
from harness.sandbox import Result

# calls, injected, number, target, writing: as the library has them.
_REPORT = struct.Struct("=QQqqq")

# A failed allocation in the TLS library can leave both sides waiting for each other until
# the tool's own deadline.
TIME_LIMIT_SECONDS = 160.0

# What still fails when all is done and reported is easily forgotten.
LAST = 8


def places(calls: int, most: int = 0) -> list[int]:
    """The calls to make fail, of so many: all of them, or this many spread over the run and its last ones.

    TZREGISTER_ALL_FAULTS in the environment asks for all, whatever the test would take.
    """
    if not most or calls <= most or "TZREGISTER_ALL_FAULTS" in os.environ:
        return list(range(1, calls + 1))
    return [1 + place * calls // most for place in range(most)] + list(range(calls - LAST + 1, calls + 1))


@dataclass(frozen=True)
class Fault:
    """Which call of a run fails, and how: the first one counted is 1, none is 0."""

    kind: str
    first: int
    effect: str
    onwards: bool = False

    def __str__(self) -> str:
        return f"{self.kind}:{self.first}{'+' if self.onwards else ''}:{self.effect}"


@dataclass(frozen=True)
class FaultedRun:
    """What one run left behind, and what the library saw of it."""

    result: Result
    changes: Mapping[str, bytes]
    calls: int  # of the kind, before the run ended
    injected: int  # of them made to fail
    target: int  # first argument of the last one, for a system call
    torn: bool  # a file was emptied and not closed yet


class FaultedHost:
    """A registered host on which calls fail on demand."""

    def __init__(self, machine: RegisteredHost, report: Path) -> None:
        self.machine = machine
        self._report = report
        machine.host.shown.append(report)
        library = machine.host.install_library(Path(os.environ["TZREGISTER_FAULTS_LIBRARY"]))
        machine.host.environment["LD_PRELOAD"] = library
        machine.host.environment["TZREGISTER_FAULT_REPORT"] = str(report)
        report.write_bytes(bytes(_REPORT.size))

    def run(self, action: str, url: str, fault: Fault) -> FaultedRun:
        """Runs an action with this fault."""
        with self._report.open("r+b") as report:
            report.write(bytes(_REPORT.size))
        environment = {"TZREGISTER_FAULT": str(fault)}
        result, changes = self.machine.run(action, url, environment, TIME_LIMIT_SECONDS)
        calls, injected, _, target, writing = _REPORT.unpack(self._report.read_bytes())
        return FaultedRun(result, changes, calls, injected, target, writing >= 0)


class _Always(Sequence[Reply]):
    """The same reply for every connection."""

    def __init__(self, reply: Reply) -> None:
        self._reply = reply

    def __getitem__(self, _: object) -> Reply:  # type: ignore[override]
        return self._reply

    def __len__(self) -> int:
        return 1 << 60


@contextlib.contextmanager
def page_server(pages: Mapping[str, bytes], tls: Optional[ssl.SSLContext] = None) -> Iterator[RawServer]:
    """A server that answers each of these pages with its text, as often as it is asked."""
    server = RawServer(tls=tls)

    def answer(stream: socket.socket) -> None:
        page = server.requests[-1].request_line.split()[1].rpartition("/")[2]
        stream.sendall(http_answer(pages[page]))
        end_sending(stream)

    server.replies = _Always(answer)
    with server:
        yield server
