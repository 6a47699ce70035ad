"""An allocation fails: the run is whole or says why, and no file of the host is touched without need."""

from __future__ import annotations

import shutil
from pathlib import Path

import pytest

from harness.answers import empty_answer
from harness.faults import Fault, FaultedHost, FaultedRun, page_server, places
from harness.outcomes import OUTCOMES, Outcome
from harness.registered_host import RegisteredHost
from harness.sandbox import EXIT_FAILURE, Host
from harness.tls_files import CertificateAuthority

# How many of a run's thousands of allocations fail by turns, unless all are asked for.
MOST = 48
SHARES = 4


@pytest.fixture
def faulted(host: Host, tmp_path: Path) -> FaultedHost:
    """A registered host on which calls fail."""
    return FaultedHost(RegisteredHost(host), tmp_path / "report")


def check(outcome: Outcome, run: FaultedRun, fault: Fault) -> None:
    """Holds one run against what a run may leave behind."""
    told = f"{outcome.action} {fault}: {run}"
    if run.result.status == 0:
        assert run.result == outcome.result, told
        assert set(run.changes) == set(outcome.files), told
        assert all(outcome.is_whole(name, content) for name, content in run.changes.items()), told
    else:
        assert run.result.status == EXIT_FAILURE, told
        assert run.result.stderr.endswith(b"\n"), told
        assert run.changes == {}, told


@pytest.mark.parametrize("share", range(SHARES))
@pytest.mark.parametrize("onwards", [False, True], ids=["one", "all later ones"])
@pytest.mark.parametrize("action", OUTCOMES)
def test_a_run_survives_the_failure_of_any_allocation(
    faulted: FaultedHost, action: str, onwards: bool, share: int
) -> None:
    outcome = OUTCOMES[action]
    with page_server(outcome.pages) as server:
        whole = faulted.run(action, server.url, Fault("memory", 0, "ENOMEM"))
        assert whole.result == outcome.result and whole.calls > 1000
        for first in places(whole.calls, MOST)[share::SHARES]:
            fault = Fault("memory", first, "ENOMEM", onwards)
            check(outcome, faulted.run(action, server.url, fault), fault)


@pytest.mark.parametrize("share", range(SHARES))
@pytest.mark.parametrize("scheme", ["https", "vrmo"])
def test_no_failed_allocation_lets_an_impostor_have_the_password(
    faulted: FaultedHost, tmp_path: Path, scheme: str, share: int
) -> None:
    certificates = faulted.machine.host.etc_quorvex / "certs"
    certificates.mkdir()
    shutil.copy(CertificateAuthority(tmp_path / "trusted").file, certificates / "127.0.0.1.pem")
    impostor = CertificateAuthority(tmp_path / "impostor").server().context()
    pages = {"ws_storagepool.php": empty_answer(), "vrmo.php": empty_answer()}
    with page_server(pages, impostor) as server:
        url = f"{scheme}://127.0.0.1:{server.port}"
        whole = faulted.run("discover", url, Fault("memory", 0, "ENOMEM"))
        assert whole.result.status == EXIT_FAILURE and whole.calls > 1000
        # What is decided about trust is decided before the first byte is sent.
        for first in places(whole.calls, 4 * MOST)[share::SHARES]:
            run = faulted.run("discover", url, Fault("memory", first, "ENOMEM"))
            assert run.result.status == EXIT_FAILURE and run.result.stderr, f"{first}: {run}"
        assert server.requests == []
