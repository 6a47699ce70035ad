"""What the tab key offers, in the shells themselves."""

from __future__ import annotations

import functools
import os
from pathlib import Path
from typing import Callable

import pytest

from harness.messages import ALLOWED_ACTIONS
from option_tables import PROGRAMS, Options, program_options
from shells import bash, fish, fish_values, typed_in_bash, zsh

TYPES = [name for name in ALLOWED_ACTIONS if name]
ACTIONS = ["discover", "register", "configfile", "routingtables", "certificate", "createds"]

Offers = Callable[[str], set[str]]


@pytest.fixture(params=["bash", "fish", "zsh"])
def offers(request: pytest.FixtureRequest, tmp_path: Path) -> Offers:
    """Each shell's answer to a line."""
    return shells(tmp_path)[request.param]


def shells(directory: Path) -> dict[str, Offers]:
    """The shells by name; zsh keeps its files in a directory."""
    return {"bash": bash, "fish": fish, "zsh": functools.partial(zsh, directory=directory)}


def long(options: Options) -> set[str]:
    """The long names."""
    return {name for name in options if name.startswith("--")}


@pytest.mark.parametrize("program", PROGRAMS)
def test_exactly_the_programs_options_are_offered(offers: Offers, program: str) -> None:
    assert offers(f"{program} --") == long(program_options(program))


@pytest.mark.parametrize("program", PROGRAMS)
def test_short_names_are_offered(program: str, tmp_path: Path) -> None:
    short = {name for name in program_options(program) if not name.startswith("--")}
    for shell in shells(tmp_path).values():
        assert short <= shell(f"{program} -")


@pytest.mark.parametrize("program", PROGRAMS)
@pytest.mark.parametrize("shell", ["bash", "zsh"])
def test_an_option_takes_a_value_exactly_when_the_programs_does(shell: str, program: str, tmp_path: Path) -> None:
    for option, value in program_options(program).items():
        # Behind these zsh offers nothing more, as the program looks at nothing more.
        if option not in ("--help", "-h", "--version", "-V"):
            others = shells(tmp_path)[shell](f"{program} {option} --")
            assert (others & long(program_options(program)) == set()) == value, option


@pytest.mark.parametrize("program", PROGRAMS)
def test_fish_knows_which_options_take_a_value(program: str) -> None:
    assert fish_values(program) == {option for option, value in program_options(program).items() if value}


def test_an_option_is_offered_once(offers: Offers) -> None:
    assert "--todisk" not in offers("tzregister --todisk --")
    assert "--url" not in offers("tzregister --url https://spa.example --")


@pytest.mark.parametrize("component", ["", *TYPES])
def test_actions_for_a_type(offers: Offers, component: str) -> None:
    expected = set(ALLOWED_ACTIONS[component]) if component else set(ACTIONS)
    assert offers(f"tzregister {f'--type {component} ' if component else ''}--action ") == expected


@pytest.mark.parametrize("action", ["", *ACTIONS])
def test_types_for_an_action(offers: Offers, action: str) -> None:
    expected = {name for name in TYPES if not action or action in ALLOWED_ACTIONS[name]}
    assert offers(f"tzregister {f'--action {action} ' if action else ''}--type ") == expected


def test_an_equal_sign_serves_too(offers: Offers) -> None:
    found = offers("tzregister --type=storagepool --action=")
    assert {match.removeprefix("--action=") for match in found} == {"discover"}


def test_agent_types(offers: Offers) -> None:
    assert offers("tzregister --agentType ") == {"0", "1", "2", "3"}


@pytest.mark.parametrize("program", PROGRAMS)
def test_files_where_files_go(offers: Offers, program: str, tmp_path: Path) -> None:
    place = tmp_path / "place"
    (place / "a-directory").mkdir(parents=True)
    (place / "a-file").touch()
    for option, kinds in {"--passwdfile": 2, "--file": 2, "--keydir": 1, "--storage": 1, "--login": 0}.items():
        found = {os.path.basename(match.rstrip("/")) for match in offers(f"{program} {option} {place}/a-")}
        assert found == {"a-directory", "a-file"} if kinds == 2 else found == {"a-directory"} if kinds else not found


def test_the_tab_key_of_an_interactive_bash(tmp_path: Path) -> None:
    line = "tzregister --type StoragePoolAuthority --action configfile"
    assert typed_in_bash("tzregister --type StoragePoolAuthority --action conf", tmp_path) == line
    assert typed_in_bash("tzregister --type=Stor", tmp_path) == "tzregister --type=StoragePoolAuthority"
    assert typed_in_bash("tzregister-enroll --make", tmp_path) == "tzregister-enroll --make-key"
