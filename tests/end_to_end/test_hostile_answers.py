"""Answers that are long, broken, slow or missing: the run ends, and says why."""

from __future__ import annotations

import contextlib
import socket
import time
from typing import Any

import pytest

from harness.answers import agent_answer, config_answer, data_answer, empty_answer, error_answer
from harness.messages import NETWORK_ERROR, NOT_PARSED, TIMED_OUT, call_failed, completed, error_returned, written_to
from harness.raw_server import RawServer, Reply, http_answer, pouring
from harness.sandbox import EXIT_FAILURE, Host, Result

SUCCESS = Result(0, b"", completed("discover"))
MEGABYTE = 1 << 20
DEADLINE_SECONDS = 120
# The loop looks at the clock every two seconds; the rest is for a busy machine.
LATEST_END_SECONDS = DEADLINE_SECONDS + 2 + 10
SLOW_LIMIT_SECONDS = 160.0


def failure(*messages: bytes) -> Result:
    """A discover whose call failed behind these messages."""
    return Result(EXIT_FAILURE, b"", call_failed("discover", *messages))


def discover_from(host: Host, reply: Reply, **settings: Any) -> Result:
    """Runs discover against a server that answers once, with this."""
    with RawServer([reply]) as server:
        account = ("--url", server.url, "--login", "admin", "--passwd", "secret")
        return host.run("--action", "discover", *account, **settings)


LONG = {
    "many records": (data_answer([("a", "I"), ("b", "S")], [["1", "text"]] * 300_000), SUCCESS),
    "one long value": (data_answer([("a", "S")], [["x" * 4 * MEGABYTE]]), SUCCESS),
    "many columns": (data_answer([("a", "S")] * 50_000, [["v"] * 50_000]), SUCCESS),
    "many bars": (data_answer([("a", "S")], []).replace(b"***DONE***", b"|" * MEGABYTE), SUCCESS),
    "long preamble": (b"*x" * MEGABYTE + empty_answer(), SUCCESS),
    "empty lines only": (b"***BEGIN***" + b"\n" * MEGABYTE, SUCCESS),
    "stars": (b"*" * MEGABYTE, failure(NOT_PARSED)),
    "no line end": (b"***BEGIN***" + b"1" * MEGABYTE, failure(NOT_PARSED)),
    "zero bytes": (b"\0" * 4 * MEGABYTE, failure(NOT_PARSED)),
    "all bytes": (bytes(range(256)) * 4096, failure(NOT_PARSED)),
    "long description": (error_answer("d" * MEGABYTE), failure(error_returned("d" * MEGABYTE))),
    "long severity": (error_answer("bad", severity="9" * MEGABYTE), failure(error_returned("bad"))),
}


@pytest.mark.parametrize("answer, expected", LONG.values(), ids=LONG.keys())
def test_a_long_answer_is_read_to_its_end(host: Host, answer: bytes, expected: Result) -> None:
    assert discover_from(host, http_answer(answer)) == expected


def test_a_long_template_is_written_whole(host: Host) -> None:
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", "/opt/agent")
    lines = "".join(f"key{number:06}=" + "v" * 90 + "\n" for number in range(30_000))
    with RawServer([http_answer(config_answer(f"[paths]\n{lines}"))]) as server:
        account = ("--url", server.url, "--login", "admin", "--passwd", "secret", "--todisk")
        result = host.run("--action", "configfile", "--type", "Agent", *account)
    assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("configfile"))
    assert (host.etc_quorvex / "Agent.cfg").read_text() == f"[paths]\n{lines}"


GOOD = agent_answer()
LINES_NEEDED = 4


@pytest.mark.parametrize("length", [1, 3, 10, 11, 12, 13, 14, 33, 34, 38, 39, 40, len(GOOD) - 12, len(GOOD) - 1])
def test_a_good_answer_cut_off_is_read_as_far_as_its_lines_go(host: Host, length: int) -> None:
    cut = GOOD[:length]
    expected = SUCCESS if cut.count(b"\n") >= LINES_NEEDED else failure(NOT_PARSED)
    assert discover_from(host, b"HTTP/1.0 200 OK\r\n\r\n" + cut) == expected


HEAD = b"HTTP/1.1 200 OK\r\n"
BROKEN = {
    "length that is never reached": HEAD + b"Content-Length: 9223372036854775807\r\n\r\n" + empty_answer(),
    "length that is no number": HEAD + b"Content-Length: many\r\n\r\n" + empty_answer(),
    "negative length": HEAD + b"Content-Length: -5\r\n\r\n" + empty_answer(),
    "chunk too large": HEAD + b"Transfer-Encoding: chunked\r\n\r\n" + b"F" * 40 + b"\r\nx",
    "chunk cut off": HEAD + b"Transfer-Encoding: chunked\r\n\r\nff\r\n" + empty_answer(),
    "one endless header line": HEAD + b"X: " + b"y" * MEGABYTE,
    "header lines without end": HEAD + b"X-Header: value\r\n" * 100_000,
    "zero byte in the head": HEAD + b"X: a\0b\r\n\r\n" + empty_answer(),
    "status line of another world": b"HTTP/9.9 200 OK\r\n\r\n" + empty_answer(),
}


@pytest.mark.parametrize("reply", BROKEN.values(), ids=BROKEN.keys())
def test_a_broken_head_or_body_is_a_network_error(host: Host, reply: bytes) -> None:
    assert discover_from(host, reply) == failure(NETWORK_ERROR)


@pytest.mark.parametrize("piece", [b"X-Header: value\r\n", b"y" * 1000], ids=["lines", "one line"])
def test_a_head_without_end_is_given_up(host: Host, piece: bytes) -> None:
    assert discover_from(host, pouring(HEAD, piece)) == failure(NETWORK_ERROR)


def test_a_slow_answer_is_waited_for(host: Host) -> None:
    answer = http_answer(empty_answer())

    def drip(stream: socket.socket) -> None:
        for byte in answer:
            stream.sendall(bytes([byte]))
            time.sleep(0.05)

    assert discover_from(host, drip) == SUCCESS


def waits(stream: socket.socket) -> None:
    """Never answers: waits until the client leaves."""
    with contextlib.suppress(OSError):
        stream.recv(1)


@pytest.mark.slow
@pytest.mark.parametrize(
    "reply",
    [waits, pouring(HEAD + b"\r\n***BEGIN***\n1\n", b"x", pause=0.5)],
    ids=["no answer", "an answer that drips without end"],
)
def test_after_two_minutes_the_call_is_given_up(host: Host, reply: Reply) -> None:
    start = time.monotonic()
    result = discover_from(host, reply, time_limit=SLOW_LIMIT_SECONDS)
    assert DEADLINE_SECONDS <= time.monotonic() - start < LATEST_END_SECONDS
    assert result == failure(TIMED_OUT)
