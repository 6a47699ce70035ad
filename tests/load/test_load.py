"""The load itself: a small fleet through every fault, and authorities whose mistakes it must see."""

from __future__ import annotations

import shutil
import subprocess
import sys
from pathlib import Path

import pytest

import paths

_TIME_LIMIT_S = 1200

ENROL_END = "        $this->store->saveAccount(Accounts::systemLogin($id), $hash, $id);\n"
MISTAKES = [
    (
        "an id given out again",
        "AgentActions.php",
        "$known['id'] ?? null",
        "$known['id'] ?? ($this->store->agent(1) === null ? null : 1)",
        "1 registered, 3 lost, 3 twice",
        "agent id 1 is in more than one host's file",
    ),
    (
        "an account dropped",
        "AgentActions.php",
        ENROL_END,
        f"        if ($host !== 'host000002.example') {{\n    {ENROL_END}        }}\n",
        "3 registered, 1 lost, 0 twice",
        "host000002.example: the authority has no such account",
    ),
    (
        "a record too many",
        "AgentActions.php",
        ENROL_END,
        ENROL_END + "        if ($host === 'host000002.example') {\n"
        "            $this->store->saveAgent(null, ['host_name' => 'ghost.example'] + $properties);\n        }\n",
        "4 registered, 0 lost, 1 twice",
        "the authority has ghost.example, which is no host of this fleet",
    ),
    (
        "a byte changed",
        "ConfigFileActions.php",
        "=> $url,",
        "=> $agent === 2 ? \"$url/\" : $url,",
        "3 registered, 1 lost, 0 twice",
        ": the file differs from what it must be",
    ),
]


def load(*arguments: str | Path) -> subprocess.CompletedProcess[str]:
    """Runs the load."""
    program = Path(__file__).with_name("load.py")
    command = [sys.executable, str(program), *map(str, arguments)]
    return subprocess.run(command, capture_output=True, text=True, timeout=_TIME_LIMIT_S, check=False)


def test_nothing_is_lost_and_nothing_is_twice_whatever_goes_wrong() -> None:
    done = load("--hosts", "40", "--parallel", "20", "--faults", "kill,reset,full")
    lines = done.stdout.splitlines()
    assert (done.returncode, lines[-1]) == (0, "40 registered, 0 lost, 0 twice"), done
    assert {line.partition(":")[0] for line in lines if " after " in line} == {"full", "kill"}
    [retries] = [int(line.split()[-1]) for line in lines if line.startswith("tries that were repeated")]
    assert retries > 0


@pytest.mark.parametrize("mistake", MISTAKES, ids=[mistake[0] for mistake in MISTAKES])
def test_a_mistake_of_the_authority_is_seen(mistake: tuple[str, ...], tmp_path: Path) -> None:
    _, name, right, wrong, outcome, reason = mistake
    authority = tmp_path / "authority"
    shutil.copytree(paths.AUTHORITY, authority)
    source = authority / "lib" / name
    text = source.read_text()
    assert text.count(right) == 1
    source.write_text(text.replace(right, wrong))
    done = load("--hosts", "4", "--parallel", "4", "--authority", authority)
    assert (done.returncode, done.stdout.splitlines()[-1]) == (1, outcome), done
    assert reason in done.stdout
