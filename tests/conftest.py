"""What all Python tests share: nothing of the caller's leaks in, nothing is left behind."""

from __future__ import annotations

import locale
import os
import secrets
import shutil
import tempfile
from pathlib import Path

import pytest

# What the caller decides: which program is tested and how it was built, where
# temporary files go, and what pytest tells its workers.
_KEPT = (
    "ASAN_OPTIONS",
    "GCOV_PREFIX",
    "GCOV_PREFIX_STRIP",
    "HOME",
    "LLVM_PROFILE_FILE",
    "LSAN_OPTIONS",
    "PYTHONDONTWRITEBYTECODE",
    "TERM",
    "TMPDIR",
    "UBSAN_OPTIONS",
)
_KEPT_PREFIXES = ("PYTEST_", "TZREGISTER_")
_FIXED = {"LANG": "C.UTF-8", "PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}


def _leave_the_callers_environment() -> None:
    for name in list(os.environ):
        if name not in _KEPT and not name.startswith(_KEPT_PREFIXES):
            del os.environ[name]
    os.environ.update(_FIXED)
    locale.setlocale(locale.LC_ALL, "C.UTF-8")
    os.umask(0o022)


_leave_the_callers_environment()

_own_directory = pytest.StashKey[Path]()


@pytest.hookimpl(tryfirst=True)
def pytest_configure(config: pytest.Config) -> None:
    """Names a directory for the run, unless the caller or the first process did; pytest makes it."""
    if config.option.basetemp is None:
        directory = Path(tempfile.gettempdir()) / f"tzregister-pytest-{secrets.token_hex(8)}"
        config.stash[_own_directory] = directory
        config.option.basetemp = str(directory)


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session: pytest.Session, exitstatus: int) -> None:
    """Removes the directory when no case failed."""
    directory = session.config.stash.get(_own_directory, None)
    if directory is None or exitstatus not in (pytest.ExitCode.OK, pytest.ExitCode.NO_TESTS_COLLECTED):
        return
    for folder, names, _ in os.walk(directory):
        for name in names:
            if not os.path.islink(os.path.join(folder, name)):
                os.chmod(os.path.join(folder, name), 0o700)
    if directory.exists():
        shutil.rmtree(directory)
