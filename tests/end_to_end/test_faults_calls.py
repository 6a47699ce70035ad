"""A system call fails: the run is whole or says why, and what was there is lost for no other reason."""

from __future__ import annotations

from pathlib import Path
import pytest

from harness.faults import Fault, FaultedHost, FaultedRun, page_server, places
from harness.outcomes import OUTCOMES, Outcome
from harness.messages import REGISTRY_DEFAULTS, executable_path
from harness.registered_host import RegisteredHost
from harness.sandbox import EXIT_FAILURE, Host

# What can come of each kind of call: no space, a broken disk, no right, a
# signal's arrival, no memory in the kernel, no number left for a file.
EFFECTS = {
    "open": ("EACCES", "EMFILE", "EINTR"),
    "read": ("EIO", "EINTR"),
    "write": ("ENOSPC", "EIO", "EINTR"),
    "close": ("EIO", "EINTR"),
    "mkdir": ("ENOSPC", "EACCES"),
    "network": ("ENOMEM", "EINTR"),
}
STANDARD_OUTPUT = 1
STANDARD_ERROR = 2

# The lines that tell that an output could not be written, and the files that may
# then be a part of what they were to be.
UNWRITTEN = {
    b"Failed to write configuration file: ": {"Agent.cfg"},
    b"Failed to write file: ": {"recommended", "current"},
    b"Could not create certificates.": {"Agent.cert", "Agent.key"},
}


@pytest.fixture
def faulted(host: Host, tmp_path: Path) -> FaultedHost:
    """A registered host on which calls fail."""
    return FaultedHost(RegisteredHost(host), tmp_path / "report")


def may_be_short(outcome: Outcome, run: FaultedRun, fault: Fault) -> set[str]:
    """The files that this run may have left short."""
    if run.result.status == 0:
        # What the disk makes of routing tables is not looked at.
        return set(outcome.files) if outcome.action == "routingtables" and fault.kind in ("write", "close") else set()
    if fault.kind == "open" and len(outcome.files) == 1:
        return set()
    return set().union(*(files for line, files in UNWRITTEN.items() if line in run.result.stderr))


def check(outcome: Outcome, run: FaultedRun, fault: Fault) -> None:
    """Holds one run against what a run may leave behind."""
    told = f"{outcome.action} {fault}: {run}"
    assert run.result.status in (0, EXIT_FAILURE), told
    lost_line = fault.kind == "write" and run.target in (STANDARD_OUTPUT, STANDARD_ERROR)
    if run.result.status == 0:
        assert lost_line or is_announced(outcome, run), told
        assert set(run.changes) == set(outcome.files), told
    else:
        assert run.result.stderr or lost_line, told
        assert set(run.changes) <= set(outcome.files), told
    short = may_be_short(outcome, run, fault)
    for name, content in run.changes.items():
        assert name in short or (run.result.status == 0 and outcome.is_whole(name, content)), told


def is_announced(outcome: Outcome, run: FaultedRun) -> bool:
    """True when the streams are those of success, also where the registry could not be read."""
    notice = executable_path("/opt/quorvex")
    defaults = REGISTRY_DEFAULTS in run.result.stderr
    stdout = run.result.stdout.replace(notice, b"") if defaults else run.result.stdout
    before = run.result.stderr.partition(REGISTRY_DEFAULTS)[2] if defaults else run.result.stderr
    return stdout == outcome.result.stdout and before == outcome.result.stderr


@pytest.mark.parametrize("kind", EFFECTS)
@pytest.mark.parametrize("action", OUTCOMES)
def test_a_run_survives_the_failure_of_any_call(faulted: FaultedHost, action: str, kind: str) -> None:
    outcome = OUTCOMES[action]
    with page_server(outcome.pages) as server:
        whole = faulted.run(action, server.url, Fault(kind, 0, "EIO"))
        assert whole.result == outcome.result
        for effect in EFFECTS[kind]:
            for first in places(whole.calls):
                fault = Fault(kind, first, effect)
                check(outcome, faulted.run(action, server.url, fault), fault)
