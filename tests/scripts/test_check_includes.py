"""The order of includes is kept: the real tree follows it, a tree that does not is named."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

_ROOT = Path(__file__).resolve().parents[2]
_SCRIPT = _ROOT / "scripts" / "check-includes"

# A small tree that uses every arrow there is.
_GOOD: dict[str, list[str]] = {
    "frontend/main.cc": ["frontend/actions.h"],
    "frontend/actions.h": ["registration/registrator.h", "webservice/webservice.h", "config/config.h", "support/a.h"],
    "frontend/register_exception.h": [],
    "frontend/string_check.h": ["frontend/register_exception.h"],
    "registration/registrator.h": ["webservice/webservice.h", "config/registry.h", "support/a.h"],
    "registration/more.cc": ["registration/registrator.h", "frontend/string_check.h"],
    "webservice/record_set.h": ["support/a.h"],
    "webservice/record_set.cc": ["webservice/record_set.h", "frontend/register_exception.h"],
    "webservice/answer_parser.h": ["webservice/record_set.h"],
    "webservice/transport.h": ["support/a.h"],
    "webservice/webservice.h": ["webservice/transport.h", "webservice/answer_parser.h"],
    "webservice/ws_cata_proxy.h": ["webservice/webservice.h"],
    "webservice/catalog_operations.cc": ["webservice/ws_cata_proxy.h"],
    "config/config.h": ["support/a.h"],
    "config/config_file.h": ["config/config.h"],
    "config/registry.h": ["config/config_file.h"],
    "config/registry.cc": ["config/registry.h", "frontend/string_check.h"],
    "support/a.h": ["support/b.h"],
    "support/b.h": [],
}


def check(root: Path, *added: tuple[str, str]) -> tuple[int, list[str]]:
    """Writes the good tree with these includes added; the script's status and lines."""
    tree = {file: list(included) for file, included in _GOOD.items()}
    for file, included in added:
        tree.setdefault(file, []).append(included)
    for file, lines in tree.items():
        (root / file).parent.mkdir(exist_ok=True)
        (root / file).write_text("#include <string>\n" + "".join(f'#include "{line}"\n' for line in lines))
    return run(root)


def run(root: Path) -> tuple[int, list[str]]:
    """The script's status and lines for this tree."""
    done = subprocess.run([str(_SCRIPT), str(root)], capture_output=True, text=True, check=False)
    assert done.stdout == ""
    return done.returncode, done.stderr.splitlines()


def test_every_arrow_of_the_order_is_allowed(tmp_path: Path) -> None:
    assert check(tmp_path) == (0, [])


@pytest.mark.parametrize(
    "file, included",
    [
        ("registration/registrator.h", "frontend/actions.h"),
        ("webservice/transport.cc", "frontend/actions.h"),
        ("webservice/transport.cc", "registration/registrator.h"),
        ("webservice/webservice.cc", "config/config.h"),
        ("config/config.cc", "webservice/record_set.h"),
        ("config/config.cc", "registration/registrator.h"),
        ("config/config.cc", "frontend/actions.h"),
        ("support/new.cc", "config/config.h"),
        ("support/new.cc", "frontend/register_exception.h"),
        ("frontend/string_check.cc", "support/b.h"),
        ("frontend/register_exception.cc", "frontend/main.h"),
        ("webservice/transport.cc", "webservice/webservice.h"),
        ("webservice/answer_parser.cc", "webservice/ws_cata_proxy.h"),
        ("config/config_file.cc", "config/registry.h"),
    ],
)
def test_an_include_that_runs_up_is_named(tmp_path: Path, file: str, included: str) -> None:
    (tmp_path / "frontend").mkdir()
    (tmp_path / "frontend" / "main.h").write_text("")
    status, lines = check(tmp_path, (file, included))
    line = len(_GOOD.get(file, [])) + 2
    assert lines[0] == f'{file}:{line}: {file.rpartition(".")[0]} must not include "{included}"'
    assert status == 1


@pytest.mark.parametrize(
    "file, included, circle",
    [
        ("support/b.cc", "support/a.h", "support/a -> support/b -> support/a"),
        (
            "registration/registrator.cc",
            "registration/more.h",
            "registration/registrator -> registration/more -> registration/registrator",
        ),
    ],
)
def test_a_circle_of_units_is_named(tmp_path: Path, file: str, included: str, circle: str) -> None:
    (tmp_path / "registration").mkdir()
    (tmp_path / "registration" / "more.h").write_text("")
    assert check(tmp_path, (file, included)) == (1, [f"includes run in a circle: {circle}"])


def test_an_include_beside_the_file_is_named(tmp_path: Path) -> None:
    status, lines = check(tmp_path, ("support/a.cc", "b.h"))
    assert (status, lines) == (1, ['support/a.cc:2: "b.h" is not named from the root of the tree'])


def test_a_tree_without_sources_is_an_error(tmp_path: Path) -> None:
    assert run(tmp_path) == (1, [f"check-includes: {tmp_path} holds no sources"])
