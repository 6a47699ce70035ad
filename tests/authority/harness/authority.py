"""A running authority, and a TLS front of one."""

from __future__ import annotations

import base64
import sqlite3
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from harness.answers import records
from harness.programs import AUTHORITY, TIMEOUT_S
from harness.web import Reply, multipart, request

TEMPLATES = (1, 2, 3, 6)
REGISTRATION = {
    "action": "register",
    "agentid": "0",
    "isServerAgent": "0",
    "macAddress": "000000000000",
    "agentVersion": "6.6.0.12345",
    "version": "6.6.0.12345",
    "osvariantid": "0",
    "osType": "20",
    "osextensions": "",
    "hostName": "host.example",
    "type": "0",
}


def basic(login: str, passwd: str) -> str:
    """The header with a login and a password."""
    return f"Basic {base64.b64encode(f'{login}:{passwd}'.encode()).decode()}"


@dataclass
class Authority:
    """An authority that answers at an address and keeps its data in a directory."""

    url: str
    data: Path

    @property
    def password(self) -> str:
        """The administrator's password, from the file that `serve` made."""
        return (self.data / "admin.passwd").read_text().removeprefix("passwd=").rstrip("\n")

    def page(self, page: str, fields: dict[str, str], **headers: str) -> str:
        """The answer of a page to exactly these fields."""
        body, content_type = multipart(fields)
        more = {name.replace("_", "-"): value for name, value in headers.items()}
        reply = request(f"{self.url}/ws_{page}.php", body, {"Content-Type": content_type, **more})
        assert reply.status == 200 and reply.headers["Content-Type"] == "text/plain; charset=utf-8"
        return reply.text

    def ask(self, page: str, login: str = "admin", passwd: str | None = None, **fields: str) -> str:
        """The answer of a page to these fields and an account, the administrator's unless another is given."""
        return self.page(page, {"login": login, "passwd": self.password if passwd is None else passwd, **fields})

    def register(self, host: str = "host.example", **changes: str) -> dict[str, str]:
        """Registers a host; returns its record."""
        [record] = records(self.ask("agent", **{**REGISTRATION, "hostName": host, **changes}))
        return record

    def watch(self, login: str | None = "admin", passwd: str | None = None, **headers: str) -> Reply:
        """The page for people, asked for with an account, the administrator's unless another is given, or none."""
        account = {"Authorization": basic(login, self.password if passwd is None else passwd)} if login else {}
        more = {name.replace("_", "-"): value for name, value in headers.items()}
        return request(f"{self.url}/watch.php", None, {**account, **more})

    def rows(self, sql: str) -> list[tuple[Any, ...]]:
        """What a query finds in the database file."""
        connection = sqlite3.connect(f"file:{self.data}/authority.sqlite?mode=ro", uri=True)
        try:
            return connection.execute(sql).fetchall()
        finally:
            connection.close()

    def change(self, sql: str) -> None:
        """Runs statements on the database file."""
        connection = sqlite3.connect(self.data / "authority.sqlite", timeout=TIMEOUT_S)
        try:
            connection.executescript(sql)
        finally:
            connection.close()

    def show(self, *sections: str) -> str:
        """What `show` prints."""
        command = [str(AUTHORITY / "show"), "--data", str(self.data), *sections]
        return subprocess.run(command, capture_output=True, text=True, check=True, timeout=TIMEOUT_S).stdout


@dataclass
class Front:
    """A TLS front of an authority."""

    url: str
    certificate: Path
    authority: Authority

    def channel(self, text: str, login: str = "admin", passwd: str | None = None, **changes: str | None) -> Reply:
        """Sends a request text as the channel's client does; changes replace headers or, as None, drop them."""
        passwd = self.authority.password if passwd is None else passwd
        headers: dict[str, str | None] = {
            "Authorization": basic(login, passwd),
            "Content-Type": "application/octet-stream",
            "X-Quorvex-Request-Kind": "13",
            "X-Quorvex-Parameter": "action",
        }
        headers.update({name.replace("_", "-"): value for name, value in changes.items()})
        sent = {name: value for name, value in headers.items() if value is not None}
        return request(f"{self.url}/vrmo.php", text.encode(), sent, self.certificate)


def make_certificate(folder: Path) -> tuple[Path, Path]:
    """A self-signed certificate for the loopback address, and its key."""
    certificate, key = folder / "cert.pem", folder / "key.pem"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2"]
        + ["-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"]
        + ["-keyout", str(key), "-out", str(certificate)],
        check=True,
        capture_output=True,
    )
    return certificate, key
