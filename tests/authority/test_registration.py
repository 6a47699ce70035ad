"""Registration of agents."""

from __future__ import annotations

import concurrent.futures
import re
import subprocess
from pathlib import Path

import pytest

from harness.answers import records, refusal
from harness.authority import Authority, REGISTRATION
from harness.programs import php


def test_registration_gives_an_id_and_a_system_account(authority: Authority) -> None:
    answer = authority.ask("agent", **REGISTRATION)
    assert re.fullmatch(
        r"\*\*\*BEGIN\*\*\*\n1\nagentid\|login\|password\nI\|S\|S\n1\|agent1\|[A-Za-z0-9_-]{32}\n\*\*\*DONE\*\*\*\n",
        answer,
    )
    [record] = records(answer)
    assert records(authority.ask("storagepool", "agent1", record["password"], action="discover"))
    columns = "host_name, agent_type, is_server_agent, mac_address, agent_version, os_variant_id, os_type"
    assert authority.rows(f"SELECT {columns} FROM agents") == [
        ("host.example", 0, 0, "000000000000", "6.6.0.12345", 0, 20)
    ]


def test_a_host_that_registers_again_keeps_its_id_and_gets_a_new_password(authority: Authority) -> None:
    authority.register("other.example")
    first = authority.register("host.example")
    again = authority.register("HOST.example", type="3")
    assert (first["agentid"], again["agentid"], again["login"]) == ("2", "2", "agent2")
    assert refusal(authority.ask("storagepool", "agent2", first["password"], action="discover"))[0] == 3
    assert records(authority.ask("storagepool", "agent2", again["password"], action="discover"))
    assert authority.rows("SELECT id, agent_type FROM agents ORDER BY id") == [(1, 0), (2, 3)]


def test_an_agent_is_renewed_by_its_id_under_another_host_name(authority: Authority) -> None:
    authority.register("old.example")
    assert authority.register("new.example", agentid="1")["agentid"] == "1"
    assert authority.rows("SELECT id, host_name FROM agents") == [(1, "new.example")]


def test_registration_under_an_unknown_id_stores_nothing(authority: Authority) -> None:
    answer = authority.ask("agent", **{**REGISTRATION, "agentid": "7"})
    assert refusal(answer) == (7, "There is no agent with the id 7.")
    assert authority.rows("SELECT count(*) FROM agents") == [(0,)]


def test_an_agent_cannot_take_the_host_name_of_another(authority: Authority) -> None:
    authority.register("a.example")
    authority.register("b.example")
    answer = authority.ask("agent", **{**REGISTRATION, "agentid": "2", "hostName": "A.example"})
    assert refusal(answer) == (8, 'The host "A.example" is registered as another agent.')


def test_only_an_administrator_registers(authority: Authority) -> None:
    agent = authority.register()
    answer = authority.ask("agent", "agent1", agent["password"], **{**REGISTRATION, "hostName": "x"})
    assert refusal(answer) == (4, "Only an administrator may register agents.")
    assert authority.rows("SELECT count(*) FROM agents") == [(1,)]


@pytest.mark.parametrize("name", sorted(set(REGISTRATION) - {"macAddress", "agentVersion"}))
def test_registration_names_the_missing_field(authority: Authority, name: str) -> None:
    fields = {key: value for key, value in REGISTRATION.items() if key != name}
    assert refusal(authority.ask("agent", **fields)) == (6, f'The field "{name}" is missing.')


def test_registration_goes_without_hardware_address_and_agent_version(authority: Authority) -> None:
    fields = {key: value for key, value in REGISTRATION.items() if key not in ("macAddress", "agentVersion")}
    assert records(authority.ask("agent", **{**fields, "version": ""}))[0]["agentid"] == "1"


BAD_FIELDS = [
    ("agentid", ["", "-1", "1x", "01", " 1", "1\n", "1e3", "9" * 19], "a decimal number of at most 18 digits"),
    ("isServerAgent", ["", "2", "yes", "1\n"], "0 or 1"),
    ("macAddress", ["", "00000000000", "0000000000000", "00000000000g", "000000000000\n"], "twelve hexadecimal digits"),
    ("osType", ["", "Linux"], "a decimal number of at most 18 digits"),
    ("osvariantid", ["x"], "a decimal number of at most 18 digits"),
    ("type", ["", "4", "00", "agent", "0\n"], "0, 1, 2 or 3"),
    (
        "hostName",
        ["", "a b", "a\n", "a\nb", "a\x00", "-a", "a;b", "ü", "x" * 256],
        "a host name of at most 255 letters, digits, dots, hyphens and underscores",
    ),
    (
        "agentVersion",
        ["", "1\t2", "1\n", "x" * 256, "\udcff"],
        "one line of 1 to 255 characters in UTF-8 without control characters",
    ),
    (
        "osextensions",
        ["\x1b[0m", "x" * 256],
        "one line of at most 255 characters in UTF-8 without control characters",
    ),
]


def test_registration_refuses_bad_values(authority: Authority) -> None:
    for name, values, rule in BAD_FIELDS:
        for value in values:
            answer = authority.ask("agent", **{**REGISTRATION, name: value})
            assert refusal(answer) == (6, f'The field "{name}" must be {rule}.'), (name, value)
    assert authority.rows("SELECT count(*) FROM agents") == [(0,)]


def test_parallel_registrations_of_many_hosts_get_distinct_ids(authority: Authority) -> None:
    hosts = [f"host{n}.example" for n in range(16)]
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        answers = list(pool.map(authority.register, hosts))
    assert sorted(int(answer["agentid"]) for answer in answers) == list(range(1, 17))
    assert len({answer["password"] for answer in answers}) == 16
    for host, answer in zip(hosts, answers):
        assert authority.rows(f"SELECT host_name FROM agents WHERE id = {answer['agentid']}") == [(host,)]


def test_parallel_registrations_of_one_host_make_one_agent(authority: Authority) -> None:
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        answers = list(pool.map(authority.register, ["host.example"] * 8))
    assert {answer["agentid"] for answer in answers} == {"1"}
    logins = [authority.ask("storagepool", "agent1", answer["password"], action="discover") for answer in answers]
    assert sum(login.startswith("***BEGIN***") for login in logins) == 1


def test_only_one_registration_at_a_time_reads_what_it_then_writes(tmp_path: Path) -> None:
    code = """$first = Store::create($argv[1]);
        $second = Store::open($argv[1]);
        $second->rows('PRAGMA busy_timeout = 0');
        $first->atomically(fn () => $second->atomically(fn () => print('read at the same time')));"""
    with pytest.raises(subprocess.CalledProcessError) as failure:
        php(code, str(tmp_path))
    assert "database is locked" in failure.value.stderr and failure.value.stdout == ""
