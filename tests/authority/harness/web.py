"""Sends requests over HTTP and HTTPS."""

from __future__ import annotations

import http.client
import ssl
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path
from urllib.parse import SplitResult, urlsplit

from harness.programs import TIMEOUT_S


@dataclass
class Reply:
    """One HTTP reply."""

    status: int
    headers: http.client.HTTPMessage
    text: str


def request(url: str, body: bytes | None, headers: Mapping[str, str], trusted: Path | None = None) -> Reply:
    """Sends one request, a GET when there is no body; over TLS only the trusted certificate is accepted."""
    parts = urlsplit(url)
    connection = _connection(parts, trusted)
    try:
        target = parts.path + ("?" + parts.query if parts.query else "")
        connection.request("GET" if body is None else "POST", target, body, dict(headers))
        reply = connection.getresponse()
        return Reply(reply.status, reply.headers, reply.read().decode())
    finally:
        connection.close()


def _connection(parts: SplitResult, trusted: Path | None) -> http.client.HTTPConnection:
    """A connection, not yet made, to the server that an address names."""
    if parts.scheme == "http":
        return http.client.HTTPConnection(parts.netloc, timeout=TIMEOUT_S)
    context = ssl.create_default_context(cafile=str(trusted))
    return http.client.HTTPSConnection(parts.netloc, timeout=TIMEOUT_S, context=context)


def multipart(fields: Mapping[str, str]) -> tuple[bytes, str]:
    """The fields as a form body, and its content type."""
    boundary = "part-8d1f0c5e"
    parts = [
        f'--{boundary}\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n{value}\r\n'
        for name, value in fields.items()
    ]
    body = "".join(parts) + f"--{boundary}--\r\n"
    return body.encode("utf-8", "surrogateescape"), f"multipart/form-data; boundary={boundary}"
