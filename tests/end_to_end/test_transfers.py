"""How a request travels: passes of the wait loop, connections, compression, memory.

Passes and bytes are counts: they hold on a slow machine as on a fast one.
"""

from __future__ import annotations

import gzip
import socket
import ssl
import zlib
from pathlib import Path
from typing import Optional

import pytest

from harness.answers import agent_answer, config_answer, data_answer, empty_answer, routing_answer
from harness.counted_run import CountedRun, run_counted
from harness.credentials import CredentialFile
from harness.messages import NETWORK_ERROR, call_failed, completed
from harness.raw_server import RawServer, Reply, http_answer, read_request
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.tls_files import CertificateAuthority

ACCOUNT = ("--login", "admin", "--passwd", "secret")
TLS_VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}
MEBIBYTE = 1 << 20
LONGEST_ANSWER = 256 * MEBIBYTE
TEMPLATE = "[paths]\nvar=/var\n"
# An argument of the command line takes 128 KiB at most.
RULES = "include /home/some/directory\n" * 4000


def tls_context(directory: Path, version: Optional[str]) -> Optional[ssl.SSLContext]:
    """A server's TLS of this version alone."""
    if version is None:
        return None
    context = CertificateAuthority(directory / "authority").server().context()
    context.minimum_version = context.maximum_version = TLS_VERSIONS[version]
    return context


def discover(host: Host, url: str) -> CountedRun:
    """Runs discover."""
    return run_counted(host, "--action", "discover", "--url", url, *ACCOUNT)


def register(host: Host, url: str) -> CountedRun:
    """Registers an agent and fetches its configuration file, which is printed: two requests."""
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", "/opt/agent")
    agent = ("--type", "Agent", "--agentType", "1", "--hostname", "h")
    return run_counted(host, "--action", "register", *agent, "--url", url, *ACCOUNT)


def stored(host: Host, url: str) -> tuple[str, ...]:
    """The options of an action that talks with a stored account."""
    file = CredentialFile(host.work / "Agent.cfg", url=url, keydir=str(host.work / "keys"))
    file.write()
    return ("--type", "Agent", "--configfile", str(file.path))


def open_answer(body: bytes) -> bytes:
    """An answer after which the connection stays open."""
    return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(body) + body


def kept_open(first: bytes, second: bytes) -> Reply:
    """Answers two requests on one connection."""

    def reply(stream: socket.socket) -> None:
        stream.sendall(open_answer(first))
        read_request(stream)
        stream.sendall(open_answer(second))
        stream.recv(1)

    return reply


@pytest.mark.parametrize("version, passes", [(None, 2), ("1.3", 3), ("1.2", 4)])
def test_a_request_takes_the_passes_that_its_round_trips_need(
    host: Host, tmp_path: Path, version: Optional[str], passes: int
) -> None:
    with RawServer([http_answer(empty_answer())], tls=tls_context(tmp_path, version)) as server:
        run = discover(host, server.url)
    assert run.result == Result(0, b"", completed("discover"))
    # A part of a TLS handshake may come in while its other part is sent.
    assert run.passes <= passes


def test_a_name_is_looked_up_during_the_first_pause(host: Host) -> None:
    host.name_address("authority.example", "127.0.0.1")
    with RawServer([http_answer(empty_answer())]) as server:
        run = discover(host, f"http://authority.example:{server.port}")
    assert run.result.status == 0
    assert run.passes <= 3


def test_an_address_that_refuses_costs_no_pass(host: Host) -> None:
    host.name_address("authority.example", "::1")
    host.name_address("authority.example", "127.0.0.1")
    with RawServer([http_answer(empty_answer())]) as server:
        run = discover(host, f"http://authority.example:{server.port}")
    assert run.result.status == 0
    assert server.connections == 1
    assert run.passes <= 3


@pytest.mark.parametrize("version, passes", [(None, 4), ("1.3", 5), ("1.2", 6)])
def test_a_run_talks_over_one_connection(
    host: Host, tmp_path: Path, version: Optional[str], passes: int
) -> None:
    reply = kept_open(agent_answer(), config_answer(TEMPLATE))
    with RawServer([reply], tls=tls_context(tmp_path, version)) as server:
        run = register(host, server.url)
    assert run.result.status == 0
    assert TEMPLATE.encode() in run.result.stdout
    assert server.connections == 1
    assert run.passes <= passes


def test_a_connection_that_the_server_closed_is_made_anew(host: Host) -> None:
    def closes_unannounced(stream: socket.socket) -> None:
        stream.sendall(open_answer(agent_answer()))

    with RawServer([closes_unannounced, http_answer(config_answer(TEMPLATE))]) as server:
        run = register(host, server.url)
    assert run.result.status == 0
    assert server.connections == 2


def test_a_name_is_looked_up_once_in_a_run(host: Host) -> None:
    host.name_address("authority.example", "127.0.0.1")
    with RawServer([http_answer(agent_answer()), http_answer(config_answer(TEMPLATE))]) as server:
        run = register(host, f"http://authority.example:{server.port}")
    assert run.result.status == 0
    assert server.connections == 2
    assert run.passes <= 5


def test_long_rules_leave_in_one_pass_and_are_not_announced(host: Host) -> None:
    with RawServer([http_answer(empty_answer())]) as server:
        named = ("--dsname", "home", "--dstypeid", "4", "--dsrules", RULES)
        run = run_counted(host, "--action", "createds", *stored(host, server.url), *named)
    assert run.result.status == 0
    assert run.passes == 2
    request = server.only_request()
    assert ("dataselection", RULES) in request.parts()
    assert set(request.headers) == {"host", "accept", "accept-encoding", "content-length", "content-type"}


def test_a_long_answer_is_read_in_a_few_passes(host: Host) -> None:
    answer = data_answer([("a", "S")], [[b"T"]]).replace(b"\nT\n", b"\n" + b"x" * 10_000_000 + b"\n")
    with RawServer([http_answer(answer)]) as server:
        run = discover(host, server.url)
    assert run.result.status == 0
    assert run.passes <= 3


def test_every_encoding_that_libcurl_knows_is_asked_for(host: Host) -> None:
    with RawServer([http_answer(empty_answer())]) as server:
        assert discover(host, server.url).result.status == 0
    assert server.only_request().headers["accept-encoding"] == "deflate, gzip, br, zstd"


@pytest.mark.parametrize(
    "encoding, body",
    [("gzip", gzip.compress(config_answer(TEMPLATE))), ("deflate", zlib.compress(config_answer(TEMPLATE)))],
    ids=["gzip", "deflate"],
)
def test_a_compressed_answer_is_unpacked(host: Host, encoding: str, body: bytes) -> None:
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", "/opt/agent")
    with RawServer([http_answer(body, headers=[f"Content-Encoding: {encoding}"])]) as server:
        run = run_counted(host, "--action", "configfile", "--type", "Agent", "--url", server.url, *ACCOUNT)
    assert run.result.status == 0
    assert TEMPLATE.encode() in run.result.stdout


BROKEN = {
    "no gzip at all": ("gzip", empty_answer()),
    "an encoding that nobody asked for": ("compress", empty_answer()),
}


@pytest.mark.parametrize("encoding, body", BROKEN.values(), ids=BROKEN.keys())
def test_an_answer_that_cannot_be_unpacked_is_a_network_error(host: Host, encoding: str, body: bytes) -> None:
    with RawServer([http_answer(body, headers=[f"Content-Encoding: {encoding}"])]) as server:
        run = discover(host, server.url)
    assert run.result == Result(EXIT_FAILURE, b"", call_failed("discover", NETWORK_ERROR))


# A sanitizer's realloc copies the answer at each of its parts, which takes minutes.
@pytest.mark.uninstrumented
def test_an_answer_is_as_long_as_it_is_unpacked(host: Host) -> None:
    packed = gzip.compress(b"\0" * (LONGEST_ANSWER + 1), 1)
    with RawServer([http_answer(packed, headers=["Content-Encoding: gzip"])]) as server:
        run = discover(host, server.url)
    assert run.result == Result(EXIT_FAILURE, b"", call_failed("discover", NETWORK_ERROR))


def memory_granted(answer: bytes) -> int:
    """What a run may take for an answer with one large value."""
    return 4 * len(answer) + 32 * MEBIBYTE


@pytest.mark.uninstrumented
@pytest.mark.parametrize("size", [1_000_000, 40_000_000])
def test_the_memory_that_routing_tables_take(host: Host, size: int) -> None:
    table = b"x" * (size // 2)
    answer = routing_answer(b"T", b"T").replace(b"\nT|T\n", b"\n" + table + b"|" + table + b"\n")
    with RawServer([http_answer(answer)]) as server:
        numbers = ("--storagepoolid", "3", "--agentid", "42")
        run = run_counted(host, "--action", "routingtables", *stored(host, server.url), *numbers)
    assert run.result == Result(0, 2 * table, completed("routingtables"))
    assert run.peak_bytes <= memory_granted(answer)


@pytest.mark.uninstrumented
@pytest.mark.parametrize("size", [1_000_000, 40_000_000])
def test_the_memory_that_a_configuration_file_takes(host: Host, size: int) -> None:
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", "/opt/agent")
    answer = config_answer("[a]\nb=T\n").replace(b"=T", b"=" + b"x" * size)
    with RawServer([http_answer(answer)]) as server:
        run = run_counted(host, "--action", "configfile", "--type", "Agent", "--url", server.url, *ACCOUNT)
    assert run.result.status == 0
    assert b"[a]\nb=" + b"x" * size + b"\n" in run.result.stdout
    assert run.peak_bytes <= memory_granted(answer)
