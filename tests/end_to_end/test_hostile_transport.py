"""Servers that break the rules of HTTP or TLS, or break off: nothing is lost, and nothing more is sent."""

from __future__ import annotations

import contextlib
import gzip
import shutil
import socket
import struct
import threading
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Iterator, Mapping, Sequence

import pytest

from harness.answers import config_answer
from harness.messages import (
    NETWORK_ERROR,
    NO_RECORDS,
    NOT_PARSED,
    REQUEST_FAILED,
    STATUS_FAILED,
    call_failed,
    completed,
    failed,
    written_to,
)
from harness.raw_server import RawServer, Reply, http_answer, refusing_port
from harness.registered_host import RegisteredHost
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.tls_files import CertificateAuthority

MEGABYTE = 1 << 20
TEMPLATE = b"[paths]\nlog=/var/log/agent\n"
CONFIG = config_answer(TEMPLATE)
PAGE = b"<html>moved</html>\n"
HEAD = b"HTTP/1.1 200 OK\r\n"
SIZED = HEAD + b"Content-Length: %d\r\n\r\n"
CHUNKED = HEAD + b"Transfer-Encoding: chunked\r\n\r\n"

BROKEN = Result(EXIT_FAILURE, b"", call_failed("configfile", NETWORK_ERROR))
UNPARSED = Result(EXIT_FAILURE, b"", call_failed("configfile", NOT_PARSED))
WRITTEN = Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("configfile"))
NEW_FILE = {"Agent.cfg": TEMPLATE}


@dataclass(frozen=True)
class Case:
    """What a server does to a request for a configuration file, and all that may come of it."""

    name: str
    reply: Reply
    expected: Result = BROKEN
    writes: Mapping[str, bytes] = field(default_factory=dict)


def used(name: str, reply: Reply) -> Case:
    """The answer arrives whole: the file is written."""
    return Case(name, reply, WRITTEN, NEW_FILE)


def chunk(data: bytes, size: bytes = b"") -> bytes:
    """One chunk of a body, by default of the size that it has."""
    return (size or b"%x" % len(data)) + b"\r\n" + data + b"\r\n"


END = b"0\r\n\r\n"
WHOLE = chunk(CONFIG) + END

FRAMES = [
    Case("a length that cuts the answer", SIZED % 20 + CONFIG, UNPARSED),
    Case("a length never reached", SIZED % (len(CONFIG) + 1) + CONFIG),
    Case("a length beyond all memory", SIZED % (2**63 - 1) + CONFIG),
    used("a length beyond all numbers", HEAD + b"Content-Length: " + b"9" * 40 + b"\r\n\r\n" + CONFIG),
    Case("a negative length", SIZED % -1 + CONFIG),
    Case("a length in words", HEAD + b"Content-Length: all\r\n\r\n" + CONFIG),
    Case("no length of nothing", SIZED % 0, UNPARSED),
    used("no length", HEAD + b"\r\n" + CONFIG),
    used("bytes behind the length", SIZED % len(CONFIG) + CONFIG + b"HTTP/1.1 500 Late\r\n\r\n"),
    used("chunks", CHUNKED + chunk(CONFIG[:9]) + chunk(CONFIG[9:]) + END),
    used("one byte per chunk", CHUNKED + b"".join(chunk(bytes([byte])) for byte in CONFIG) + END),
    used("a chunk with an extension", CHUNKED + chunk(CONFIG, b"%x;name=value" % len(CONFIG)) + END),
    used("chunks with a trailer", CHUNKED + chunk(CONFIG) + b"0\r\nX-Late: value\r\n\r\n"),
    Case("no last chunk", CHUNKED + chunk(CONFIG)),
    Case("a chunk cut off", CHUNKED + b"ffff\r\n" + CONFIG),
    Case("a chunk size that is no number", CHUNKED + chunk(CONFIG, b"size")),
    Case("a chunk size beyond all numbers", CHUNKED + chunk(CONFIG, b"f" * 40)),
    Case("a negative chunk size", CHUNKED + chunk(CONFIG, b"-5")),
    Case("a chunk size that never ends", CHUNKED + b"0" * MEGABYTE),
    Case("a chunk without its line end", CHUNKED + b"4\r\n***BEGIN***" + END),
    Case("a trailer that breaks off", CHUNKED + chunk(CONFIG) + b"0\r\nX-Late: val"),
    Case("an encoding that was not asked for", HEAD + b"Transfer-Encoding: unknown\r\n\r\n" + CONFIG),
]

PACKED = gzip.compress(CONFIG, 0)
BOMB = gzip.compress(b"\0" * 64 * MEGABYTE)
# In front of what a gzip text without compression says stand its own head and that of a block.
PACKED_HEAD = 10 + 5
RECORDLESS = Result(EXIT_FAILURE, b"", failed("configfile", NO_RECORDS))


def packed(name: str, body: bytes, expected: Result, coding: str = "gzip") -> Case:
    """An answer that was compressed, or is said to be."""
    return Case(name, http_answer(body, headers=[f"Content-Encoding: {coding}"]), expected)


PACKAGES = [
    used("gzip", http_answer(PACKED, headers=["Content-Encoding: gzip"])),
    used("gzip without its check sum", http_answer(PACKED[:-8], headers=["Content-Encoding: gzip"])),
    packed("gzip cut short", PACKED[: PACKED_HEAD + 20], UNPARSED),
    packed("gzip cut in a record", PACKED[: PACKED_HEAD + CONFIG.index(b"agent")], RECORDLESS),
    packed("gzip with a wrong check sum", PACKED[:-8] + bytes(8), BROKEN),
    packed("gzip that is none", CONFIG, BROKEN),
    packed("a gzip bomb", BOMB, UNPARSED),
    packed("a bomb in a bomb", gzip.compress(BOMB), UNPARSED, "gzip, gzip"),
    packed("an unknown coding", CONFIG, BROKEN, "secret"),
]


def redirect(status: str, target: str) -> Case:
    """A redirect is not followed; its page is the answer."""
    return Case(f"{status} to {target}", http_answer(PAGE, status, [f"Location: {target}"]), UNPARSED)


ELSEWHERE = (
    "http://127.0.0.1:9/",
    "https://127.0.0.1:9/ws_configfile.php",
    "/ws_configfile.php",
    "file:///etc/passwd",
    "ftp://127.0.0.1/x",
    "gopher://127.0.0.1:9/_x",
    "vrmo://127.0.0.1:9",
    "",
)

REDIRECTS = [redirect("302 Found", target) for target in ELSEWHERE]
REDIRECTS += [
    redirect(status, ELSEWHERE[0])
    for status in ("301 Moved Permanently", "303 See Other", "307 Temporary Redirect", "308 Permanent Redirect")
]

REFUSALS = (
    ("400 Bad Request", ()),
    ("401 Unauthorized", ("WWW-Authenticate: Basic realm=spa", "WWW-Authenticate: Negotiate")),
    ("403 Forbidden", ()),
    ("407 Proxy Authentication Required", ("Proxy-Authenticate: Basic realm=spa",)),
    ("413 Payload Too Large", ()),
    ("417 Expectation Failed", ()),
    ("429 Too Many Requests", ("Retry-After: 3600",)),
    ("500 Internal Server Error", ()),
    ("503 Service Unavailable", ("Retry-After: 3600",)),
    ("999 Nonsense", ()),
)

STATUSES = [
    Case(f"{status} with a page", http_answer(PAGE, status, headers), UNPARSED) for status, headers in REFUSALS
]
STATUSES += [
    used(f"{status} with an answer", http_answer(CONFIG, status, headers))
    for status, headers in (REFUSALS[1], REFUSALS[7], ("302 Found", ("Location: http://127.0.0.1:9/",)))
]
STATUSES += [
    Case("204 with an answer", http_answer(CONFIG, "204 No Content"), UNPARSED),
    Case("304 with an answer", http_answer(CONFIG, "304 Not Modified"), UNPARSED),
    used("103 before the answer", b"HTTP/1.1 103 Early Hints\r\nLink: <x>\r\n\r\n" + http_answer(CONFIG)),
    Case("no status line", CONFIG),
    Case("a status that is no number", b"HTTP/1.1 abc OK\r\n\r\n" + CONFIG),
    Case("a version that does not exist", b"HTTP/7.5 200 OK\r\n\r\n" + CONFIG),
    Case("a mail server", b"220 mail.example ESMTP\r\n"),
    Case("a shell server", b"SSH-2.0-OpenSSH_9.2\r\n"),
    Case("noise", bytes(range(255, 0, -1)) * 100),
    Case("a header without a colon", HEAD + b"nonsense\r\n" + b"\0\r\n\r\n" + CONFIG),
    Case("a header of megabytes", HEAD + b"X: " + b"y" * MEGABYTE + b"\r\n\r\n" + CONFIG),
]


def reset(stream: socket.socket) -> None:
    """Breaks the connection off, so that the client sees an error and no end."""
    stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    stream.close()


def reset_after(sent: bytes) -> Callable[[socket.socket], None]:
    """Sends this much of an answer and breaks off."""

    def break_off(stream: socket.socket) -> None:
        stream.sendall(sent)
        # What was sent must reach the client before the reset throws it away.
        with contextlib.suppress(OSError):
            stream.settimeout(4.5)
            stream.recv(1)
        reset(stream)

    return break_off


WHOLE_ANSWER = http_answer(CONFIG)
HEAD_END = WHOLE_ANSWER.index(b"\r\n\r\n") + 4

RESETS = [
    Case("a reset behind the request", reset_after(b"")),
    Case("a reset in the status line", reset_after(WHOLE_ANSWER[:9])),
    Case("a reset in the head", reset_after(WHOLE_ANSWER[: HEAD_END - 2])),
    Case("a reset behind the head", reset_after(WHOLE_ANSWER[:HEAD_END])),
    Case("a reset in the body", reset_after(WHOLE_ANSWER[:-5])),
    Case("a reset in a body without a length", reset_after(HEAD + b"\r\n" + CONFIG)),
    Case("an end behind the request", b""),
    Case("an end in the body", WHOLE_ANSWER[:-5]),
]

CASES = [*FRAMES, *PACKAGES, *REDIRECTS, *STATUSES, *RESETS]


@pytest.mark.parametrize("case", CASES, ids=[case.name for case in CASES])
def test_a_server_that_breaks_the_rules_changes_nothing(host: Host, case: Case) -> None:
    machine = RegisteredHost(host)
    with RawServer([case.reply]) as server:
        result, changes = machine.run("configfile", server.url)
    assert result == case.expected
    assert changes == case.writes
    assert server.connections == 1


def test_a_port_that_nobody_listens_on_is_a_network_error(host: Host) -> None:
    machine = RegisteredHost(host)
    with refusing_port() as port:
        assert machine.run("configfile", f"http://127.0.0.1:{port}") == (BROKEN, {})


@contextlib.contextmanager
def listener(serve: Callable[[socket.socket], None]) -> Iterator[int]:
    """A port whose connections are handed over as they come, one thread each."""
    with contextlib.closing(socket.create_server(("127.0.0.1", 0))) as listening:
        threads: list[threading.Thread] = []

        def accept() -> None:
            with contextlib.suppress(OSError):
                while True:
                    threads.append(threading.Thread(target=serve_one, args=(listening.accept()[0],), daemon=True))
                    threads[-1].start()

        def serve_one(stream: socket.socket) -> None:
            with contextlib.suppress(OSError), contextlib.closing(stream):
                stream.settimeout(30)
                serve(stream)

        accepting = threading.Thread(target=accept, daemon=True)
        accepting.start()
        yield listening.getsockname()[1]
        listening.shutdown(socket.SHUT_RDWR)
        accepting.join()
        for thread in threads:
            thread.join()


def speaks_first(stream: socket.socket) -> None:
    """Sends an answer before it has heard anything, and hangs up."""
    stream.sendall(WHOLE_ANSWER)
    stream.shutdown(socket.SHUT_WR)
    while stream.recv(MEGABYTE):
        pass


def listens_a_little(stream: socket.socket) -> None:
    """Breaks off in the middle of the request."""
    stream.recv(10)
    reset(stream)


def test_an_answer_that_comes_before_the_request_is_read(host: Host) -> None:
    machine = RegisteredHost(host)
    with listener(speaks_first) as port:
        assert machine.run("configfile", f"http://127.0.0.1:{port}") == (WRITTEN, NEW_FILE)


@pytest.mark.parametrize("serve", [reset, listens_a_little], ids=["at once", "in the request"])
def test_a_reset_before_the_answer_is_a_network_error(host: Host, serve: Callable[[socket.socket], None]) -> None:
    machine = RegisteredHost(host)
    with listener(serve) as port:
        assert machine.run("configfile", f"http://127.0.0.1:{port}") == (BROKEN, {})


@pytest.fixture
def ca(tmp_path: Path) -> CertificateAuthority:
    """The authority that signed the servers' certificates."""
    return CertificateAuthority(tmp_path / "ca")


def trust(machine: RegisteredHost, issuer: Path) -> None:
    """Puts the file that the server of loopback is verified by in its place."""
    certificates = machine.host.etc_quorvex / "certs"
    certificates.mkdir()
    shutil.copy(issuer, certificates / "127.0.0.1.pem")


def cut_after(server_port: int, limit: int) -> Callable[[socket.socket], None]:
    """Passes on what the client says, and the first bytes of what the server answers."""

    def pass_on(client: socket.socket) -> None:
        with contextlib.closing(socket.create_connection(("127.0.0.1", server_port))) as server:
            forward = threading.Thread(target=copy, args=(client, server, 1 << 30), daemon=True)
            forward.start()
            copy(server, client, limit)
            # The thread that reads from the client must leave before the client is closed.
            client.shutdown(socket.SHUT_RD)
            forward.join()
            reset(client)

    return pass_on


def copy(source: socket.socket, target: socket.socket, limit: int) -> None:
    """Copies until one side ends or this many bytes were passed on."""
    with contextlib.suppress(OSError):
        while limit > 0:
            data = source.recv(min(limit, 65536))
            if not data:
                return
            target.sendall(data)
            limit -= len(data)


# The server's first records, its certificate, the end of its handshake.
TLS_CUTS = (0, 1, 4, 5, 20, 80, 127, 200, 400, 600, 700)


@pytest.mark.parametrize("verified", [True, False], ids=["verified", "unverified"])
@pytest.mark.parametrize("limit", TLS_CUTS)
def test_tls_that_breaks_off_sends_no_request(
    host: Host, ca: CertificateAuthority, limit: int, verified: bool
) -> None:
    machine = RegisteredHost(host)
    if verified:
        trust(machine, ca.file)
    with RawServer([WHOLE_ANSWER], tls=ca.server().context()) as server:
        with listener(cut_after(server.port, limit)) as port:
            assert machine.run("configfile", f"https://127.0.0.1:{port}") == (BROKEN, {})
        assert server.requests == []


def alert(level: int, description: int) -> bytes:
    """A TLS alert before any key was agreed on."""
    return bytes([21, 3, 3, 0, 2, level, description])


NOT_TLS = {
    "an answer in clear": WHOLE_ANSWER,
    "a fatal alert": alert(2, 40),
    "an unknown name": alert(2, 112),
    "a closing alert": alert(1, 0),
    "warnings without end": alert(1, 112) * 10_000,
    "an empty record": bytes([22, 3, 3, 0, 0]),
    "a record beyond its limit": bytes([22, 3, 3, 255, 255]) + b"\0" * 65535,
    "a handshake of another kind": bytes([22, 3, 3, 0, 4, 99, 0, 0, 0]),
    "a hello of another protocol": bytes([22, 3, 0, 0, 4, 2, 0, 0, 0]),
    "data before the handshake": bytes([23, 3, 3, 0, 4]) + b"data",
    "noise": bytes(range(256)) * 50,
    "nothing": b"",
}


@pytest.mark.parametrize("sent", NOT_TLS.values(), ids=NOT_TLS.keys())
def test_a_server_that_speaks_no_tls_is_a_network_error(host: Host, sent: bytes) -> None:
    machine = RegisteredHost(host)

    def answer(stream: socket.socket) -> None:
        stream.recv(65536)
        stream.sendall(sent)
        stream.shutdown(socket.SHUT_WR)
        while stream.recv(65536):
            pass

    with listener(answer) as port:
        assert machine.run("configfile", f"https://127.0.0.1:{port}") == (BROKEN, {})


def without_goodbye(sent: bytes) -> Callable[[socket.socket], None]:
    """Sends this and closes the connection below TLS, which a thief of the line could do."""

    def answer(stream: socket.socket) -> None:
        stream.sendall(sent)
        stream.shutdown(socket.SHUT_WR)

    return answer


@pytest.mark.parametrize(
    "sent, expected, writes",
    [
        (WHOLE_ANSWER, WRITTEN, NEW_FILE),
        (WHOLE_ANSWER[:-5], BROKEN, {}),
        (CHUNKED + chunk(CONFIG), BROKEN, {}),
    ],
    ids=["whole", "too short for its length", "without its last chunk"],
)
def test_an_answer_cut_below_tls_is_not_taken_for_whole(
    host: Host, ca: CertificateAuthority, sent: bytes, expected: Result, writes: Mapping[str, bytes]
) -> None:
    machine = RegisteredHost(host)
    with RawServer([without_goodbye(sent)], tls=ca.server().context()) as server:
        assert machine.run("configfile", server.url) == (expected, writes)


def test_an_answer_without_a_length_that_is_cut_below_tls_lacks_its_record(
    host: Host, ca: CertificateAuthority
) -> None:
    machine = RegisteredHost(host)
    # Some releases of libcurl take the end below TLS for the answer's own; the
    # record, which has lost its line end, is not read then.
    sent = HEAD + b"\r\n" + CONFIG[: CONFIG.index(b"agent")]
    with RawServer([without_goodbye(sent)], tls=ca.server().context()) as server:
        result, changes = machine.run("configfile", server.url)
    assert result in (RECORDLESS, BROKEN)
    assert changes == {}


def channel_reply(body: bytes, headers: Sequence[str] = ("X-Quorvex-Status: 0",), status: str = "200 OK") -> bytes:
    """A reply of the channel."""
    return http_answer(body, status, headers)


FAILED = Result(EXIT_FAILURE, b"", call_failed("configfile", REQUEST_FAILED))
REFUSED = Result(EXIT_FAILURE, b"", call_failed("configfile", STATUS_FAILED))

CHANNEL = [
    Case("an empty reply", channel_reply(b""), UNPARSED),
    Case("a page", channel_reply(PAGE), UNPARSED),
    Case("a zero byte before the text", channel_reply(b"\0" + CONFIG), UNPARSED),
    Case("no status", channel_reply(CONFIG, ()), FAILED),
    Case("a status twice", channel_reply(CONFIG, ("X-Quorvex-Status: 0",) * 2), FAILED),
    Case("an empty status", channel_reply(CONFIG, ("X-Quorvex-Status:",)), FAILED),
    Case("a status in words", channel_reply(CONFIG, ("X-Quorvex-Status: ok",)), FAILED),
    Case("a status with a letter", channel_reply(CONFIG, ("X-Quorvex-Status: 0x0",)), FAILED),
    Case("a status beyond all numbers", channel_reply(CONFIG, ("X-Quorvex-Status: 4294967296",)), FAILED),
    Case("a status with a plus sign", channel_reply(CONFIG, ("X-Quorvex-Status: +0",)), FAILED),
    Case("a status of one", channel_reply(CONFIG, ("X-Quorvex-Status: 1",)), REFUSED),
    Case("a negative status", channel_reply(CONFIG, ("X-Quorvex-Status: -1",)), REFUSED),
    Case("a status in a trailer", CHUNKED + chunk(CONFIG) + b"0\r\nX-Quorvex-Status: 0\r\n\r\n", FAILED),
    Case("a status of an early head", b"HTTP/1.1 103 Early\r\nX-Quorvex-Status: 0\r\n\r\n" + WHOLE_ANSWER, FAILED),
    Case("an HTTP error", channel_reply(CONFIG, status="500 Internal Server Error"), FAILED),
    Case("a redirect", channel_reply(CONFIG, ("X-Quorvex-Status: 0", "Location: /x"), "302 Found"), FAILED),
    Case("a 201", channel_reply(CONFIG, status="201 Created"), FAILED),
    Case("a length never reached", SIZED % 9999 + CONFIG, FAILED),
    Case("a chunk that is none", CHUNKED + b"zz\r\n", FAILED),
    Case("no answer", b"", FAILED),
    Case("a reset in the head", reset_after(HEAD), FAILED),
    used("a reply as it should be", channel_reply(CONFIG)),
]


@pytest.mark.parametrize("case", CHANNEL, ids=[case.name for case in CHANNEL])
def test_a_channel_that_breaks_the_rules_changes_nothing(host: Host, ca: CertificateAuthority, case: Case) -> None:
    machine = RegisteredHost(host)
    trust(machine, ca.file)
    with RawServer([case.reply], tls=ca.server().context()) as server:
        result, changes = machine.run("configfile", f"vrmo://127.0.0.1:{server.port}")
    assert result == case.expected
    assert changes == case.writes
    assert server.connections == 1


@pytest.mark.parametrize("limit", TLS_CUTS)
def test_a_channel_whose_tls_breaks_off_sends_no_request(host: Host, ca: CertificateAuthority, limit: int) -> None:
    machine = RegisteredHost(host)
    trust(machine, ca.file)
    with RawServer([channel_reply(CONFIG)], tls=ca.server().context()) as server:
        with listener(cut_after(server.port, limit)) as port:
            assert machine.run("configfile", f"vrmo://127.0.0.1:{port}") == (FAILED, {})
        assert server.requests == []
