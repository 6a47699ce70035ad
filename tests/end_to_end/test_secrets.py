"""A password leaves no trace but where it belongs: not on a stream, in a file, or in what others see of the process."""

from __future__ import annotations

import socket
import stat
from pathlib import Path
from typing import Mapping, Sequence

import pytest

from harness.answers import agent_answer, config_answer, empty_answer, error_answer, routing_answer
from harness.passwords import KEY_FILE
from harness.raw_server import RawServer, Reply, end_sending, http_answer
from harness.registered_host import KEY, PASSWORD, RegisteredHost
from harness.sandbox import Host, Result

# On the command line, in a password file, and what the authority hands out; the
# stored account's own is the fourth.
CANARY = "c4nary-P4ssw0rd"
HANDED_OUT = "h4nded-0ut-P4ssw0rd"
PROGRAM = "tzregister"

FAILURES: Mapping[str, Reply] = {
    "a page": http_answer("<html></html>\n"),
    "an error block": http_answer(error_answer("no")),
    "a refusal": http_answer("", "401 Unauthorized", ["WWW-Authenticate: Basic realm=x"]),
    "a redirect": http_answer("", "302 Found", ["Location: http://127.0.0.1:9/"]),
    "nothing": b"",
}
TEMPLATE = "[paths]\nkeydir=keys\nlog=log\n"
ANSWERS = {
    "discover": [empty_answer()],
    "register": [agent_answer(password=HANDED_OUT), config_answer(TEMPLATE)],
    "configfile": [config_answer(TEMPLATE)],
    "routingtables": [routing_answer("a", "b")],
    "createds": [empty_answer()],
}


def command_line(machine: RegisteredHost, action: str, url: str) -> list[str]:
    """An action's command line with the canary for a password."""
    return [CANARY if word == "secret" else word for word in machine.arguments(action, url)]


def traces(machine: RegisteredHost, result: Result) -> list[str]:
    """Where a password stands: on a stream, or in a file that the run could write."""
    texts = {"stdout": result.stdout, "stderr": result.stderr}
    texts.update({path: state.content for path, state in machine.files().items()})
    words = [word.encode() for word in (CANARY, HANDED_OUT, PASSWORD)]
    return [place for place, text in texts.items() if any(word in text for word in words)]


@pytest.mark.parametrize("reply", FAILURES.values(), ids=FAILURES.keys())
@pytest.mark.parametrize("action", ANSWERS)
def test_no_failure_shows_a_password(host: Host, action: str, reply: Reply) -> None:
    machine = RegisteredHost(host)
    with RawServer([reply]) as server:
        result = host.run(*command_line(machine, action, server.url))
    assert result.stderr and traces(machine, result) == []


@pytest.mark.parametrize("action", ANSWERS)
def test_no_success_shows_a_password(host: Host, action: str) -> None:
    machine = RegisteredHost(host)
    with RawServer([http_answer(answer) for answer in ANSWERS[action]]) as server:
        result = host.run(*command_line(machine, action, server.url))
    assert result.status == 0 and traces(machine, result) == []
    if action in ("discover", "register", "configfile"):
        assert all(("passwd", CANARY) in request.parts() for request in server.requests)


@pytest.mark.parametrize(
    "arguments",
    [
        ("--action", "nothing"),
        ("--action", "discover", "--unknown"),
        ("--action", "discover", "--type", "Foo"),
        ("--action", "register", "--type", "Agent", "--agentid", "x"),
        ("--action", "discover", "--passwd", "twice"),
        ("--help",),
        (),
    ],
)
@pytest.mark.parametrize("form", [("--passwd", CANARY), (f"--passwd={CANARY}",)], ids=["word", "assignment"])
def test_no_refusal_shows_a_password(host: Host, form: Sequence[str], arguments: Sequence[str]) -> None:
    result = host.run(*form, *arguments)
    assert result.stderr and CANARY.encode() not in result.stdout + result.stderr


def seen_from_outside(port: int) -> dict[str, bytes]:
    """Command line and environment of the tool that talks to this port, as another process sees them."""
    for process in Path("/proc").iterdir():
        try:
            arguments = (process / "cmdline").read_bytes()
            if (process / "comm").read_text() == f"{PROGRAM}\n" and str(port).encode() in arguments:
                return {"arguments": arguments, "environment": _environment(process)}
        except OSError:
            continue
    return {}


def _environment(process: Path) -> bytes:
    """The environment of a process; nothing when it may not be read, which is better still."""
    try:
        return (process / "environ").read_bytes()
    except PermissionError:
        return b""


@pytest.mark.parametrize("form", [["--passwd", CANARY], [f"--passwd={CANARY}"]], ids=["word", "assignment"])
@pytest.mark.parametrize("action", ["discover", "register", "configfile"])
def test_a_waiting_run_shows_nobody_its_password(host: Host, action: str, form: Sequence[str]) -> None:
    machine = RegisteredHost(host)
    seen: list[dict[str, bytes]] = []

    def look(stream: socket.socket) -> None:
        seen.append(seen_from_outside(server.port))
        stream.sendall(http_answer(error_answer("no")))
        end_sending(stream)

    with RawServer([look]) as server:
        arguments = list(machine.arguments(action, server.url))
        place = arguments.index("--passwd")
        arguments[place : place + 2] = form
        host.run(*arguments)
    assert len(seen) == 1 and seen[0]
    assert action.encode() in seen[0]["arguments"]
    for text in seen[0].values():
        assert CANARY.encode() not in text


def test_a_password_from_a_file_never_stands_on_the_command_line(host: Host) -> None:
    machine = RegisteredHost(host)
    password_file = host.work / "password"
    password_file.write_text(f"passwd={CANARY}\n")
    seen: list[dict[str, bytes]] = []

    def look(stream: socket.socket) -> None:
        seen.append(seen_from_outside(server.port))
        stream.sendall(http_answer(empty_answer()))
        end_sending(stream)

    with RawServer([look]) as server:
        arguments = ("--url", server.url, "--login", "admin", "--passwdfile", str(password_file))
        result = host.run("--action", "discover", *arguments)
    assert ("passwd", CANARY) in server.only_request().parts()
    assert all(CANARY.encode() not in text for text in seen[0].values())
    assert traces(machine, result) == [str(password_file)]


def mode(path: Path) -> int:
    """The permission bits of a file or directory."""
    return stat.S_IMODE(path.stat().st_mode)


@pytest.mark.parametrize("mask", [0o000, 0o022, 0o027, 0o077])
def test_whatever_holds_a_secret_is_its_owners_alone(host: Host, mask: int) -> None:
    base = host.work / "fresh"
    base.mkdir()
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(base))
    with RawServer([http_answer(config_answer(TEMPLATE))]) as server:
        account = ("--url", server.url, "--login", "admin", "--passwd", CANARY)
        done = host.run("--action", "configfile", "--type", "Agent", "--todisk", "--mkdir", *account, umask=mask)
    assert done.status == 0
    keys = base / "keys"
    made = host.run("--action", "certificate", "--type", "Agent", "--todisk", "--keydir", str(keys), umask=mask)
    assert made.status == 0
    assert mode(host.etc_quorvex / "Agent.cfg") == 0o600
    assert (mode(keys), mode(keys / "Agent.key")) == (0o700, 0o600)
    assert mode(base / "log") == 0o755 & ~mask
    assert mode(keys / "Agent.cert") == 0o666 & ~mask


def test_a_registration_stores_the_password_sealed(host: Host) -> None:
    machine = RegisteredHost(host)
    with RawServer([http_answer(answer) for answer in ANSWERS["register"]]) as server:
        host.run(*command_line(machine, "register", server.url), umask=0)
    assert (machine.keys / KEY_FILE).read_bytes() == KEY
    content = machine.config.read_bytes()
    assert b"passwd=qx1." in content and HANDED_OUT.encode() not in content
