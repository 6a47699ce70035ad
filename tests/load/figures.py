"""What a load took, in figures."""

from __future__ import annotations

import json
import math
import os
import shutil
import sqlite3
import statistics
import subprocess
import time
from collections.abc import Sequence
from dataclasses import asdict, dataclass
from pathlib import Path

from hosts import Run
from authority_site import Site

_TICKS = os.sysconf("SC_CLK_TCK")
_MEBIBYTE = 1 << 20

# The least of some, so that what else the machine does is left out.
_BCRYPT_S = r"""
$hash = password_hash('x', PASSWORD_BCRYPT, ['cost' => 10]);
for ($least = INF, $i = 0; $i < 20; $i++) {
    $before = getrusage();
    password_verify('x', $hash);
    $after = getrusage();
    $seconds = $after['ru_utime.tv_sec'] - $before['ru_utime.tv_sec'];
    $least = min($least, $seconds + ($after['ru_utime.tv_usec'] - $before['ru_utime.tv_usec']) / 1e6);
}
echo $least;
"""

# What a request waits for the disk, opened and written as by the pages; nine in ten wait longer, for what else
# the machine does.
_COMMIT_S = r"""
namespace Quorvex\Authority;
require $argv[1] . '/lib/bootstrap.php';
for ($times = [], $i = 0; $i < 101; $i++) {
    $before = hrtime(true);
    $store = Store::open($argv[2]);
    $store->atomically(fn () => $store->rows('UPDATE requests SET outcome = ? WHERE id = 1', ["try $i"]));
    unset($store);
    $times[] = hrtime(true) - $before;
}
sort($times);
echo $times[10] / 1e9;
"""


def percentile(values: Sequence[float], part: float) -> float:
    """The smallest value that this part of the values does not exceed."""
    ordered = sorted(values)
    return ordered[math.ceil(part * len(ordered)) - 1]


def machine_busy_s() -> float:
    """The CPU seconds that this machine has spent working since it was started."""
    fields = [int(field) for field in Path("/proc/stat").read_text().split("\n", 1)[0].split()[1:9]]
    user, nice, system, _, _, irq, softirq, steal = fields
    return (user + nice + system + irq + softirq + steal) / _TICKS


def bcrypt_s() -> float:
    """The CPU seconds that checking one bcrypt hash of the authority's cost takes here."""
    return float(subprocess.run(["php", "-r", _BCRYPT_S], check=True, capture_output=True, text=True).stdout)


def commit_s(site: Site) -> float:
    """How long one request has the authority's file to itself, on a copy of it that lies beside it."""
    copy = site.folder / "copy"
    shutil.copytree(site.data, copy)
    command = ["php", "-r", _COMMIT_S, "--", str(site.program), str(copy)]
    return float(subprocess.run(command, check=True, capture_output=True, text=True).stdout)


@dataclass(frozen=True)
class Figures:
    """The figures of a load; seconds, bytes and numbers, as their names say."""

    hosts: int
    parallel: int
    faults: Sequence[str]
    elapsed_s: float
    registrations_per_s: float
    wall_mean_s: float
    wall_median_s: float
    wall_p99_s: float
    wall_longest_s: float
    run_cpu_mean_s: float
    run_cpu_p99_s: float
    run_peak_bytes: int
    retries: int
    requests: int
    answers_lost: int
    bcrypts: int
    bcrypt_s: float
    commit_s: float
    fpm_cpu_s: float
    nginx_cpu_s: float
    database_bytes: int
    cores: int
    others_cpu_s: float
    script_cpu_s: float

    def save(self, file: Path) -> None:
        """Writes them for the simulation."""
        file.write_text(json.dumps(asdict(self), indent=2) + "\n")

    def print(self) -> None:
        """Tells them."""
        per_host = 1000 / self.hosts
        rows = (
            ("time until all were in", f"{self.elapsed_s:.1f} s"),
            ("registrations", f"{self.registrations_per_s:.2f} a second"),
            ("wall time of a run", f"median {self.wall_median_s:.1f} s, 99 % {self.wall_p99_s:.1f} s, "
             f"longest {self.wall_longest_s:.1f} s"),
            ("CPU of a run", f"mean {self.run_cpu_mean_s:.3f} s, 99 % {self.run_cpu_p99_s:.3f} s"),
            ("peak memory of a run", f"{self.run_peak_bytes / _MEBIBYTE:.1f} MiB"),
            ("tries that were repeated", f"{self.retries}"),
            ("requests at the authority", f"{self.requests}; registrations whose answer was lost: {self.answers_lost}"),
            ("CPU of PHP-FPM", f"{self.fpm_cpu_s * per_host:.0f} ms a host, of which bcrypt "
             f"{self.bcrypts * self.bcrypt_s * per_host:.0f} ms ({self.bcrypts} times {self.bcrypt_s * 1000:.1f} ms)"),
            ("a write to the database", f"{self.commit_s * 1000:.1f} ms, one at a time"),
            ("CPU of nginx", f"{self.nginx_cpu_s * per_host:.1f} ms a host"),
            ("CPU of this script", f"{self.script_cpu_s * per_host:.0f} ms a host, making hosts included"),
            ("CPU of the machine's others", f"{self.others_cpu_s / self.elapsed_s:.2f} of {self.cores} cores"),
            ("database", f"{self.database_bytes / 1024:.0f} KiB"),
        )
        for name, text in rows:
            print(f"{name:28} {text}", flush=True)


@dataclass(frozen=True)
class Clock:
    """Readings of the clocks at one moment."""

    now: float
    busy: float
    own: float

    @classmethod
    def read(cls) -> Clock:
        """Reads them."""
        return cls(time.monotonic(), machine_busy_s(), time.process_time())


@dataclass(frozen=True)
class Requests:
    """What the authority's log tells of the requests; it keeps the last 10000."""

    all: int
    registrations: int
    bcrypts: int

    @classmethod
    def of(cls, data: Path) -> Requests:
        """Reads the log and how accounts are kept."""
        connection = sqlite3.connect(f"file:{data}/authority.sqlite?mode=ro", uri=True)
        try:
            [last] = connection.execute("SELECT coalesce(max(id), 0) FROM requests").fetchone()
            [registrations] = connection.execute(
                "SELECT count(*) FROM requests WHERE action = 'register' AND outcome = 'done'"
            ).fetchone()
            slow = dict(
                connection.execute(
                    "SELECT agent_id IS NULL, max(password_hash LIKE '$2y$%') FROM accounts GROUP BY agent_id IS NULL"
                ).fetchall()
            )
        finally:
            connection.close()
        return cls(last, registrations, last * slow[1] + registrations * slow.get(0, 0))


def gather(
    runs: Sequence[Run], registered: int, site: Site, parallel: int, faults: Sequence[str], clocks: tuple[Clock, Clock]
) -> Figures:
    """The figures of runs between two readings of the clocks; the site has ended."""
    begin, end = clocks
    requests = Requests.of(site.data)
    elapsed = max(run.end for run in runs) - min(run.begin for run in runs)
    walls, cpus = [run.wall_s for run in runs], [run.cpu_s for run in runs]
    own = end.own - begin.own
    known = sum(cpus) + site.fpm.cpu_s + site.nginx.cpu_s + own
    return Figures(
        hosts=len(runs),
        parallel=parallel,
        faults=faults,
        elapsed_s=elapsed,
        registrations_per_s=registered / elapsed,
        wall_mean_s=statistics.mean(walls),
        wall_median_s=statistics.median(walls),
        wall_p99_s=percentile(walls, 0.99),
        wall_longest_s=max(walls),
        run_cpu_mean_s=statistics.mean(cpus),
        run_cpu_p99_s=percentile(cpus, 0.99),
        run_peak_bytes=max(run.peak_bytes for run in runs),
        retries=sum(run.retries for run in runs),
        requests=requests.all,
        answers_lost=requests.registrations - registered,
        bcrypts=requests.bcrypts,
        bcrypt_s=bcrypt_s(),
        commit_s=commit_s(site),
        fpm_cpu_s=site.fpm.cpu_s,
        nginx_cpu_s=site.nginx.cpu_s,
        database_bytes=(site.data / "authority.sqlite").stat().st_size,
        cores=os.cpu_count() or 1,
        others_cpu_s=max(0.0, end.busy - begin.busy - known),
        script_cpu_s=own,
    )
