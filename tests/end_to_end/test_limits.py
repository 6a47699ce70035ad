"""Answers made to take all memory or all time: a run's memory is bounded by the answer, its time by the deadline."""

from __future__ import annotations

import time
import zlib
from pathlib import Path

import pytest

from harness.measured import MEBIBYTE, measured_run
from harness.messages import NETWORK_ERROR, TIMED_OUT, call_failed
from harness.raw_server import RawServer, Reply, http_answer, pouring
from harness.registered_host import RegisteredHost
from harness.sandbox import EXIT_FAILURE, Host, Result

DEADLINE_SECONDS = 120
# The loop looks at the clock every two seconds; the rest is for a busy machine.
LATEST_END_SECONDS = DEADLINE_SECONDS + 2 + 10
TIME_LIMIT_SECONDS = 160.0

MOST_ANSWER = 256 * MEBIBYTE
MOST_FOR_HEADERS = 64 * MEBIBYTE
HEAD = b"HTTP/1.1 200 OK\r\n"
CHUNKED = HEAD + b"Transfer-Encoding: chunked\r\n\r\n"
BROKEN = Result(EXIT_FAILURE, b"", call_failed("configfile", NETWORK_ERROR))


def most_for(answer_bytes: int) -> int:
    """The memory that a run may take for an answer of this size."""
    return 4 * answer_bytes + 256 * MEBIBYTE


def attack(host: Host, tmp_path: Path, reply: Reply, most: int) -> Result:
    """Meets a request for a configuration file with this; nothing but streams comes of it, in this memory."""
    machine = RegisteredHost(host)
    with RawServer([reply]) as server:
        arguments = machine.arguments("configfile", server.url)
        before = machine.files()
        run = measured_run(host, tmp_path / "peak", *arguments, time_limit=TIME_LIMIT_SECONDS)
    assert machine.changes(before) == {}
    assert run.peak < most, f"{run.peak // MEBIBYTE} MiB"
    return run.result


ENDLESS = {
    "zero bytes": (HEAD + b"\r\n", bytes(65536)),
    "stars": (HEAD + b"\r\n", b"*" * 65536),
    "one line of bars": (HEAD + b"\r\n***BEGIN***\n1\n", b"|" * 65536),
    "empty records": (HEAD + b"\r\n***BEGIN***\n1\na\nS\n", b"\n" * 65536),
    "a description": (HEAD + b"\r\n***ERROR***\n1\ndescription: ", b"d" * 65536),
    "chunks": (CHUNKED, b"10000\r\n" + b"x" * 65536 + b"\r\n"),
    "one chunk": (CHUNKED + b"7fffffffffffffff\r\n", b"x" * 65536),
}


@pytest.mark.parametrize("first, piece", ENDLESS.values(), ids=ENDLESS.keys())
def test_an_answer_without_end_is_given_up(host: Host, tmp_path: Path, first: bytes, piece: bytes) -> None:
    assert attack(host, tmp_path, pouring(first, piece), most_for(MOST_ANSWER)) == BROKEN


def test_a_bomb_is_given_up_once_it_has_grown_too_long(host: Host, tmp_path: Path) -> None:
    squeeze = zlib.compressobj(9, zlib.DEFLATED, 16 + zlib.MAX_WBITS)
    piece = bytes(MEBIBYTE)
    bomb = b"".join(squeeze.compress(piece) for _ in range(300)) + squeeze.flush()
    reply = http_answer(bomb, headers=["Content-Encoding: gzip"])
    assert attack(host, tmp_path, reply, most_for(MOST_ANSWER)) == BROKEN


HEADS = {
    "header lines": (HEAD, b"X-Header: value\r\n" * 4096),
    "one header line": (HEAD, b"y" * 65536),
    "header lines of one name": (HEAD, b"X:\r\n" * 16384),
    "folded lines": (HEAD + b"X: a\r\n", b" more\r\n" * 8192),
    "early heads": (b"", b"HTTP/1.1 100 Continue\r\n\r\n" * 1024),
    "early heads with headers": (b"", b"HTTP/1.1 103 Early Hints\r\nLink: " + b"x" * 1000 + b"\r\n\r\n"),
    "a reason": (b"HTTP/1.1 200 ", b"O" * 65536),
    "one trailer": (CHUNKED + b"0\r\nX: ", b"y" * 65536),
}


@pytest.mark.parametrize("first, piece", HEADS.values(), ids=HEADS.keys())
def test_a_head_without_end_is_given_up_in_little_memory(
    host: Host, tmp_path: Path, first: bytes, piece: bytes
) -> None:
    assert attack(host, tmp_path, pouring(first, piece), MOST_FOR_HEADERS) == BROKEN


@pytest.mark.slow
@pytest.mark.parametrize(
    "first, piece, pause",
    [
        (CHUNKED + b"5;", b"x" * 65536, 0.0),
        (HEAD + b"Content-Length: 100000\r\n\r\n***BEGIN***\n", b"x", 1.0),
        (HEAD + b"X: ", b"y", 1.0),
        (CHUNKED + b"0\r\nX: ", b"y", 1.0),
    ],
    ids=["a chunk's extension", "a body of one byte a second", "a head of one byte a second", "a slow trailer"],
)
def test_no_trickle_outlasts_the_deadline(host: Host, first: bytes, piece: bytes, pause: float) -> None:
    machine = RegisteredHost(host)
    with RawServer([pouring(first, piece, pause)]) as server:
        start = time.monotonic()
        result, changes = machine.run("configfile", server.url, time_limit=TIME_LIMIT_SECONDS)
        assert DEADLINE_SECONDS <= time.monotonic() - start < LATEST_END_SECONDS
    assert result == Result(EXIT_FAILURE, b"", call_failed("configfile", TIMED_OUT))
    assert changes == {}
