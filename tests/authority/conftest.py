"""Fixtures of the authority's tests."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest

from harness.authority import Authority, Front, make_certificate
from harness.programs import AUTHORITY, start, stop


@pytest.fixture
def authority(tmp_path: Path) -> Iterator[Authority]:
    """A fresh authority of this case alone; it must print nothing but its address."""
    process, url = start(AUTHORITY / "serve", "--data", tmp_path / "spa")
    try:
        yield Authority(url, tmp_path / "spa")
    finally:
        assert stop(process) == (0, "", "")


@pytest.fixture
def front(authority: Authority, tmp_path: Path) -> Iterator[Front]:
    """A TLS front; its directories hold every character that a configuration could trip over."""
    folder = tmp_path / 'odd $host "q"; {x} \\'
    folder.mkdir()
    certificate, key = make_certificate(folder)
    files = ("--cert", certificate, "--key", key, "--data", folder / "tls")
    process, url = start(AUTHORITY / "serve-tls", *files, "--upstream", authority.url)
    try:
        yield Front(url, certificate, authority)
    finally:
        assert stop(process) == (0, "", "")
