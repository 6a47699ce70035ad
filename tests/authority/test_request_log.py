"""The log of requests."""

from __future__ import annotations

from harness.answers import ONE_LINE
from harness.authority import Authority


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
