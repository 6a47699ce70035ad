"""Every row of the table of messages, provoked with the real program."""

from __future__ import annotations

import socket
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Optional

import pytest

from harness.answers import error_answer
import tzregister_enroll as enroll
from harness.raw_server import RawServer, Reply, http_answer, refusing_port
from real_host import EnrolHost
from harness.tls_files import CertificateAuthority

PASSING, REFUSED = 75, 76


def silence(stream: socket.socket) -> None:
    """Answers nothing until the client goes away."""
    while stream.recv(1):
        pass


def refusal(description: str) -> bytes:
    """An error block of the authority."""
    return http_answer(error_answer(description))


# What a line begins with; what the server does; whether it is asked over the channel; status; what is told.
ROWS: list[tuple[str, Reply, bool, int, str]] = [
    ("Network error during webservice call", b"", False, PASSING, "the authority cannot be reached"),
    ("Request failed.", http_answer("", "500 Error"), True, PASSING, "cannot be reached over the channel"),
    ("Webservice call timed out.", silence, False, PASSING, "did not answer in time"),
    (
        "The data returned by the webservice could not be parsed.",
        http_answer("<html>Bad gateway</html>", "502 Bad Gateway"),
        False,
        PASSING,
        "it is busy",
    ),
    (
        "The webservice returned an error :The authority failed",
        refusal("The authority failed; its server.log says why."),
        False,
        PASSING,
        "in trouble",
    ),
    ("The webservice returned an error :Login failed", refusal("Login failed"), False, REFUSED, "does not know"),
    ("The webservice returned an error :", refusal("Nobody knows why"), False, REFUSED, "refuses (Nobody knows why)"),
    (
        "return status failed.",
        http_answer("", headers=["X-Quorvex-Status: 1"]),
        True,
        REFUSED,
        "does not take requests over this channel",
    ),
]


@contextmanager
def server(reply: Reply, tls: Optional[CertificateAuthority], host: EnrolHost) -> Iterator[str]:
    """A server that always does this; yields its address."""
    context = tls.server().context() if tls else None
    with RawServer([reply] * 4, tls=context) as listening:
        if tls:
            host.trust(tls.file)
        yield listening.url.replace("https", "vrmo")


@pytest.mark.parametrize(
    "start, reply, channel, status, told",
    [pytest.param(*row, marks=[pytest.mark.slow] * (row[1] is silence)) for row in ROWS],
)
def test_a_row(
    host: EnrolHost, ca: CertificateAuthority, start: str, reply: Reply, channel: bool, status: int, told: str
) -> None:
    with server(reply, ca if channel else None, host) as url:
        result = host.enrol(url, "--cleartext")
    assert (result.status, result.stdout) == (status, b"")
    steps = result.stderr.decode()
    assert told in steps and start.split(":")[-1] in steps
    assert not host.target.exists()


def test_every_row_is_provoked() -> None:
    assert [row[0] for row in ROWS] == [message.start for message in enroll.MESSAGES]


UNREACHABLE: dict[str, tuple[Callable[[int], str], str]] = {
    "refused": (lambda port: f"http://127.0.0.1:{port}", "Connection refused"),
    "unknown": (lambda port: f"http://spa.invalid:{port}", "spa.invalid port"),
    "refused, https": (lambda port: f"https://127.0.0.1:{port}", "Connection refused"),
    "refused, channel": (lambda port: f"vrmo://127.0.0.1:{port}", "Connection refused"),
}


@pytest.mark.parametrize("url, told", UNREACHABLE.values(), ids=UNREACHABLE.keys())
def test_an_authority_that_is_not_there_can_come(
    host: EnrolHost, ca: CertificateAuthority, url: Callable[[int], str], told: str
) -> None:
    host.trust(ca.file)
    with refusing_port() as port:
        result = host.enrol(url(port), "--cleartext")
    assert result.status == PASSING and told in result.stderr.decode()


def test_it_is_tried_again_until_it_answers(host: EnrolHost) -> None:
    looked_at = b""
    with RawServer([b"", looked_at, http_answer("<html>"), refusal("Login failed")]) as listening:
        result = host.enrol(listening.url, "--cleartext", attempts=3)
    assert result.status == REFUSED and len(listening.requests) == 3
    assert result.stderr.decode().count("step=rehearse result=passing") == 2
