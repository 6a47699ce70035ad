"""Runs every measurement, prints tables, and writes docs/performance.md with its plots.

    bench.py --build DIRECTORY [--quick] [STEP...]

Without a step all are run. Each leaves its rows in DIRECTORY/bench, so that a step
can be repeated alone; the page is written when every step has left some. `--quick`
takes a minute, and writes no page.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
from pathlib import Path
from typing import Any, Callable, Mapping, Optional, Sequence

import report

HERE = Path(__file__).resolve().parent
REQUESTS = ["--only", "discover", "--only", "register", "--only", "createds"]
ANSWERS = ["--only", " MB"]
# Over the other links: what the table of large answers compares.
COMPARED = [part for size in (1, 10, 60, 100, 200) for part in ("--only", f"{size} MB answer, HTTP")]
RACES = "20"
# Large answers over a link: what fits into a window decides, and 52 pauses take a while.
FEW = "5"
PARTS_OF_READING = ("^(read|config|records)/", "^one_value/", "^shape/")
REPETITIONS = 3

Row = dict[str, Any]
Step = Callable[["Bench"], list[Row]]


class Bench:
    """The programs that are measured and those that measure."""

    def __init__(self, build: Path, quick: bool) -> None:
        self.build, self.quick = build, quick

    def script(self, name: str, *options: str) -> list[Row]:
        """The rows that one of the scripts beside this one prints."""
        tool = ["--tool", str(self.build / "tzregister")]
        lines = _output([sys.executable, str(HERE / name), *tool, *options]).splitlines()
        return [json.loads(line) for line in lines]

    def passes(self, *options: str) -> list[Row]:
        """Passes over one link, 20 runs of each case whose passes a race decides."""
        return self.script("passes.py", "--runs", "1" if self.quick else RACES, *options)

    def reading(self, which: str, repetitions: int, seconds: float) -> list[Row]:
        """Times of the texts in question, all of them once for each repetition."""
        command = [str(self.build / "reading_benchmark"), "--benchmark_format=json"]
        command += [f"--benchmark_filter={which}", f"--benchmark_min_time={seconds}"]
        # Its account of the machine, on standard error, names the host.
        runs = [json.loads(_output(command, stderr=subprocess.DEVNULL))["benchmarks"] for _ in range(repetitions)]
        return [{**row, "repetition": number} for number, rows in enumerate(runs) for row in rows]


def _output(command: Sequence[str], stderr: Optional[int] = None) -> str:
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=stderr, text=True, check=True).stdout


def _one_run(bench: Bench) -> list[Row]:
    return bench.script("one_run.py", "--runs", "3" if bench.quick else "31")


def _reading(bench: Bench) -> list[Row]:
    if bench.quick:
        return bench.reading("^(read|config)/.*/1000000$|^records/|^shape/.*/1$", 3, 0.02)
    return [row for part in PARTS_OF_READING for row in bench.reading(part, REPETITIONS, 0.1)]


def _loopback(bench: Bench) -> list[Row]:
    if bench.quick:
        return bench.passes("--only", "discover, HTTP by address", "--only", "10 MB answer, HTTP")
    return bench.passes("--parallel", "4", *REQUESTS) + bench.passes("--parallel", "3", *ANSWERS)


def _link(bench: Bench) -> list[Row]:
    link = ["--round-trip-ms", "20", "--unprivileged"]
    if bench.quick:
        return bench.passes(*link, "--only", "discover, HTTP by address")
    return bench.passes(*link, "--parallel", "10", *REQUESTS) + bench.passes(*link, "--runs", FEW, *ANSWERS)


def _as_root(bench: Bench) -> list[Row]:
    return [] if bench.quick else bench.passes("--round-trip-ms", "20", "--runs", FEW, *COMPARED)


def _long_link(bench: Bench) -> list[Row]:
    return [] if bench.quick else bench.passes("--round-trip-ms", "100", "--runs", FEW, *COMPARED)


STEPS: Mapping[str, Step] = {
    "one-run": _one_run,
    "reading": _reading,
    "passes-loopback": _loopback,
    "passes-20ms": _link,
    "passes-20ms-root": _as_root,
    "passes-100ms-root": _long_link,
}


def main() -> None:
    """Runs the steps, prints what they found, and writes the page."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("steps", nargs="*", metavar="STEP", help=", ".join(STEPS))
    options = parser.parse_args()
    unknown = set(options.steps) - set(STEPS)
    if unknown:
        parser.error(f"unknown step {min(unknown)}; there are {', '.join(STEPS)}")
    kept = options.build / "bench"
    kept.mkdir(exist_ok=True)
    results: dict[str, list[Row]] = {}
    for name in options.steps or STEPS:
        print(f"Measuring {name} ...", file=sys.stderr, flush=True)
        results[name] = STEPS[name](Bench(options.build, options.quick))
        if not options.quick:
            (kept / f"{name}.json").write_text(json.dumps(results[name], indent=1))
    if options.quick:
        print(report.tables(results))
        return
    results = {name: json.loads(file.read_text()) for name in STEPS if (file := kept / f"{name}.json").exists()}
    print(report.tables(results))
    if len(results) == len(STEPS):
        report.write(results, HERE.parent / "docs")


if __name__ == "__main__":
    main()
