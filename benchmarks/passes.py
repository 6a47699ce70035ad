"""How many passes of the wait loop, and how much memory, a run takes.

    passes.py --tool build/release/tzregister [--round-trip-ms MS] [--runs N] [--parallel N]
              [--only TEXT] [--list] [--unprivileged] [--own-windows]

Each case runs the real tool against a server of its own, on loopback or over a
link with delay. Needs root and /dev/net/tun for the link.
"""

from __future__ import annotations

import argparse
import contextlib
import functools
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, Optional

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "tests" / "end_to_end")]

import slow_link  # noqa: E402
from harness.counted_run import run_counted  # noqa: E402
from harness.credentials import CredentialFile  # noqa: E402
from harness.sandbox import Host  # noqa: E402
from harness.tls_files import CertificateAuthority  # noqa: E402

LOOPBACK = "127.0.0.1"
SERVER_NAME = "authority.example"
# A case with a text larger than this is not decided by who comes first; it is run
# a few times only.
RACING_BYTES = 10_000_000
LARGE_RUNS = 3
# On loopback what a pause waits for is there in microseconds; shortened, a
# pause is still long enough for the server's part of a big answer.
LOOPBACK_SLEEP_MS = "300"
TIME_LIMIT_SECONDS = 150.0
MEGABYTE = 1_000_000
MEBIBYTE = 1 << 20
RULES = "include /home/some/directory\n"


@dataclass(frozen=True)
class Serving:
    """What one server does."""

    size: int = 0
    tls: Optional[str] = None
    delayed: bool = False
    compress: bool = False
    close: bool = False


@dataclass(frozen=True)
class Case:
    """One row of the table."""

    label: str
    serving: Serving
    action: str = "discover"
    by_name: bool = False
    rules: int = 0
    below: str = ""

    def runs(self, wanted: int) -> int:
        """How often to run it."""
        return wanted if self.serving.size < RACING_BYTES else min(wanted, LARGE_RUNS)


@dataclass(frozen=True)
class Outcome:
    """What one run took."""

    passes: int
    peak_bytes: int
    failure: str = ""


def link_cases(delayed: bool) -> list[Case]:
    """The cases that are run over both links."""

    serving = functools.partial(Serving, delayed=delayed)
    return [
        Case("discover, HTTP by address", serving()),
        Case("discover, HTTP by name", serving(), by_name=True),
        Case("discover, HTTPS TLS 1.3", serving(tls="1.3")),
        Case("discover, HTTPS TLS 1.2", serving(tls="1.2")),
        Case("register, HTTP", serving(), "register"),
        Case("register, HTTP by name", serving(), "register", by_name=True),
        Case("register, HTTPS TLS 1.3", serving(tls="1.3"), "register"),
        Case("register, HTTPS TLS 1.2", serving(tls="1.2"), "register"),
        Case("register, server closes, HTTP", serving(close=True), "register"),
        Case("register, server closes, HTTP by name", serving(close=True), "register", by_name=True),
        Case("register, server closes, HTTPS TLS 1.3", serving(close=True, tls="1.3"), "register"),
        Case("register, server closes, HTTPS TLS 1.2", serving(close=True, tls="1.2"), "register"),
        Case("createds, 100 KB of rules, HTTP", serving(), "createds", rules=100_000),
        Case("createds, 100 KB of rules, HTTPS", serving(tls="1.3"), "createds", rules=100_000),
        *(Case(f"{size} MB answer, HTTP", serving(size=size * MEGABYTE)) for size in (1, 10, 60, 100, 200)),
        *(Case(f"{size} MB answer, HTTPS", serving(size=size * MEGABYTE, tls="1.3")) for size in (1, 10, 60)),
        *(Case(f"{size} MB answer, compressed", serving(size=size * MEGABYTE, compress=True)) for size in (10, 100)),
        Case("10 MB answer, compressed, HTTPS", serving(size=10 * MEGABYTE, compress=True, tls="1.3")),
    ]


def memory_cases() -> list[Case]:
    """What is of interest for its memory, over loopback alone."""
    sizes = [(size, Serving(size=size * MEGABYTE)) for size in (1, 10, 60, 200)]
    # Of short lines, no more are accepted.
    of_lines = [(size, Serving(size=size * MEGABYTE)) for size in (1, 10, 30)]
    return [
        *(Case(f"{size} MB of routing tables", serving, "routingtables") for size, serving in sizes),
        *(Case(f"{size} MB configuration file", serving, "configfile") for size, serving in of_lines),
        *(
            Case(f"{size} MB configuration file of one value", serving, "configfile", below="/one_value")
            for size, serving in sizes
        ),
    ]


def cases(over_link: bool) -> list[Case]:
    """Every row of one link."""
    return link_cases(True) if over_link else [*link_cases(False), *memory_cases()]


class Bench:
    """The servers, the link and the tool."""

    def __init__(self, options: argparse.Namespace, directory: Path) -> None:
        self.options = options
        self.directory = directory
        self._tls = CertificateAuthority(directory / "authority").server()
        self._near = self._far = -1

    @contextlib.contextmanager
    def link(self) -> Iterator[None]:
        """Moves this process to the near end of a link with delay."""
        slow_link.enter_new_namespace(self.options.own_windows)
        self._far = slow_link.this_namespace()
        far = slow_link.open_end(slow_link.FAR_ADDRESS, slow_link.NEAR_ADDRESS)
        slow_link.enter_new_namespace(self.options.own_windows)
        self._near = slow_link.this_namespace()
        near = slow_link.open_end(slow_link.NEAR_ADDRESS, slow_link.FAR_ADDRESS)
        with _ended(slow_link.start_carrier(near, far, self.options.round_trip_ms / 2000)):
            yield

    @contextlib.contextmanager
    def serving(self, serving: Serving) -> Iterator[int]:
        """Starts a server; its port."""
        command = [sys.executable, str(HERE / "answering_server.py"), "--size", str(serving.size)]
        command += ["--address", slow_link.FAR_ADDRESS if serving.delayed else LOOPBACK]
        if serving.tls:
            command += ["--tls", serving.tls, "--certificate", str(self._tls.certificate), "--key", str(self._tls.key)]
        command += ["--compress"] * serving.compress + ["--close"] * serving.close
        namespace = self._far if serving.delayed else self._near
        process = slow_link.start_in(namespace, command, stdout=subprocess.PIPE)
        with _ended(process):
            assert process.stdout is not None
            yield int(process.stdout.readline())

    def measure(self, case: Case, runs: int, parallel: int) -> list[Outcome]:
        """Runs a case several times."""
        with self.serving(case.serving) as port, ThreadPoolExecutor(parallel) as pool:
            return list(pool.map(lambda number: self._run_in_directory(case, port, number), range(runs)))

    def _run_in_directory(self, case: Case, port: int, number: int) -> Outcome:
        """One run of a case, in a directory of its own."""
        directory = Path(tempfile.mkdtemp(prefix=f"{number}-", dir=self.directory))
        try:
            return self._run(case, port, self._host(directory))
        finally:
            shutil.rmtree(directory)

    def _host(self, directory: Path) -> Host:
        host = Host(directory)
        if not self.options.unprivileged:
            host.capabilities = ["CAP_NET_ADMIN"]
        return host

    def _run(self, case: Case, port: int, host: Host) -> Outcome:
        address = slow_link.FAR_ADDRESS if case.serving.delayed else LOOPBACK
        host.name_address(SERVER_NAME, address)
        authority = f"{SERVER_NAME if case.by_name else address}:{port}{case.below}"
        url = f"http{'s' if case.serving.tls else ''}://{authority}"
        environment = {} if case.serving.delayed else {"PASS_SLEEP_MS": LOOPBACK_SLEEP_MS}
        with open(host.work / "stdout", "wb") as stdout:
            run = run_counted(
                host, *_arguments(case, host, url), environment=environment, stdout=stdout, time_limit=TIME_LIMIT_SECONDS
            )
        failure = "" if run.result.status == 0 else run.result.stderr.decode(errors="replace").splitlines()[0]
        return Outcome(run.passes, run.peak_bytes, failure)


@contextlib.contextmanager
def _ended(process: "subprocess.Popen[bytes]") -> Iterator[None]:
    """Ends the process with the block."""
    try:
        yield
    finally:
        process.kill()
        process.wait()


def _arguments(case: Case, host: Host, url: str) -> list[str]:
    """The tool's arguments, with the files that they need."""
    account = ["--url", url, "--login", "admin", "--passwd", "secret"]
    agent = ["--action", case.action, "--type", "Agent"]
    if case.action == "discover":
        return ["--action", "discover", *account]
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(host.work))
    if case.action == "register":
        return [*agent, "--agentType", "1", "--hostname", "h", *account]
    if case.action == "configfile":
        return [*agent, *account]
    stored = CredentialFile(host.work / "Agent.cfg", url=url, keydir=str(host.work / "keys"))
    stored.write()
    agent += ["--configfile", str(stored.path)]
    if case.action == "routingtables":
        return [*agent, "--storagepoolid", "1", "--agentid", "42"]
    rules = (RULES * (case.rules // len(RULES) + 1))[: case.rules]
    return [*agent, "--dsname", "home", "--dstypeid", "4", "--dsrules", rules]


def row(case: Case, outcomes: list[Outcome]) -> dict[str, object]:
    """What the runs of a case come to."""
    passes = [outcome.passes for outcome in outcomes]
    failures = [outcome.failure for outcome in outcomes if outcome.failure]
    peak_mib = max(outcome.peak_bytes for outcome in outcomes) / MEBIBYTE
    return {
        "case": case.label,
        "MB": case.serving.size // MEGABYTE,
        "usual": statistics.mode(passes),
        "worst": max(passes),
        "runs": len(passes),
        "peak MiB": round(peak_mib, 1),
        "failed": len(failures),
        "failure": failures[0] if failures else "",
    }


def parse_arguments() -> argparse.Namespace:
    """The command line."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", type=Path)
    parser.add_argument("--round-trip-ms", type=float, default=0, help="over a link with this delay, not loopback")
    parser.add_argument("--runs", type=int, default=1)
    parser.add_argument("--only", action="append", default=[], help="cases whose names hold this text")
    parser.add_argument("--list", action="store_true", help="name the cases and end")
    parser.add_argument("--parallel", type=int, default=5, help="runs of a case at the same time")
    parser.add_argument("--unprivileged", action="store_true", help="the tool has none of root's rights")
    parser.add_argument("--own-windows", action="store_true", help="TCP's windows as this machine has them")
    return parser.parse_args()


def main() -> None:
    """Runs the chosen cases."""
    options = parse_arguments()
    over_link = options.round_trip_ms > 0
    chosen = [case for case in cases(over_link) if not options.only or any(text in case.label for text in options.only)]
    if options.list:
        print("\n".join(case.label for case in chosen))
        return
    os.environ["TZREGISTER_BINARY"] = str(options.tool)
    with tempfile.TemporaryDirectory() as directory:
        bench = Bench(options, Path(directory))
        with bench.link():
            for case in chosen:
                outcomes = bench.measure(case, case.runs(options.runs), options.parallel)
                print(json.dumps(row(case, outcomes)), flush=True)


if __name__ == "__main__":
    main()
