"""Answers made to take all memory or all time: a table, a trailer or a trickle costs no more than the bytes it has."""

from __future__ import annotations

import shutil
import time
from pathlib import Path
from typing import Callable

import pytest

from harness.answers import config_answer
from harness.measured import MEBIBYTE, measured_run
from harness.messages import NETWORK_ERROR, REQUEST_FAILED, TIMED_OUT, call_failed
from harness.raw_server import RawServer, http_answer, pouring
from harness.registered_host import RegisteredHost
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.tls_files import CertificateAuthority
from test_limits import CHUNKED, LATEST_END_SECONDS, MOST_FOR_HEADERS, TIME_LIMIT_SECONDS, attack, most_for

NEARLY_MOST = 100 * MEBIBYTE
MANY_LINES = 1_270_000


def table(names: bytes, types: bytes, records: bytes) -> bytes:
    """An answer with just these lines."""
    return b"***BEGIN***\n1\n" + names + b"\n" + types + b"\n" + records + b"***DONE***\n"


def template(escaped: bytes) -> bytes:
    """An answer with this text for a configuration file."""
    return table(b"returnvalue", b"S", escaped + b"\n")


# Made when they are needed: each is as long as an answer may be, or nearly.
TABLES: dict[str, Callable[[], bytes]] = {
    "a long name and many values": lambda: table(b"n" * 500_000, b"S", b"v\n" * 250_000),
    "a long name often": lambda: table(b"|".join([b"n" * 1000] * 500), b"S|" * 500, (b"v|" * 500 + b"\n") * 500),
    "names alone": lambda: table(b"|" * (MEBIBYTE - 1), b"S|" * MEBIBYTE, b""),
    "one value per byte": lambda: table(b"a|" * 100, b"S|" * 100, (b"|" * 100 + b"\n") * 500_000),
    "records of nothing": lambda: table(b"a", b"S", b"\n" * NEARLY_MOST),
    "records that are not kept": lambda: table(b"a", b"X", b"x\n" * (NEARLY_MOST // 2)),
    "columns and records": lambda: table(b"a|" * 1000, b"S|" * 1000, b"|\n" * (NEARLY_MOST // 2)),
    "a value as long as can be": lambda: template(b"[a]" + rb"\n#" * (NEARLY_MOST // 3)),
    "a template of sections": lambda: template(b"".join(rb"[%x]\n" % number for number in range(6_000_000))),
    "nearly as many sections as can be": lambda: template(b"".join(rb"[%x]\n" % number for number in range(MANY_LINES))),
    "nearly as many options as can be": lambda: template(
        rb"[a]\n" + b"".join(rb"%x=\n" % number for number in range(MANY_LINES))
    ),
    "an answer as long as can be": lambda: b"x" * NEARLY_MOST,
    "a description as long as can be": lambda: b"***ERROR***\n1\ndescription: " + b"d" * NEARLY_MOST + b"\n",
}


@pytest.mark.parametrize("name", TABLES)
def test_a_table_takes_memory_by_its_bytes(host: Host, tmp_path: Path, name: str) -> None:
    machine = RegisteredHost(host)
    answer = TABLES[name]()
    size = len(answer)
    with RawServer([http_answer(answer)]) as server:
        arguments = machine.arguments("configfile", server.url)
        run = measured_run(host, tmp_path / "peak", *arguments, time_limit=TIME_LIMIT_SECONDS)
    assert run.result.status in (0, EXIT_FAILURE)
    assert run.result.stderr.endswith(b"\n")
    assert run.peak < most_for(size), f"{run.peak // MEBIBYTE} MiB"


TRAILERS = {
    "trailers": (CHUNKED + b"0\r\n", b"X-Late: value\r\n" * 4096),
    "trailers behind a body": (CHUNKED + b"5\r\nabcde\r\n0\r\n", b"X:\r\n" * 16384),
    "long trailers": (CHUNKED + b"0\r\n", b"X: " + b"y" * 50_000 + b"\r\n"),
}


@pytest.mark.parametrize("first, piece", TRAILERS.values(), ids=TRAILERS.keys())
def test_trailers_without_end_are_given_up_in_little_memory(
    host: Host, tmp_path: Path, first: bytes, piece: bytes
) -> None:
    expected = Result(EXIT_FAILURE, b"", call_failed("configfile", NETWORK_ERROR))
    assert attack(host, tmp_path, pouring(first, piece), MOST_FOR_HEADERS) == expected


CHANNEL_HEAD = b"HTTP/1.1 200 OK\r\nX-Quorvex-Status: 0\r\nTransfer-Encoding: chunked\r\n"


@pytest.mark.parametrize(
    "first, piece",
    [
        (CHANNEL_HEAD + b"\r\n0\r\n", b"X-Late: value\r\n" * 4096),
        (CHANNEL_HEAD, b"X-Header: value\r\n" * 4096),
        (CHANNEL_HEAD + b"\r\n10000\r\n" + b"x" * 65536 + b"\r\n", b"10000\r\n" + b"x" * 65536 + b"\r\n"),
    ],
    ids=["trailers", "headers", "a body"],
)
def test_a_channel_without_end_is_given_up_in_bounded_memory(
    host: Host, tmp_path: Path, first: bytes, piece: bytes
) -> None:
    authority = CertificateAuthority(tmp_path / "ca")
    machine = RegisteredHost(host)
    (host.etc_quorvex / "certs").mkdir()
    shutil.copy(authority.file, host.etc_quorvex / "certs" / "127.0.0.1.pem")
    most = most_for(NEARLY_MOST) if b"10000" in piece else MOST_FOR_HEADERS
    with RawServer([pouring(first, piece)], tls=authority.server().context()) as server:
        arguments = machine.arguments("configfile", f"vrmo://127.0.0.1:{server.port}")
        before = machine.files()
        run = measured_run(host, tmp_path / "peak", *arguments, time_limit=TIME_LIMIT_SECONDS)
    assert run.result == Result(EXIT_FAILURE, b"", call_failed("configfile", REQUEST_FAILED))
    assert machine.changes(before) == {}
    assert run.peak < most, f"{run.peak // MEBIBYTE} MiB"


ONE_BYTE = b"1\r\n#\r\n"


@pytest.mark.slow
def test_an_answer_in_single_bytes_is_read_whole(host: Host) -> None:
    machine = RegisteredHost(host)
    answer = config_answer(b"[a]\nk=" + b"v" * 900_000 + b"\n")
    chunks = b"".join(b"1\r\n%c\r\n" % byte for byte in answer)
    with RawServer([CHUNKED + chunks + b"0\r\n\r\n"]) as server:
        result, changes = machine.run("configfile", server.url, time_limit=2 * TIME_LIMIT_SECONDS)
    assert result.status == 0 and result.stderr.startswith(b"Action configfile completed")
    assert changes == {"Agent.cfg": b"[a]\nk=" + b"v" * 900_000 + b"\n[paths]\n"}


@pytest.mark.slow
def test_single_bytes_without_end_end_at_the_deadline(host: Host) -> None:
    machine = RegisteredHost(host)
    with RawServer([pouring(CHUNKED, ONE_BYTE * 10_000)]) as server:
        start = time.monotonic()
        result, changes = machine.run("configfile", server.url, time_limit=4 * TIME_LIMIT_SECONDS)
        assert time.monotonic() - start < LATEST_END_SECONDS
    assert result.status == EXIT_FAILURE and changes == {}
    assert result.stderr in (call_failed("configfile", TIMED_OUT), call_failed("configfile", NETWORK_ERROR))
