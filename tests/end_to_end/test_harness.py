"""The harness itself: a test that cannot fail would be worth nothing."""

from __future__ import annotations

import os
import socket
from pathlib import Path

import pytest
from cryptography.exceptions import InvalidTag

from harness.config_model import Config, provisioned
from harness.passwords import decrypt, encrypt
from harness.raw_server import RawServer, Request, http_answer, multipart
from harness.sandbox import Host
from harness.templates import AGENT_TEMPLATE, agent_provisioned

BOUNDARY = "----x"
HEAD = f"POST / HTTP/1.1\r\nContent-Type: multipart/form-data; boundary={BOUNDARY}\r\n\r\n".encode()
PAIRS = [(b"a", b"1"), (b"b", b"two\r\nlines")]
BODY = multipart(PAIRS, BOUNDARY)


def test_a_form_is_read_into_its_parts() -> None:
    assert Request(HEAD, BODY).parts() == [("a", "1"), ("b", "two\r\nlines")]


@pytest.mark.parametrize(
    "body",
    [
        b"preamble" + BODY,
        BODY + b"epilogue",
        BODY.replace(b'name="a"', b'name="a"; filename="a"'),
        BODY.replace(b'name="a"', b"name=a"),
        BODY.replace(b'"a"\r\n', b'"a"\r\nContent-Type: text/plain\r\n'),
        BODY.replace(b"--\r\n", b"--"),
        BODY[:-2],
    ],
)
def test_a_form_in_any_other_shape_is_refused(body: bytes) -> None:
    with pytest.raises(AssertionError):
        Request(HEAD, body).parts()


@pytest.mark.parametrize(
    "head, body, kept",
    [
        (b"Content-Length: 3\r\n", b"abc", b"abc"),
        (b"Expect: 100-continue\r\nContent-Length: 3\r\n", b"abc", b"abc"),
        (b"Transfer-Encoding: chunked\r\n", b"3\r\nabc\r\n0\r\n\r\n", b"3\r\nabc\r\n0\r\n\r\n"),
    ],
)
def test_the_server_records_what_it_received(head: bytes, body: bytes, kept: bytes) -> None:
    sent = b"POST /x HTTP/1.1\r\n" + head + b"\r\n"
    with RawServer([http_answer("yes")]) as server:
        with socket.create_connection(("127.0.0.1", server.port)) as client:
            client.sendall(sent + body)
            client.shutdown(socket.SHUT_WR)
            answer = b"".join(iter(lambda: client.recv(4096), b""))
    assert answer.endswith(http_answer("yes"))
    assert answer.startswith(b"HTTP/1.1 100 Continue\r\n\r\n") == (b"Expect" in head)
    assert server.only_request() == Request(sent, kept)


def test_a_run_changes_nothing_of_the_real_machine(host: Host) -> None:
    before = {path: os.path.exists(path) for path in ("/etc/qxregistry.cfg", "/etc/quorvex", "/usr/zenta")}
    host.install_default_product()
    host.register_component("Agent", "/c", "/p")
    script = "ls /usr/zenta/vrmo && cat /etc/qxregistry.cfg && touch /etc/quorvex/a ./b && ! touch /usr/bin/c"
    result = host.run(shell=script)
    assert (result.status, result.stdout) == (0, b"qxag\n[Agent]\nconfigfilepath=/c\npath=/p\n")
    assert {path: os.path.exists(path) for path in before} == before
    assert (host.etc_quorvex / "a").exists() and (host.work / "b").exists()


def test_a_run_sees_only_its_own_environment(host: Host, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("QUORVEX_SSL_VERIFY", "0")
    listed = host.run(shell="env", environment={"GIVEN": "yes"}).stdout.decode()
    assert "GIVEN=yes" in listed and "QUORVEX_SSL_VERIFY" not in listed


def test_a_run_has_the_rights_of_its_files_owner_only(host: Host) -> None:
    (host.work / "locked").write_bytes(b"x")
    (host.work / "locked").chmod(0)
    assert host.run(shell="cat locked").status != 0


def test_a_run_keeps_its_mask_and_name(host: Host) -> None:
    host.set_name("own-name")
    assert host.run(shell="umask; hostname", umask=0o027).stdout == b"0027\nown-name\n"


def test_a_small_disk_is_small(host: Host) -> None:
    host.add_small_disk("/small", 4096)
    assert host.run(shell="head -c 4096 /dev/zero >/small/a").status == 0
    assert host.run(shell="head -c 4097 /dev/zero >/small/a").status != 0


def test_the_configuration_model_agrees_with_a_file_written_by_hand() -> None:
    assert provisioned(AGENT_TEMPLATE, 1, "/base").encode() == agent_provisioned("/base")
    account = ("login", "word")
    assert provisioned(AGENT_TEMPLATE, 1, "/base/", account).encode() == agent_provisioned("/base", account)
    once = Config(AGENT_TEMPLATE).dump()
    assert Config(once).dump() == once


def test_passwords_open_with_their_own_key_only(tmp_path: Path) -> None:
    stored = encrypt(b"key", b"word").encode()
    assert decrypt(b"key", stored) == b"word"
    with pytest.raises(InvalidTag):
        decrypt(b"another key", stored)
