"""The proxy that resets connections."""

from __future__ import annotations

import socket
import socketserver
import subprocess
import sys
import threading
from collections.abc import Iterator
from pathlib import Path

import pytest

_TIME_LIMIT_S = 30
_REQUEST = b"x" * 1500


class Server(socketserver.ThreadingTCPServer):
    """Answers each request and remembers it."""

    daemon_threads = True
    seen = 0


class Handler(socketserver.BaseRequestHandler):
    """One request."""

    def handle(self) -> None:
        """Reads it whole, then answers."""
        received = b""
        while len(received) < len(_REQUEST):
            data = self.request.recv(4096)
            if not data:
                return
            received += data
        assert isinstance(self.server, Server)
        self.server.seen += 1
        self.request.sendall(b"answer")


@pytest.fixture
def server() -> Iterator[Server]:
    """A server on loopback."""
    with Server(("127.0.0.1", 0), Handler) as made:
        threading.Thread(target=made.serve_forever, daemon=True).start()
        yield made
        made.shutdown()


@pytest.fixture
def port(server: Server) -> Iterator[int]:
    """The port of a proxy in front of the server that resets every third connection."""
    program = Path(__file__).with_name("reset_proxy.py")
    command = [sys.executable, str(program), "--to", str(server.server_address[1]), "--every", "3"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as proxy:
        assert proxy.stdout is not None
        yield int(proxy.stdout.readline())
        proxy.terminate()


def ask(port: int) -> bytes:
    """The answer to a request; nothing when the connection is reset."""
    try:
        with socket.create_connection(("127.0.0.1", port), _TIME_LIMIT_S) as connection:
            connection.sendall(_REQUEST)
            return connection.recv(4096)
    except ConnectionError:
        return b""


def test_every_third_connection_is_reset_each_in_another_stage(server: Server, port: int) -> None:
    answers = [ask(port) for _ in range(9)]
    assert answers == [b"answer", b"answer", b""] * 3
    # The last of the three was reset when the server had done what it was asked.
    assert server.seen == 6 + 1
