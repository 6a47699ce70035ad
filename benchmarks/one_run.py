"""What one run of the tool takes beside a known program that does the same.

    one_run.py --tool build/release/tzregister [--runs N]

For each pair: instructions (callgrind), processor time and peak memory. The two
programs run in turn, and each ratio is the median of the pairs' ratios.
"""

from __future__ import annotations

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Sequence

ADDRESS = "127.0.0.1"
SERVER = Path(__file__).resolve().parent / "answering_server.py"
# Two primes are looked for until they are found, by both programs with the same
# function: what that takes is chance.
KEY_SEARCH = "EVP_PKEY_keygen"
# A run of discover sleeps for four seconds.
SLEEPING_RUNS = 5


@dataclass(frozen=True)
class Pair:
    """Two commands that do the same."""

    label: str
    ours: Sequence[str]
    peer: Sequence[str]
    peer_name: str
    most: float
    sleeps: bool = False


def pairs(tool: str, port: int) -> list[Pair]:
    """The commands beside each other."""
    version = ["curl", "--version"]
    url = f"http://{ADDRESS}:{port}"
    discover = [tool, "--action", "discover", "--url", url, "--login", "admin", "--passwd", "secret"]
    form = [part for field in ("action=discover", "login=admin", "passwd=secret") for part in ("-F", field)]
    post = ["curl", "-s", *form, f"{url}/ws_storagepool.php"]
    request = ["openssl", "req", "-x509", "-newkey", "rsa:1024", "-md5", "-nodes", "-subj", "/C=US/CN=x"]
    request += ["-keyout", "/dev/stdout"]
    return [
        Pair("`--help`", [tool, "--help"], version, "`curl --version`", 0.8),
        Pair("an argument error", [tool, "--nonsense"], version, "`curl --version`", 0.8),
        Pair("`discover`", discover, post, "`curl`, the same form", 1.0, sleeps=True),
        Pair("`certificate`", [tool, "--action", "certificate", "--type", "Agent"], request, "`openssl req`", 1.0),
    ]


def run(command: Sequence[str]) -> None:
    """Runs a command whose output and status are of no interest."""
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)


def instructions(command: Sequence[str]) -> float:
    """Instructions of a run, but those of the search for a key."""
    with tempfile.NamedTemporaryFile() as profile:
        run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={profile.name}", *command])
        annotate = ["callgrind_annotate", "--inclusive=yes", "--threshold=100", profile.name]
        lines = subprocess.run(annotate, capture_output=True, text=True, check=True).stdout.splitlines()

    def counted(name: str) -> int:
        line = next((line for line in lines if re.search(name, line)), "0")
        return int(re.match(r"[ \d,]+", line)[0].replace(",", ""))  # type: ignore[index]

    return counted("PROGRAM TOTALS") - counted(rf"\?\?\?:{KEY_SEARCH}\b")


def processor_seconds(command: Sequence[str]) -> float:
    """Processor time of a run, the kernel's included."""
    null = os.open(os.devnull, os.O_RDWR)
    outputs = [(os.POSIX_SPAWN_DUP2, null, 1), (os.POSIX_SPAWN_DUP2, null, 2)]
    process = os.posix_spawnp(command[0], list(command), os.environ, file_actions=outputs)
    usage = os.wait4(process, 0)[2]
    os.close(null)
    return float(usage.ru_utime + usage.ru_stime)


def peak_kib(command: Sequence[str]) -> float:
    """Peak memory. A small program starts the run, whose own memory would count otherwise."""
    with tempfile.NamedTemporaryFile("r") as report:
        run(["/usr/bin/time", "--quiet", "-f", "%M", "-o", report.name, *command])
        return float(report.read())


def compared(pair: Pair, measure: Callable[[Sequence[str]], float], runs: int) -> tuple[float, float, float]:
    """The medians of both, and of the ratios of runs that followed each other."""
    both = [(measure(pair.ours), measure(pair.peer)) for _ in range(runs)]
    ours, peer = (statistics.median(side) for side in zip(*both))
    return ours, peer, statistics.median(one / other for one, other in both)


def row(pair: Pair, runs: int) -> dict[str, object]:
    """Everything about one pair."""
    few = min(runs, SLEEPING_RUNS) if pair.sleeps else runs
    result: dict[str, object] = {"case": pair.label, "peer": pair.peer_name, "most": pair.most, "runs": few}
    for name, measure, times in (
        ("instructions", instructions, 1),
        ("ms", lambda command: 1000 * processor_seconds(command), few),
        ("KiB", peak_kib, few),
    ):
        ours, peer, ratio = compared(pair, measure, times)
        result |= {name: round(ours, 2), f"peer's {name}": round(peer, 2), f"ratio of {name}": round(ratio, 3)}
    return result


def main() -> None:
    """Prints one JSON object for each pair."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--runs", type=int, default=31)
    parser.add_argument("--only", action="append", default=[], help="pairs whose names hold this text")
    options = parser.parse_args()
    server = subprocess.Popen([sys.executable, str(SERVER), "--address", ADDRESS], stdout=subprocess.PIPE)
    assert server.stdout is not None
    try:
        for pair in pairs(options.tool, int(server.stdout.readline())):
            if not options.only or any(text in pair.label for text in options.only):
                print(json.dumps(row(pair, options.runs)), flush=True)
    finally:
        server.kill()
        server.wait()


if __name__ == "__main__":
    main()
