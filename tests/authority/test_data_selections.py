"""Data selections."""

from __future__ import annotations

import pytest

from harness.answers import NOT_A_NUMBER, ONE_LINE, records, refusal
from harness.authority import Authority

ANY_TEXT = "a text of at most 65535 characters in UTF-8 without control characters"


def test_a_data_selection_is_stored_as_it_came(authority: Authority) -> None:
    authority.register()
    rules = 'include /home\r\nexclude "*|\\tmp"\té=&'
    answer = authority.ask(
        "dataselection", action="createDS", agentid="1", dstypeid="2", dataselection=rules, name="häuser | 1"
    )
    assert answer == "***BEGIN***\n1\ndataselectionid\nI\n1\n***DONE***\n"
    stored = authority.rows("SELECT agent_id, name, type_id, rules FROM dataselections")
    assert stored == [(1, "häuser | 1", "2", rules)]


def test_a_data_selection_goes_without_type_and_rules(authority: Authority) -> None:
    authority.register()
    assert records(
        authority.ask("dataselection", action="createDS", agentid="1", dstypeid="", dataselection="", name="n")
    ) == [{"dataselectionid": "1"}]


def test_a_name_is_taken_for_one_agent_only(authority: Authority) -> None:
    authority.register("a")
    authority.register("b")
    fields = {"action": "createDS", "dstypeid": "", "dataselection": "", "name": "n ***DONE***"}
    ids = [records(authority.ask("dataselection", agentid=agent, **fields)) for agent in ("1", "2")]
    assert ids == [[{"dataselectionid": "1"}], [{"dataselectionid": "2"}]]
    answer = authority.ask("dataselection", agentid="2", **fields)
    assert refusal(answer) == (8, "The agent 2 has a data selection of this name already.")


@pytest.mark.parametrize(
    ("changes", "expected"),
    [
        ({"agentid": ""}, (6, f'The field "agentid" {NOT_A_NUMBER}')),
        ({"agentid": "0"}, (7, "There is no agent with the id 0.")),
        ({"agentid": "2"}, (7, "There is no agent with the id 2.")),
        ({"name": ""}, (6, f'The field "name" must be {ONE_LINE}.')),
        ({"name": "a\nb"}, (6, f'The field "name" must be {ONE_LINE}.')),
        ({"dstypeid": "x"}, (6, 'The field "dstypeid" must be empty or a decimal number of at most 18 digits.')),
        ({"dataselection": "\x00"}, (6, f'The field "dataselection" must be {ANY_TEXT}.')),
        ({"dataselection": "\udcff"}, (6, f'The field "dataselection" must be {ANY_TEXT}.')),
        ({"dataselection": "x" * 65536}, (6, f'The field "dataselection" must be {ANY_TEXT}.')),
    ],
)
def test_a_data_selection_is_refused(
    authority: Authority, changes: dict[str, str], expected: tuple[int, str]
) -> None:
    authority.register()
    fields = {"agentid": "1", "dstypeid": "1", "dataselection": "", "name": "n"}
    assert refusal(authority.ask("dataselection", action="createDS", **{**fields, **changes})) == expected


@pytest.mark.parametrize("name", ["agentid", "dstypeid", "dataselection", "name"])
def test_a_data_selection_names_the_missing_field(authority: Authority, name: str) -> None:
    fields = {"agentid": "1", "dstypeid": "1", "dataselection": "", "name": "n"}
    del fields[name]
    answer = authority.ask("dataselection", action="createDS", **fields)
    assert refusal(answer) == (6, f'The field "{name}" is missing.')
