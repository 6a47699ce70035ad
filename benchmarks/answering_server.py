"""An authority that answers every page at once, with an answer of a given size.

    answering_server.py --address A [--size BYTES] [--tls 1.2|1.3 --certificate PEM --key PEM]
                        [--compress] [--close]

Prints its port on standard output when it listens.
"""

from __future__ import annotations

import argparse
import gzip
import http.server
import random
import socket
import ssl
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "end_to_end"))

from harness.answers import agent_answer, config_answer, data_answer, empty_answer, routing_answer  # noqa: E402

_LINE_BYTES = len(b"entry00000001=000000000001\\n")
_VALUE = b"@VALUE@"
_COMPRESSION_LEVEL = 1
_VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}


def lines(size: int) -> bytes:
    """About this many bytes of a configuration file, in whole lines, which compress as such files do."""
    numbers = random.Random(size)
    text = [b"[numbers]"]
    text += [b"entry%08d=%012d" % (line, numbers.randrange(10**12)) for line in range(size // _LINE_BYTES)]
    return b"\n".join(text) + b"\n"


def answers(size: int) -> dict[str, bytes]:
    """Each page's answer; the value that an action is after has `size` bytes."""
    text = lines(size).replace(b"\n", rb"\n")
    half = text[: size // 2]
    one_value = rb"[numbers]\nvalue=" + b"x" * size
    return {
        "/ws_storagepool.php": data_answer([("returnvalue", "S")], [[_VALUE]]).replace(_VALUE, text),
        "/ws_agent.php": agent_answer(),
        "/ws_agent.php getRoutingTables": routing_answer(_VALUE, _VALUE).replace(_VALUE, half),
        "/ws_configfile.php": config_answer(_VALUE).replace(_VALUE, text),
        "/one_value/ws_configfile.php": config_answer(_VALUE).replace(_VALUE, one_value),
        "/ws_dataselection.php": empty_answer(),
    }


class Handler(http.server.BaseHTTPRequestHandler):
    """Answers the form posts of one connection."""

    protocol_version = "HTTP/1.1"
    pages: dict[str, bytes] = {}
    compress = False
    close = False

    def do_POST(self) -> None:
        """Reads the form and sends the page's answer."""
        form = self.rfile.read(int(self.headers["Content-Length"]))
        page = self.path + (" getRoutingTables" if b"getRoutingTables" in form else "")
        body = self.pages[page]
        self.send_response(200)
        if self.compress and "gzip" in self.headers.get("Accept-Encoding", ""):
            body = self.pages[page + " gzip"]
            self.send_header("Content-Encoding", "gzip")
        self.send_header("Content-Length", str(len(body)))
        if self.close:
            self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_: object) -> None:
        """Says nothing."""


class Server(http.server.ThreadingHTTPServer):
    """One thread for each connection, the TLS handshake included."""

    daemon_threads = True
    request_queue_size = 64
    tls: ssl.SSLContext | None = None

    def finish_request(self, request: socket.socket, client_address: object) -> None:  # type: ignore[override]
        """Speaks TLS first where the server has it."""
        try:
            stream = self.tls.wrap_socket(request, server_side=True) if self.tls else request
            super().finish_request(stream, client_address)
        except OSError:
            pass


def arguments() -> argparse.Namespace:
    """The command line."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--address", required=True)
    parser.add_argument("--size", type=int, default=0)
    parser.add_argument("--tls", choices=_VERSIONS)
    parser.add_argument("--certificate")
    parser.add_argument("--key")
    parser.add_argument("--compress", action="store_true")
    parser.add_argument("--close", action="store_true")
    return parser.parse_args()


def main() -> None:
    """Serves until the process is ended."""
    options = arguments()
    Handler.pages = answers(options.size)
    if options.compress:
        Handler.pages |= {f"{page} gzip": gzip.compress(body, _COMPRESSION_LEVEL) for page, body in Handler.pages.items()}
    Handler.compress, Handler.close = options.compress, options.close
    server = Server((options.address, 0), Handler)
    if options.tls:
        server.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        server.tls.minimum_version = server.tls.maximum_version = _VERSIONS[options.tls]
        server.tls.load_cert_chain(options.certificate, options.key)
    print(server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
