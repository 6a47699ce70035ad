"""Made-up hosts, each with files of its own, on which the real tzregister-enroll is run and measured."""

from __future__ import annotations

import base64
import json
import os
from dataclasses import dataclass
from pathlib import Path

import paths  # noqa: F401  (finds the imports below)
from harness.sandbox import Result
from real_host import EnrolHost

_TIME_LIMIT_S = 5400.0

# Waits for the run and notes what it and the programs that it started used.
_WATCH = """
import json, os, sys, time
begin = time.monotonic()
child = os.posix_spawn(sys.argv[2], sys.argv[2:], os.environ)
_, status, usage = os.wait4(child, 0)
figures = {"begin": begin, "end": time.monotonic(),
           "cpu_s": usage.ru_utime + usage.ru_stime, "peak_bytes": usage.ru_maxrss * 1024}
with open(sys.argv[1], "w") as file:
    json.dump(figures, file)
sys.exit(os.waitstatus_to_exitcode(status) % 256)
"""


@dataclass(frozen=True)
class Run:
    """How one enrolment ended and what it took; `begin` and `end` are readings of the monotonic clock."""

    status: int
    stdout: str
    stderr: str
    begin: float
    end: float
    cpu_s: float
    peak_bytes: int

    @property
    def wall_s(self) -> float:
        """How long it took."""
        return self.end - self.begin

    @property
    def retries(self) -> int:
        """How often it tried something again."""
        return self.stderr.count(" result=passing ")


class LoadHost(EnrolHost):
    """A host of a fleet: a name, a machine id and a key of its own."""

    def __init__(self, folder: Path, number: int, site_files: tuple[Path, Path]) -> None:
        super().__init__(folder / f"h{number}")
        password_file, certificate = site_files
        self.name = f"host{number:06d}.example"
        self.key = base64.b64encode(os.urandom(64)) + b"\n"
        self.set_name(self.name)
        self.machine_id.write_text(f"{number:032x}\n")
        self.write_secret(self.keydir / "auth.key", self.key.decode())
        self.write_secret(self.password_file, password_file.read_text())
        self.trust(certificate)

    def enrol_measured(self, url: str) -> Run:
        """Runs tzregister-enroll as an administrator would."""
        usage = self.work / "usage.json"
        account = ("--url", url, "--login", "admin", "--passwdfile", str(self.password_file))
        shell = f"shift; exec /usr/bin/python3 -ISc '{_WATCH}' {usage} ./tzregister-enroll \"$@\""
        done: Result = self.run(*account, "--hostname", self.name, shell=shell, time_limit=_TIME_LIMIT_S)
        figures = json.loads(usage.read_text())
        return Run(done.status, done.stdout.decode(), done.stderr.decode("utf-8", "replace"), **figures)
