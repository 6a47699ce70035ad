"""A server that records requests byte for byte and answers what the case says.

Each connection takes the next of the replies given; a reply is either the
bytes to send before the connection is closed or a function that is handed the
socket once the request was read.
"""

from __future__ import annotations

import contextlib
import socket
import ssl
import threading
import time
from dataclasses import dataclass, field
from typing import Callable, Iterator, Optional, Sequence, Union

from harness.answers import Text, as_bytes

_CONNECTION_LIMIT_SECONDS = 150.0
_ACCEPT_POLL_SECONDS = 0.1
_CHUNK_BYTES = 65536
_TLS_HANDSHAKE = b"\x16"

Reply = Union[bytes, Callable[[socket.socket], None]]


@dataclass
class Request:
    """One request as it arrived: its head with the blank line, and its body."""

    head: bytes
    body: bytes
    secure: bool = False

    @property
    def request_line(self) -> str:
        """Method, target and version."""
        return self.head.split(b"\r\n", 1)[0].decode()

    @property
    def headers(self) -> dict[str, str]:
        """The header fields, their names in lower case."""
        lines = self.head.decode().split("\r\n")[1:-2]
        return {name.lower(): value for name, value in (line.split(": ", 1) for line in lines)}

    def parts(self) -> list[tuple[str, str]]:
        """The form's (name, value) pairs in the order in which they travelled.

        The body built again from the pairs must be the body received: no part
        has other headers, and nothing stands before, between or behind them.
        """
        kind, _, boundary = self.headers["content-type"].partition("; boundary=")
        assert kind == "multipart/form-data" and boundary
        pieces = self.body.split(b"--" + boundary.encode())[1:-1]
        pairs = [_split_part(piece) for piece in pieces]
        assert self.body == multipart(pairs, boundary)
        return [(name.decode(), value.decode()) for name, value in pairs]


def _split_part(piece: bytes) -> tuple[bytes, bytes]:
    """Name and value of what stands between two boundaries."""
    head, _, rest = piece.partition(b"\r\n\r\n")
    name = head.partition(b'name="')[2].rstrip(b'"')
    assert b'"' not in name
    return name, rest[: -len(b"\r\n")]


def multipart(pairs: Sequence[tuple[bytes, bytes]], boundary: str) -> bytes:
    """The one form body that these pairs and this boundary give."""
    mark = b"--" + boundary.encode()
    body = b""
    for name, value in pairs:
        body += mark + b'\r\nContent-Disposition: form-data; name="' + name + b'"\r\n\r\n' + value + b"\r\n"
    return body + mark + b"--\r\n"


def http_answer(body: Text, status: str = "200 OK", headers: Sequence[str] = ()) -> bytes:
    """A complete answer with its length, after which the connection closes."""
    content = as_bytes(body)
    lines = [f"HTTP/1.1 {status}", "Content-Type: text/plain", f"Content-Length: {len(content)}"]
    lines += [*headers, "Connection: close", "", ""]
    return "\r\n".join(lines).encode() + content


@dataclass
class RawServer:
    """Listens on a free loopback port while the `with` block lasts."""

    replies: Sequence[Reply] = ()
    tls: Optional[ssl.SSLContext] = None
    requests: list[Request] = field(default_factory=list)
    connections: int = 0
    port: int = 0

    def __enter__(self) -> "RawServer":
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._listener.settimeout(_ACCEPT_POLL_SECONDS)
        self._over = threading.Event()
        self._open: list[socket.socket] = []
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()
        return self

    def __exit__(self, *_: object) -> None:
        self._over.set()
        self._threads[0].join()
        self._listener.close()
        for connection in self._open:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
        for thread in self._threads[1:]:
            thread.join(_CONNECTION_LIMIT_SECONDS)

    @property
    def url(self) -> str:
        """The server's base address."""
        return f"http{'s' if self.tls else ''}://127.0.0.1:{self.port}"

    def only_request(self) -> Request:
        """The one request that arrived."""
        assert len(self.requests) == 1, [request.request_line for request in self.requests]
        return self.requests[0]

    def _accept(self) -> None:
        """Hands every connection to a thread of its own."""
        while not self._over.is_set():
            with contextlib.suppress(socket.timeout):
                connection, _ = self._listener.accept()
                reply = self.replies[self.connections] if self.connections < len(self.replies) else b""
                self.connections += 1
                self._open.append(connection)
                self._threads.append(threading.Thread(target=self._serve, args=(connection, reply), daemon=True))
                self._threads[-1].start()

    def _serve(self, connection: socket.socket, reply: Reply) -> None:
        """Reads one request, records it and answers; the client may go away at any time."""
        connection.settimeout(_CONNECTION_LIMIT_SECONDS)
        with contextlib.suppress(OSError), contextlib.closing(self._secured(connection)) as stream:
            self.requests.append(read_request(stream, secure=self.tls is not None))
            if callable(reply):
                reply(stream)
            else:
                stream.sendall(reply)
                end_sending(stream)

    def _secured(self, connection: socket.socket) -> socket.socket:
        """The connection behind its TLS handshake, if the server has TLS; else it hangs up on one."""
        if self.tls is None:
            if connection.recv(1, socket.MSG_PEEK) == _TLS_HANDSHAKE:
                connection.close()
                raise ConnectionError("this server has no TLS")
            return connection
        try:
            return self.tls.wrap_socket(connection, server_side=True)
        except OSError:
            connection.close()
            raise


def pouring(first: bytes, piece: bytes, pause: float = 0.0) -> Callable[[socket.socket], None]:
    """A reply that sends the same piece again and again until the client leaves."""

    def pour(stream: socket.socket) -> None:
        with contextlib.suppress(OSError):
            stream.sendall(first)
            while True:
                stream.sendall(piece)
                time.sleep(pause)

    return pour


def end_sending(stream: socket.socket) -> None:
    """Ends the answer and waits for the client to close, so that nothing sent is lost."""
    if isinstance(stream, ssl.SSLSocket):
        stream.unwrap()
    else:
        stream.shutdown(socket.SHUT_WR)
        while stream.recv(_CHUNK_BYTES):
            pass


def read_request(stream: socket.socket, secure: bool = False) -> Request:
    """Reads one whole request, telling the client to go on where it asks."""
    received = _receive_until(stream, b"\r\n\r\n", b"")
    head, _, rest = received.partition(b"\r\n\r\n")
    request = Request(head + b"\r\n\r\n", b"", secure)
    if request.headers.get("expect", "").lower() == "100-continue":
        stream.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
    if request.headers.get("transfer-encoding", "").lower() == "chunked":
        request.body = _receive_until(stream, b"0\r\n\r\n", rest)
    else:
        request.body = _receive_length(stream, int(request.headers.get("content-length", "0")), rest)
    return request


def _receive_until(stream: socket.socket, end: bytes, received: bytes) -> bytes:
    """Everything up to a mark, with what came behind it."""
    while end not in received:
        received += _receive_some(stream)
    return received


def _receive_length(stream: socket.socket, length: int, received: bytes) -> bytes:
    """Exactly this many bytes, with what the client sent too many."""
    while len(received) < length:
        received += _receive_some(stream)
    return received


def _receive_some(stream: socket.socket) -> bytes:
    """The next bytes of a request that is not complete yet."""
    received = stream.recv(_CHUNK_BYTES)
    if not received:
        raise ConnectionError("the client closed in the middle of its request")
    return received


@contextlib.contextmanager
def refusing_port() -> Iterator[int]:
    """A port that nothing listens on, held so that nobody else takes it."""
    with contextlib.closing(socket.socket()) as holder:
        holder.bind(("127.0.0.1", 0))
        yield int(holder.getsockname()[1])
