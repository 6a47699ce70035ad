"""Registers a fleet of made-up hosts with the reference authority on this machine; see scripts/load."""

from __future__ import annotations

import argparse
import concurrent.futures
import sys
import tempfile
from collections.abc import Sequence
from pathlib import Path

import paths
import faults
from authority_site import WORKERS, Site, running
from figures import Clock, gather
from harness.sandbox import launcher
from hosts import LoadHost, Run
from verdict import Comparison, Enrolled, Verdict

_SHOWN_FAULTS = 20


def parse_options(arguments: Sequence[str]) -> argparse.Namespace:
    """The command line."""
    table = argparse.ArgumentParser(prog="load", allow_abbrev=False, description=__doc__)
    table.add_argument("--hosts", type=int, default=1000, help="how many register (default: %(default)s)")
    table.add_argument("--parallel", type=int, default=200, help="how many at a time (default: %(default)s)")
    table.add_argument("--faults", default="", help=f"what goes wrong, of: {','.join(faults.NAMES)}")
    table.add_argument("--workers", type=int, default=WORKERS, help="workers of PHP-FPM (default: %(default)s)")
    table.add_argument("--authority", type=Path, default=paths.AUTHORITY, help="another copy of the authority")
    table.add_argument("--figures", type=Path, help="file to write the figures to, as JSON")
    table.add_argument("--trace", type=Path, help="file to write to what PHP-FPM waited for, as strace counts it")
    options = table.parse_args(arguments)
    options.faults = [name for name in options.faults.split(",") if name]
    for name in options.faults:
        if name not in faults.NAMES:
            table.error(f"no such fault: {name}")
    return options


def under(trace: Path | None) -> list[str]:
    """What PHP-FPM is run under."""
    if trace is None:
        return []
    calls = "trace=fdatasync,fsync,fcntl,clock_nanosleep,pwrite64,unlink,openat,accept"
    return ["strace", "-f", "-c", "-w", "--seccomp-bpf", "-e", calls, "-o", str(trace.resolve())]


def enrol_all(hosts: Sequence[LoadHost], url: str, parallel: int, schedule: faults.Schedule) -> list[Run]:
    """Runs tzregister-enroll on every host; the runs in the hosts' order."""
    with concurrent.futures.ThreadPoolExecutor(parallel) as pool:
        started = [pool.submit(host.enrol_measured, url) for host in hosts]
        for done, _ in enumerate(concurrent.futures.as_completed(started), 1):
            schedule.at(done)
        return [future.result() for future in started]


def compare(options: argparse.Namespace, site: Site, hosts: Sequence[LoadHost], runs: Sequence[Run], url: str) -> Verdict:
    """Compares and tells what is wrong."""
    said = [Enrolled(host.name, host.agent, host.target, host.key, run.stdout) for host, run in zip(hosts, runs)]
    verdict = Comparison(options.authority, site.data, url).verdict(said)
    failed = [f"{host.name}: status {run.status}: {run.stderr[-300:]}" for host, run in zip(hosts, runs) if run.status]
    for fault in [*failed, *verdict.faults][:_SHOWN_FAULTS]:
        print(f"  {fault}", flush=True)
    return verdict


def load(options: argparse.Namespace, folder: Path) -> Verdict:
    """The whole load, below a folder with a short name."""
    site = Site(folder, options.authority.resolve(), options.workers, under(options.trace))
    if "full" in options.faults:
        faults.mount_small_disk(site.data)
    with running(site), faults.address(site, "reset" in options.faults) as url:
        files = (site.password_file, site.ca.file)
        hosts = [LoadHost(folder / "hosts", number, files) for number in range(1, options.hosts + 1)]
        before = Clock.read()
        runs = enrol_all(hosts, url, options.parallel, faults.Schedule.of(options.faults, site, options.hosts))
        after = Clock.read()
    verdict = compare(options, site, hosts, runs, url)
    figures = gather(runs, verdict.registered, site, options.parallel, options.faults, (before, after))
    figures.print()
    if options.figures:
        figures.save(options.figures)
    return verdict


def main(arguments: Sequence[str]) -> int:
    """Runs the program; its status says whether every host is registered, and once."""
    options = parse_options(arguments)
    if "full" in options.faults:
        faults.enter_mount_namespace()
    launcher()
    with tempfile.TemporaryDirectory(prefix="tzload-") as folder:
        verdict = load(options, Path(folder))
    print(verdict)
    return 1 if verdict.lost or verdict.twice else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
