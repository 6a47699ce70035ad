"""Fixtures of the end-to-end tests."""

from __future__ import annotations

import os
import shutil
from pathlib import Path
from typing import Iterator

import pytest

from harness.authority import Authority, running_authority
from harness.sandbox import Host, SandboxUnavailable, launcher


def pytest_configure() -> None:
    """Ends the run at once when the program or the sandbox is not there."""
    program = os.environ.get("TZREGISTER_BINARY", "")
    if not program:
        raise pytest.UsageError("set TZREGISTER_BINARY to the path of the tzregister program to test")
    if not os.access(program, os.X_OK):
        raise pytest.UsageError(f"TZREGISTER_BINARY names no program: {program}")
    if shutil.which("bwrap") is None:
        raise pytest.UsageError("bwrap is not installed (Debian package bubblewrap)")
    if not os.path.exists("/proc/self/fd"):
        raise pytest.UsageError("/proc is not there; bwrap and the authority need it (mount -t proc proc /proc)")
    try:
        launcher()
    except SandboxUnavailable as reason:
        raise pytest.UsageError(str(reason)) from reason


@pytest.fixture
def host(tmp_path: Path) -> Host:
    """A machine without a registry and without an installed product."""
    return Host(tmp_path / "host")


@pytest.fixture
def authority(tmp_path: Path) -> Iterator[Authority]:
    """A reference authority with fresh data."""
    with running_authority(tmp_path / "authority") as running:
        yield running


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Begins with the slow cases, each on a worker of its own, the others running beside them.

    xdist hands each worker a batch of neighbours at first.
    """
    workers = int(os.environ.get("PYTEST_XDIST_WORKER_COUNT", "1"))
    batch = max(2, len(items) // workers // 4)
    slow = [item for item in items if item.get_closest_marker("slow")]
    items[:] = [item for item in items if item not in slow]
    for place, item in enumerate(slow):
        items.insert(place * batch, item)
