"""Fixtures of the enrolment's tests."""

from __future__ import annotations

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

_ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(_ROOT / "enroll"), str(_ROOT / "tests/end_to_end")]

from fake_host import FakeHost
from harness.authority import Authority, running_authority
from harness.tls_files import CertificateAuthority
from real_host import EnrolHost


@pytest.fixture
def fake(tmp_path: Path) -> FakeHost:
    """A host that is ready to be enrolled, with a tzregister that always succeeds."""
    tmp_path.chmod(0o755)
    return FakeHost(tmp_path)


@pytest.fixture
def host(tmp_path: Path) -> EnrolHost:
    """A machine that is ready to be enrolled, with the real program."""
    return EnrolHost(tmp_path / "host")


@pytest.fixture
def authority(tmp_path: Path) -> Iterator[Authority]:
    """A reference authority with fresh data."""
    with running_authority(tmp_path / "authority") as running:
        yield running


@pytest.fixture
def ca(tmp_path: Path) -> CertificateAuthority:
    """The authority that signed the servers' certificates."""
    return CertificateAuthority(tmp_path / "ca")
