"""The script that prints what is stored."""

from __future__ import annotations

import re
from pathlib import Path

from harness.authority import Authority
from harness.programs import run


def test_show_prints_every_section_as_a_table(authority: Authority) -> None:
    authority.register()
    authority.ask("dataselection", action="createDS", agentid="1", dstypeid="2", dataselection="a\n|\x1b", name="x")
    authority.ask(
        "dataselection", action="createDS", agentid="1", dstypeid="2", dataselection="a\n|b", name="homes"
    )
    day = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"
    assert authority.show("accounts") == (
        "== accounts ==\nlogin   role           agent_id\n------  -------------  --------\n"
        "admin   administrator\nagent1  agent          1\n"
    )
    assert re.search(rf"\n1   host\.example  0           0    .*  {day}\n$", authority.show("agents"))
    assert re.search(rf"\n1   1         homes  2        a\\n\|b  {day}\n$", authority.show("dataselections"))
    assert "\ncurrent routing table of pool 2:\n    # Routing table of pool 2, current\n" in authority.show("pools")
    assert "\ntemplate 6:\n    # Configuration of the storage pool authority itself.\n" in authority.show("templates")
    headings = re.findall("^== (.*) ==$", authority.show(), re.M)
    assert headings == ["accounts", "agents", "pools", "templates", "dataselections", "requests"]


def test_show_says_none_for_an_empty_section(authority: Authority) -> None:
    assert authority.show("agents") == "== agents ==\n(none)\n"


def test_show_refuses_what_it_does_not_know(tmp_path: Path) -> None:
    usage = "Usage: show [--data DIR] [accounts|agents|pools|templates|dataselections|requests]\n"
    assert run("show", "passwords") == (2, "", usage)
    status, printed, errors = run("show", "--data", tmp_path)
    assert (status, printed) == (1, "") and errors.startswith(f"show: cannot read {tmp_path}: ")
    assert list(tmp_path.iterdir()) == []
