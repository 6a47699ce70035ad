"""The log of requests."""

from __future__ import annotations

import pytest

from harness.answers import ONE_LINE, records, refusal
from harness.authority import Authority, REGISTRATION
from harness.programs import AUTHORITY, php, start, stop


def test_requests_are_logged_with_their_fields_and_outcome(authority: Authority) -> None:
    authority.register()
    authority.ask("agent", action="getRoutingTables", storagepoolId="1", id="1")
    authority.ask("agent", passwd="wrong", action="getRoutingTables", storagepoolId="1")
    authority.ask("dataselection", action="createDS", agentid="1", dstypeid="", dataselection="é" * 300, name="")
    authority.ask("dataselection", action="createDS", agentid="1", dstypeid="", dataselection="é" * 300, name="n")
    assert authority.rows("SELECT page, action, login, fields, outcome FROM requests ORDER BY id") == [
        (
            "ws_agent.php",
            "register",
            "admin",
            "agentid=0 isServerAgent=0 macAddress=000000000000 agentVersion=6.6.0.12345 version=6.6.0.12345 "
            "osvariantid=0 osType=20 osextensions= hostName=host.example type=0",
            "done",
        ),
        ("ws_agent.php", "getRoutingTables", "admin", "storagepoolId=1 id=1", "done"),
        ("ws_agent.php", "", "", "", "Login failed"),
        ("ws_dataselection.php", "createDS", "admin", "agentid=1", f'The field "name" must be {ONE_LINE}.'),
        (
            "ws_dataselection.php",
            "createDS",
            "admin",
            f"agentid=1 name=n dstypeid= dataselection={'é' * 200}...",
            "done",
        ),
    ]


@pytest.mark.parametrize("failure", ["ABORT", "ROLLBACK"])
def test_a_request_whose_log_line_cannot_be_written_has_no_effect(authority: Authority, failure: str) -> None:
    before = authority.register()
    authority.change(f"""
        CREATE TRIGGER full BEFORE INSERT ON requests BEGIN SELECT RAISE({failure}, 'no room for the log'); END;
    """)
    for host in ("host.example", "new.example"):
        answer = authority.ask("agent", **{**REGISTRATION, "hostName": host})
        assert refusal(answer) == (1, "The authority failed; its server.log says why.")
    assert authority.rows("SELECT id, host_name FROM agents") == [(1, "host.example")]
    assert (authority.data / "server.log").read_text().count("no room for the log") == 2
    authority.change("DROP TRIGGER full")
    assert records(authority.ask("storagepool", "agent1", before["password"], action="discover"))


def test_a_refusal_stays_one_when_its_log_line_cannot_be_written(authority: Authority) -> None:
    authority.change("""
        CREATE TRIGGER full BEFORE INSERT ON requests BEGIN SELECT RAISE(ABORT, 'no room for the log'); END;
    """)
    assert refusal(authority.ask("storagepool", passwd="wrong", action="discover")) == (3, "Login failed")
    assert "no room for the log" in (authority.data / "server.log").read_text()


def test_the_log_keeps_the_last_ten_thousand_requests(authority: Authority) -> None:
    authority.change("""
        WITH RECURSIVE number (n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM number WHERE n < 10005)
        INSERT INTO requests (page, action, login, fields, outcome) SELECT 'old', n, '', '', '' FROM number;
    """)
    authority.ask("storagepool", action="discover")
    authority.ask("storagepool", passwd="wrong", action="discover")
    assert authority.rows("SELECT count(*), min(id), max(id) FROM requests") == [(10000, 8, 10007)]
    outcomes = authority.rows("SELECT outcome FROM requests ORDER BY id DESC LIMIT 2")
    assert outcomes == [("Login failed",), ("done",)]


def test_the_file_does_not_grow_beyond_the_last_requests(authority: Authority) -> None:
    def file_after(requests: int) -> int:
        php(
            """$store = Store::open($argv[1]);
            $store->atomically(function () use ($store, $argv): void {
                for ($i = 0; $i < $argv[2]; ++$i) {
                    $store->logRequest('page', 'action', 'login', ['name' => 'value'], 'done', '::1');
                }
            });""",
            str(authority.data),
            str(requests),
        )
        return (authority.data / "authority.sqlite").stat().st_size

    full = file_after(10000)
    assert file_after(30000) <= full * 1.1
    assert authority.rows("SELECT count(*), max(id) FROM requests") == [(10000, 40000)]


def test_requests_are_logged_with_the_clients_address(authority: Authority) -> None:
    fields = {"login": "admin", "passwd": authority.password, "action": "discover"}
    authority.page("storagepool", fields)
    authority.page("storagepool", fields, X_Forwarded_For="192.0.2.1, 2001:db8::7")
    authority.page("storagepool", {**fields, "passwd": "wrong"}, X_Forwarded_For="<b>")
    assert authority.rows("SELECT client FROM requests") == [("127.0.0.1",), ("2001:db8::7",), ("127.0.0.1",)]


def test_a_log_from_before_there_were_addresses_gets_them(authority: Authority) -> None:
    authority.ask("storagepool", action="discover")
    authority.change("ALTER TABLE requests DROP COLUMN client")
    with_addresses = Authority(authority.url, authority.data.parent / "again")
    with_addresses.data.mkdir()
    (authority.data / "authority.sqlite").rename(with_addresses.data / "authority.sqlite")
    process, with_addresses.url = start(AUTHORITY / "serve", "--data", with_addresses.data)
    try:
        with_addresses.ask("storagepool", action="discover")
    finally:
        stop(process)
    assert with_addresses.rows("SELECT id, client FROM requests") == [(1, ""), (2, "127.0.0.1")]
