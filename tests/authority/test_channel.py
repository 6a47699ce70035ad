"""TLS and the channel."""

from __future__ import annotations

from pathlib import Path

from harness.answers import options, records, refusal
from harness.authority import Authority, Front, REGISTRATION
from harness.programs import AUTHORITY
from harness.web import multipart, request

UNKNOWN_FIELD = 'The request text has a field that its action does not know; no value may hold a "&".'


def test_the_pages_answer_over_tls_with_their_own_address(front: Front) -> None:
    body, content_type = multipart(
        {"login": "admin", "passwd": front.authority.password}
        | {"action": "create", "agentid": "0", "configfiletemplateid": "1"}
    )
    spoofed = {"X-Forwarded-Host": "evil.example", "X-Forwarded-Proto": "http", "X-Forwarded-Prefix": "/evil"}
    reply = request(
        f"{front.url}/ws_configfile.php", body, {"Content-Type": content_type, **spoofed}, front.certificate
    )
    assert options(records(reply.text)[0]["returnvalue"])["spa"]["url"] == front.url


def test_the_channel_performs_every_action(front: Front) -> None:
    fields = "".join(f"&{name}={value}" for name, value in REGISTRATION.items() if name != "action")
    texts = {
        "discover": [{"id": "1", "name": "Primary pool"}, {"id": "2", "name": "Archive pool (Ghent|Lyon)"}],
        f"register{fields}": [{"agentid": "1", "login": "agent1"}],
        "createDS&agentid=1&dataselection=a=b; c\n&dstypeid=&name=n": [{"dataselectionid": "1"}],
    }
    for text, expected in texts.items():
        reply = front.channel(text)
        assert (reply.status, reply.headers["X-Quorvex-Status"]) == (200, "0")
        assert [{key: row[key] for key in row if key != "password"} for row in records(reply.text)] == expected
    [tables] = records(front.channel("getRoutingTables&id=1&storagepoolId=2").text)
    assert tables["cr_currentrt"] == (AUTHORITY / "pools" / "2.current").read_bytes().decode()
    [created] = records(front.channel("create&agentid=1&configfiletemplateid=2").text)
    assert options(created["returnvalue"])["spa"]["url"] == front.url.replace("https", "vrmo")
    assert front.authority.rows("SELECT rules FROM dataselections") == [("a=b; c\n",)]


def test_the_channel_answers_like_the_pages(front: Front) -> None:
    page = front.authority.ask("storagepool", action="discover")
    assert front.channel("discover").text == page
    password = records(front.authority.ask("agent", **REGISTRATION))[0]["password"]
    refused = front.channel("getRoutingTables&id=2&storagepoolId=1", "agent1", password)
    assert refused.headers["X-Quorvex-Status"] == "0"
    assert refusal(refused.text) == (4, 'The account "agent1" may act for its own agent only.')


def test_the_channel_refuses_with_error_blocks_and_status_0(front: Front) -> None:
    actions = "discover, register, getRoutingTables, create, createDS"
    for reply, expected in [
        (front.channel("discover", passwd="wrong"), (3, "Login failed")),
        (front.channel("discover", Authorization=None), (3, "Login failed")),
        (front.channel("certificate"), (5, f"This page has no such action; it has: {actions}.")),
        (front.channel("&storagepoolId=1"), (5, f"This page has no such action; it has: {actions}.")),
        (front.channel("getRoutingTables"), (6, 'The field "storagepoolId" is missing.')),
    ]:
        assert (reply.status, reply.headers["X-Quorvex-Status"]) == (200, "0")
        assert refusal(reply.text) == expected
        assert "\nsource: vrmo.php\n" in reply.text


def channel_text(action: str, fields: dict[str, str]) -> str:
    """The request text of an action."""
    return "&".join([action, *map("=".join, fields.items())])


def test_a_field_that_the_action_does_not_know_is_refused(front: Front) -> None:
    agent = front.authority.register()
    selection = {"agentid": "1", "dataselection": "a=1&b=2", "dstypeid": "", "name": "n"}
    registration = {name: value for name, value in REGISTRATION.items() if name != "action"}
    for action, fields in [
        ("createDS", selection),
        ("discover", {"more": ""}),
        ("register", {**registration, "osextensions": "a&b=c"}),
        ("register", {**registration, "id": "1"}),
        ("getRoutingTables", {"storagepoolId": "1&agentid=1"}),
        ("create", {"agentid": "1", "configfiletemplateid": "1", "keydir": "/keys"}),
        ("discover", {"": "x"}),
        ("discover", {"0": "x"}),
    ]:
        reply = front.channel(channel_text(action, fields))
        assert reply.headers["X-Quorvex-Status"] == "0"
        assert refusal(reply.text) == (6, UNKNOWN_FIELD), (action, fields)
    assert front.authority.rows("SELECT count(*) FROM dataselections") == [(0,)]
    assert records(front.authority.ask("storagepool", "agent1", agent["password"], action="discover"))


def test_an_unknown_field_is_not_told_to_strangers_and_not_logged(front: Front) -> None:
    assert refusal(front.channel("discover&hunter=2", passwd="wrong").text) == (3, "Login failed")
    assert refusal(front.channel("discover&hunter=2").text) == (6, UNKNOWN_FIELD)
    logged = front.authority.rows("SELECT action, login, fields, outcome FROM requests ORDER BY id")
    assert logged == [("", "", "", "Login failed"), ("discover", "admin", "", UNKNOWN_FIELD)]


def test_malformed_channel_requests_get_status_1(front: Front) -> None:
    for reply, text in [
        (front.channel("discover", X_Quorvex_Request_Kind="12"), "Unknown request kind."),
        (front.channel("discover", X_Quorvex_Request_Kind=None), "Unknown request kind."),
        (front.channel("discover", X_Quorvex_Parameter="Action"), "Unknown parameter name."),
        (front.channel("discover", X_Quorvex_Parameter=None), "Unknown parameter name."),
        (front.channel(""), "The request holds no text."),
        (front.channel("createDS&name=a&b&agentid=1"), "A field of the request text has no value."),
        (front.channel("createDS&name=a&name=b"), "A field of the request text is given twice."),
        (front.channel("discover&action=create"), "A field of the request text is given twice."),
        (front.channel("discover&login=x"), "Credentials do not belong in the request text."),
        (front.channel("discover&passwd=x"), "Credentials do not belong in the request text."),
        (request(f"{front.url}/vrmo.php", None, {}, front.certificate), "A channel request is a POST."),
    ]:
        assert (reply.status, reply.headers["X-Quorvex-Status"], reply.text) == (200, "1", text + "\n")
    assert front.authority.rows("SELECT count(*) FROM requests") == [(0,)]


def test_the_channel_never_answers_without_tls(authority: Authority) -> None:
    plain = Front(authority.url, Path(), authority)
    for proto in (None, "http", "HTTPS,http"):
        reply = plain.channel("discover", X_Forwarded_Proto=proto)
        assert reply.headers["X-Quorvex-Status"] == "1"
        assert reply.text == "The channel is served over TLS only.\n"


def test_the_channel_leaves_no_password_behind(front: Front) -> None:
    front.channel("discover", passwd="a-wrong-password")
    front.channel("discover&passwd=a-wrong-password")
    password = records(front.channel("&".join(["register", *map("=".join, list(REGISTRATION.items())[1:])])).text)[0][
        "password"
    ]
    folders = [front.authority.data, front.certificate.parent]
    for path in (path for folder in folders for path in folder.rglob("*") if path.is_file()):
        content = path.read_bytes()
        assert b"a-wrong-password" not in content and password.encode() not in content, path
