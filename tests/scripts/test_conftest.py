"""What all Python tests share holds: the environment, the directory of a run."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

_SHARED = Path(__file__).resolve().parents[1] / "conftest.py"


def run_case(directory: Path, body: str, **environment: str) -> subprocess.CompletedProcess[str]:
    """Runs pytest on one case in a tree of its own, its temporary files below `directory`."""
    (directory / "tree").mkdir()
    (directory / "temporary").mkdir()
    shutil.copy(_SHARED, directory / "tree")
    (directory / "tree" / "test_case.py").write_text(f"import os\n\n\ndef test_case(tmp_path):\n    {body}\n")
    command = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", str(directory / "tree")]
    whole = {**os.environ, **environment, "TMPDIR": str(directory / "temporary")}
    return subprocess.run(command, env=whole, stdout=subprocess.PIPE, text=True, check=False)


@pytest.mark.parametrize("work", ["(tmp_path / 'file').write_text('x')", "(tmp_path / 'locked').mkdir(0)"])
def test_a_run_that_passes_leaves_nothing(tmp_path: Path, work: str) -> None:
    assert run_case(tmp_path, work).returncode == 0
    assert list((tmp_path / "temporary").iterdir()) == []


def test_a_run_that_fails_keeps_its_files(tmp_path: Path) -> None:
    assert run_case(tmp_path, "(tmp_path / 'file').write_text('x'); assert False").returncode == 1
    assert [found.read_text() for found in (tmp_path / "temporary").rglob("file")] == ["x"]


def test_the_callers_environment_is_left_outside(tmp_path: Path) -> None:
    seen = "assert not {'QUORVEX_SSL_VERIFY', 'http_proxy', 'LC_ALL', 'OPENSSL_CONF'} & {*os.environ}"
    language = "assert (os.environ['LANG'], open(os.devnull).encoding.lower()) == ('C.UTF-8', 'utf-8')"
    foreign = {"QUORVEX_SSL_VERIFY": "0", "http_proxy": "http://127.0.0.1:9", "OPENSSL_CONF": "/none"}
    done = run_case(tmp_path, f"{seen}; {language}", **foreign, LC_ALL="POSIX", PYTHONUTF8="0", PYTHONCOERCECLOCALE="0")
    assert done.returncode == 0, done.stdout
