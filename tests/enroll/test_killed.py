"""Killed at each of its system calls, an enrolment leaves the old file or the new one."""

from __future__ import annotations

import fcntl
import os
import re
import signal
import subprocess
from collections import Counter

import pytest

from fake_host import FakeHost

KILLED = -signal.SIGKILL
SHARDS = 16
OLD = "qx1.before"
_CALL = re.compile(r"(\w+)\(")


def traced(fake: FakeHost, *options: str) -> int:
    """Runs a renewal, or a first registration, under strace; its exit status."""
    command = ["strace", "-qq", "-o", str(fake.root / "trace"), *options, *fake.process_command("--force")]
    return subprocess.run(command, env=fake.environment(), capture_output=True, check=False).returncode


def reset(fake: FakeHost, registered: bool) -> None:
    """Makes the host what it was before the run."""
    for path in (*fake.target.parent.iterdir(), *(fake.root / "calls").iterdir()):
        path.unlink()
    if registered:
        fake.enrol_before(fake.configuration(passwd=OLD))


def system_calls(fake: FakeHost) -> list[tuple[str, int]]:
    """Each system call from the first look at the host on: its name and how many of that name there were by then."""
    assert traced(fake) == 0
    counts: Counter[str] = Counter()
    calls = []
    started = False
    for line in (fake.root / "trace").read_text().splitlines():
        found = _CALL.match(line)
        if found is None:
            continue
        counts[found[1]] += 1
        started = started or str(fake.registry) in line
        if started:
            calls.append((found[1], counts[found[1]]))
    return calls


def assert_whole(fake: FakeHost, registered: bool) -> None:
    """What lies there is one of the two configurations, and what is kept is the old one."""
    old, new = fake.configuration(passwd=OLD), fake.configuration()
    files = fake.files()
    assert files.get("Agent.cfg") in ((old, new) if registered else (None, new))
    assert files.get("Agent.cfg.last-good", old) == old and files.get("Agent.cfg.last-good.new", old) == old
    kept = ("", ".staged", ".last-good", ".last-good.new", ".machine", ".machine.new")
    assert set(files) <= {f"Agent.cfg{name}" for name in kept}


def wait_for_the_lock(fake: FakeHost) -> None:
    """Waits for a tzregister that a killed run left behind."""
    directory = os.open(fake.target.parent, os.O_RDONLY)
    fcntl.flock(directory, fcntl.LOCK_EX)
    os.close(directory)


def assert_the_next_run_succeeds(fake: FakeHost, registered: bool) -> None:
    """The next run ends well and leaves nothing lying about."""
    wait_for_the_lock(fake)
    assert fake.run("--force").status == 0
    assert fake.target.read_text() == fake.configuration()
    kept = {"Agent.cfg", "Agent.cfg.machine"}
    assert kept <= set(fake.files()) <= kept | {"Agent.cfg.last-good"}
    assert not registered or "Agent.cfg.last-good" in fake.files()


@pytest.mark.parametrize("registered", [True, False], ids=["renewal", "first registration"])
@pytest.mark.parametrize("shard", range(SHARDS))
def test_killed(fake: FakeHost, registered: bool, shard: int) -> None:
    reset(fake, registered)
    calls = system_calls(fake)
    assert {"rename", "link", "fsync"} <= {name for name, _ in calls} or not registered
    chosen = calls[shard::SHARDS]
    statuses = []
    for name, number in chosen:
        reset(fake, registered)
        statuses.append(traced(fake, f"--inject={name}:signal=KILL:when={number}"))
        assert_whole(fake, registered)
        assert_the_next_run_succeeds(fake, registered)
    # How often a run waits for its children varies; nearly all kills must hit.
    assert set(statuses) <= {0, KILLED}
    assert statuses.count(KILLED) >= 0.8 * len(chosen)


def test_a_write_cut_short_would_be_seen(fake: FakeHost) -> None:
    fake.enrol_before(fake.configuration()[:40])
    with pytest.raises(AssertionError):
        assert_whole(fake, registered=True)
