"""Registers a fleet of made-up hosts with the reference authority on this machine; see scripts/load."""

from __future__ import annotations

import argparse
import concurrent.futures
import contextlib
import os
import signal
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
    table.add_argument("--chosen-password", action="store_true", help="the administrator's password is a person's")
    table.add_argument("--figures", type=Path, help="file to write the figures to, as JSON")
    table.add_argument("--trace", type=Path, help="file to write to what PHP-FPM waited for, as strace counts it")
    options = table.parse_args(arguments)
    options.faults = [name for name in options.faults.split(",") if name]
    for name in options.faults:
        if name not in faults.NAMES:
            table.error(f"no such fault: {name}")
    if options.trace and "kill" in options.faults:
        table.error("what is killed cannot be traced")
    return options


def end_hosts() -> None:
    """Ends the hosts that are at work: each of them ends with its first process."""
    for children in Path("/proc/self/task").glob("*/children"):
        for child in map(int, children.read_text().split()):
            with contextlib.suppress(OSError):
                if "bwrap" in Path(f"/proc/{child}/cmdline").read_text():
                    os.kill(child, signal.SIGKILL)


def enrol_all(hosts: Sequence[LoadHost], url: str, parallel: int, schedule: faults.Schedule) -> list[Run]:
    """Runs tzregister-enroll on every host; the runs in the hosts' order."""
    with concurrent.futures.ThreadPoolExecutor(parallel) as pool:
        started = [pool.submit(host.enrol_measured, url) for host in hosts]
        try:
            for done, _ in enumerate(concurrent.futures.as_completed(started), 1):
                schedule.at(done)
        except BaseException:
            pool.shutdown(wait=False, cancel_futures=True)
            end_hosts()
            raise
        return [future.result() for future in started]


def compare(
    options: argparse.Namespace, site: Site, hosts: Sequence[LoadHost], runs: Sequence[Run], url: str
) -> Verdict:
    """Compares and tells what is wrong."""
    said = [Enrolled(host.name, host.agent, host.target, host.key, run.stdout) for host, run in zip(hosts, runs)]
    verdict = Comparison(options.authority, site.data, url).verdict(said)
    failed = [f"{host.name}: status {run.status}: {run.stderr[-300:]}" for host, run in zip(hosts, runs) if run.status]
    for fault in [*failed, *verdict.faults][:_SHOWN_FAULTS]:
        print(f"  {fault}", flush=True)
    return verdict


def run_fleet(options: argparse.Namespace, site: Site) -> Verdict:
    """Registers the fleet with a site that has not begun yet, and compares."""
    with running(site), faults.address(site, "reset" in options.faults) as url:
        files = (site.password_file, site.ca.file)
        numbers = range(1, options.hosts + 1)
        hosts = [LoadHost(site.folder / "hosts", number, files) for number in numbers]
        before = Clock.read()
        with site.traced(options.trace):
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
        site = Site(Path(folder), options.authority.resolve(), options.workers, options.chosen_password)
        with faults.disk(site.data, "full" in options.faults):
            verdict = run_fleet(options, site)
    print(verdict)
    return 1 if verdict.lost or verdict.twice else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
