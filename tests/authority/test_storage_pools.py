"""Storage pools and their routing tables."""

from __future__ import annotations

import pytest

from harness.answers import NOT_A_NUMBER, records, refusal
from harness.authority import Authority
from harness.programs import AUTHORITY


def test_discover_lists_the_pools_byte_for_byte(authority: Authority) -> None:
    assert authority.ask("storagepool", action="discover") == (
        "***BEGIN***\n2\nid|name\nI|S\n1|Primary pool\n2|Archive pool (Ghent\\x7cLyon)\n***DONE***\n"
    )


@pytest.mark.parametrize("pool", [1, 2])
def test_routing_tables_arrive_as_shipped(authority: Authority, pool: int) -> None:
    answer = authority.ask("agent", action="getRoutingTables", storagepoolId=str(pool))
    assert answer.split("\n")[1:4] == ["1", "cr_recommendedrt|cr_currentrt", "S|S"]
    for column, ending in (("cr_recommendedrt", "recommended"), ("cr_currentrt", "current")):
        shipped = (AUTHORITY / "pools" / f"{pool}.{ending}").read_bytes().decode()
        assert {"|", "\\", "\t", "\n"} <= set(shipped)
        assert records(answer)[0][column] == shipped


@pytest.mark.parametrize(
    ("fields", "expected"),
    [
        ({"storagepoolId": "3"}, (7, "There is no storage pool with the id 3.")),
        ({"storagepoolId": "0"}, (7, "There is no storage pool with the id 0.")),
        ({"storagepoolId": "one"}, (6, f'The field "storagepoolId" {NOT_A_NUMBER}')),
        ({"storagepoolId": "-1"}, (6, f'The field "storagepoolId" {NOT_A_NUMBER}')),
        ({}, (6, 'The field "storagepoolId" is missing.')),
        ({"storagepoolId": "1", "id": "9"}, (7, "There is no agent with the id 9.")),
        ({"storagepoolId": "1", "id": ""}, (6, f'The field "id" {NOT_A_NUMBER}')),
    ],
)
def test_routing_tables_are_refused(authority: Authority, fields: dict[str, str], expected: tuple[int, str]) -> None:
    assert refusal(authority.ask("agent", action="getRoutingTables", **fields)) == expected
