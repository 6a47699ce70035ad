"""Runs the authority's scripts and its PHP."""

from __future__ import annotations

import re
import socket
import subprocess
import threading
from collections.abc import Mapping
from pathlib import Path
from urllib.parse import urlsplit

AUTHORITY = Path(__file__).resolve().parents[3] / "authority"
TIMEOUT_S = 30


def start(*command: str | Path, umask: int = 0o022) -> tuple[subprocess.Popen[str], str]:
    """Starts a script; returns it with the address in the one line that it prints when it is ready."""
    # A run of tests that is killed must leave no server behind.
    process = subprocess.Popen(
        ["setpriv", "--pdeathsig", "TERM", "--", *map(str, command)],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        umask=umask,
    )
    guard = threading.Timer(TIMEOUT_S, process.kill)
    guard.start()
    assert process.stdout is not None
    line = process.stdout.readline()
    guard.cancel()
    ready = re.fullmatch(r"(?:Authority|TLS) listening on (https?://127\.0\.0\.1:\d+)\n", line)
    if ready is None:
        process.kill()
        raise AssertionError(f"{line!r}, {process.communicate()}")
    return process, ready[1]


def stop(process: subprocess.Popen[str]) -> tuple[int, str, str]:
    """Ends a script; returns its status and what it printed after its first line."""
    process.terminate()
    rest, errors = process.communicate(timeout=TIMEOUT_S)
    return process.returncode, rest, errors


def opened_by_children(process: subprocess.Popen[str]) -> set[Path]:
    """The files that the children of a script have open; there must be children."""
    children = Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()
    assert children
    return {descriptor.readlink() for child in children for descriptor in Path(f"/proc/{child}/fd").iterdir()}


def run(script: str, *arguments: str | Path, environment: Mapping[str, str] | None = None) -> tuple[int, str, str]:
    """Runs a script to its end."""
    command = [str(word) for word in (AUTHORITY / script, *arguments)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT_S, env=environment)
    return done.returncode, done.stdout, done.stderr


def path_without(program: str, folder: Path) -> str:
    """A PATH of one new folder that has everything from /usr/bin and /usr/sbin but one program."""
    folder.mkdir()
    for source in (*Path("/usr/bin").iterdir(), *Path("/usr/sbin").iterdir()):
        link = folder / source.name
        if source.name != program and not link.is_symlink():
            link.symlink_to(source)
    return str(folder)


def php(code: str, *arguments: str) -> str:
    """What a piece of PHP prints that uses the authority's classes."""
    command = ["php", "-r", f"namespace Quorvex\\Authority; require '{AUTHORITY}/lib/bootstrap.php'; {code}"]
    return subprocess.run(
        [*command, "--", *arguments], capture_output=True, text=True, check=True, timeout=TIMEOUT_S
    ).stdout


def wait_until_gone(url: str) -> None:
    """Returns once nobody listens at an address any more; it must not take long."""
    gone = threading.Event()
    for _ in range(TIMEOUT_S * 20):
        if not _is_listening(url):
            return
        gone.wait(0.05)
    raise AssertionError(f"{url} still answers")


def _is_listening(url: str) -> bool:
    """Whether a server accepts connections at an address."""
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", urlsplit(url).port)) == 0
