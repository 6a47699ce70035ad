"""A run is ended from outside, before any of its system calls: the configuration is the old one or the new one.

But for one window: between the emptying of the file and the writing of its new content it is empty.
"""

from __future__ import annotations

from pathlib import Path

import pytest

from harness.faults import Fault, FaultedHost, page_server, places
from harness.outcomes import OUTCOMES
from harness.registered_host import OLD_CONFIG, RegisteredHost
from harness.sandbox import Host

SIGNALLED = 128
SIGNALS = {"TERM": SIGNALLED + 15, "KILL": SIGNALLED + 9}
SHARES = 4


@pytest.fixture
def faulted(host: Host, tmp_path: Path) -> FaultedHost:
    """A registered host whose runs are ended on demand."""
    return FaultedHost(RegisteredHost(host), tmp_path / "report")


@pytest.mark.parametrize("share", range(SHARES))
@pytest.mark.parametrize("signal", SIGNALS)
def test_a_killed_registration_leaves_a_whole_file(faulted: FaultedHost, signal: str, share: int) -> None:
    outcome = OUTCOMES["register"]
    machine = faulted.machine
    with page_server(outcome.pages) as server:
        whole = faulted.run("register", server.url, Fault("any", 0, signal))
        assert whole.result == outcome.result and not whole.torn
        # The number of pauses differs from run to run; all ends are met all the same.
        for first in places(whole.calls + 1)[share::SHARES]:
            machine.config.write_bytes(OLD_CONFIG)
            run = faulted.run("register", server.url, Fault("any", first, signal))
            assert run.result.status == SIGNALS[signal] or run.injected == 0, f"{first}: {run}"
            content = machine.config.read_bytes()
            assert set(run.changes) <= {"Agent.cfg"}, f"{first}: {run}"
            assert content == OLD_CONFIG or outcome.is_whole("Agent.cfg", content) or run.torn, f"{first}: {run}"


@pytest.mark.parametrize("signal", SIGNALS)
def test_the_window_is_that_of_the_very_write(faulted: FaultedHost, signal: str) -> None:
    outcome = OUTCOMES["configfile"]
    machine = faulted.machine
    torn: list[bytes] = []
    with page_server(outcome.pages) as server:
        whole = faulted.run("configfile", server.url, Fault("write", 0, signal))
        for first in places(whole.calls):
            machine.config.write_bytes(OLD_CONFIG)
            run = faulted.run("configfile", server.url, Fault("write", first, signal))
            if run.torn:
                torn.append(machine.config.read_bytes())
    # Of all that is written, one piece is the file; before it the file is empty.
    assert torn == [b""]
