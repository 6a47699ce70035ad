"""Passes connections on and resets every tenth one, each in another stage.

    reset_proxy.py --to PORT [--every N]

Prints the loopback port that it listens on. The stages, one after the other: the
connection is reset at once; when the client has asked, before the server has; when
the server has done what it was asked, in place of the answer.
"""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import itertools
import socket
import struct

_CHUNK = 1 << 16
# A greeting of TLS is shorter than this, and a request with its greeting longer.
_REQUEST_BYTES = 1000
# How long a server is listened to after the request: until then it has answered.
_QUIET_S = 1.5
_STAGES = ("greeting", "request", "answer")


def reset(writer: asyncio.StreamWriter) -> None:
    """Ends a connection so that the other side sees it reset."""
    connection: socket.socket = writer.get_extra_info("socket")
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    writer.transport.abort()


class Connection:
    """One connection of a client, and the one to the server that belongs to it."""

    def __init__(self, client: tuple[asyncio.StreamReader, asyncio.StreamWriter], stage: str) -> None:
        self.reader, self.writer = client
        self.stage = stage
        self.asked = 0

    async def serve(self, port: int) -> None:
        """Passes on what both say until one of them ends or the stage is reached."""
        if self.stage == "greeting":
            reset(self.writer)
            return
        server = await asyncio.open_connection("127.0.0.1", port)
        ways = [asyncio.create_task(way) for way in (self.forth(server[1]), self.back(server[0]))]
        await asyncio.wait(ways, return_when=asyncio.FIRST_COMPLETED)
        for way in ways:
            way.cancel()
        await asyncio.gather(*ways, return_exceptions=True)
        server[1].close()
        if self.stage:
            reset(self.writer)
        else:
            self.writer.close()

    async def forth(self, server: asyncio.StreamWriter) -> None:
        """From the client to the server."""
        while data := await self.reader.read(_CHUNK):
            self.asked += len(data)
            if self.stage == "request" and self.asked > _REQUEST_BYTES:
                return
            server.write(data)
            await server.drain()

    async def back(self, server: asyncio.StreamReader) -> None:
        """From the server to the client; in the last stage nothing any more once the client has asked."""
        while data := await server.read(_CHUNK):
            if self.stage == "answer" and self.asked > _REQUEST_BYTES:
                with contextlib.suppress(asyncio.TimeoutError):
                    while await asyncio.wait_for(server.read(_CHUNK), _QUIET_S):
                        pass
                return
            self.writer.write(data)
            await self.writer.drain()


async def proxy(port: int, every: int) -> None:
    """Serves until the process is ended."""
    numbers = itertools.count(1)
    stages = itertools.cycle(_STAGES)

    async def connected(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        stage = next(stages) if next(numbers) % every == 0 else ""
        with contextlib.suppress(OSError):
            await Connection((reader, writer), stage).serve(port)
        writer.close()

    server = await asyncio.start_server(connected, "127.0.0.1", 0, backlog=1024)
    print(server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()


def main() -> None:
    """Runs the program."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--to", type=int, required=True)
    parser.add_argument("--every", type=int, default=10)
    options = parser.parse_args()
    asyncio.run(proxy(options.to, options.every))


if __name__ == "__main__":
    main()
