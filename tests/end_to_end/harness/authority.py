"""The reference authority of this project, run for one case at a time."""

from __future__ import annotations

import contextlib
import re
import selectors
import subprocess
import urllib.request
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, Mapping, Optional, Sequence

from harness.raw_server import multipart

LOGIN = "admin"

_PROGRAMS = Path(__file__).resolve().parents[3] / "authority"
_START_LIMIT_SECONDS = 30.0
_STOP_LIMIT_SECONDS = 15.0
_BOUNDARY = "--------boundary-of-the-test"
_UNESCAPES = {"n": "\n", "r": "\r", "t": "\t", "\\": "\\"}


@dataclass(frozen=True)
class Authority:
    """An authority that listens on a loopback port and keeps its data for itself."""

    url: str
    data: Path

    @property
    def password(self) -> str:
        """The administrator's password."""
        return self.password_file.read_text().partition("passwd=")[2].rstrip("\n")

    @property
    def password_file(self) -> Path:
        """The file that holds the administrator's password, as the tool reads it."""
        return self.data / "admin.passwd"

    @property
    def account(self) -> tuple[str, ...]:
        """The administrator's account as options of the tool."""
        return ("--login", LOGIN, "--passwd", self.password)

    def show(self, what: str) -> str:
        """What the authority knows of accounts, agents, pools and so on."""
        command = [str(_PROGRAMS / "show"), "--data", str(self.data), what]
        return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout

    def call(self, page: str, fields: Mapping[str, str]) -> str:
        """Posts a form as the administrator and returns the answer's text."""
        whole = {"login": LOGIN, "passwd": self.password, **fields}
        body = multipart([(name.encode(), value.encode()) for name, value in whole.items()], _BOUNDARY)
        headers = {"Content-Type": f"multipart/form-data; boundary={_BOUNDARY}"}
        request = urllib.request.Request(f"{self.url}/{page}", body, headers)
        with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request) as answer:
            text: bytes = answer.read()
        return text.decode()

    def first_record(self, page: str, fields: Mapping[str, str]) -> dict[str, str]:
        """The first record of the answer to such a form."""
        lines = self.call(page, fields).split("\n")
        assert lines[0] == "***BEGIN***", lines
        return dict(zip(lines[2].split("|"), map(unescape, lines[4].split("|"))))

    def template(self, template_id: int, agent_id: int = 0) -> str:
        """A configuration-file template as the tool receives it."""
        fields = {"action": "create", "agentid": str(agent_id), "configfiletemplateid": str(template_id)}
        return self.first_record("ws_configfile.php", fields)["returnvalue"]


def unescape(value: str) -> str:
    """A value of an answer without its escapes."""

    def plain(escape: "re.Match[str]") -> str:
        return _UNESCAPES.get(escape[1]) or chr(int(escape[1][1:], 16))

    return re.sub(r"\\([nrt\\]|x[0-9A-Fa-f]{2})", plain, value)


@contextlib.contextmanager
def running(program: str, arguments: Sequence[str], announcement: str) -> Iterator[str]:
    """Runs one of the authority's programs and yields the address that it announces.

    The program ends with the block, or with the test run if that dies first.
    """
    command = ["setpriv", "--pdeathsig", "TERM", str(_PROGRAMS / program), *arguments]
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    try:
        yield _announced_address(process, announcement)
    finally:
        process.terminate()
        process.wait(_STOP_LIMIT_SECONDS)


def _announced_address(process: "subprocess.Popen[bytes]", announcement: str) -> str:
    """What stands behind the announcement on the program's first line."""
    assert process.stdout is not None
    with selectors.DefaultSelector() as selector:
        selector.register(process.stdout, selectors.EVENT_READ)
        assert selector.select(_START_LIMIT_SECONDS), f"{process.args!r} did not start in time"
    line = process.stdout.readline().decode()
    assert line.startswith(announcement), f"{process.args!r} said {line!r}"
    return line[len(announcement) :].rstrip("\n")


@contextlib.contextmanager
def running_authority(data: Path) -> Iterator[Authority]:
    """An authority with fresh data in this directory."""
    arguments = ["--data", str(data), "--port", "0"]
    with running("serve", arguments, "Authority listening on ") as url:
        yield Authority(url, data)


@contextlib.contextmanager
def tls_front(authority: Authority, certificate: Path, key: Path, data: Path) -> Iterator[str]:
    """nginx with this certificate in front of an authority; yields its address."""
    arguments = ["--cert", str(certificate), "--key", str(key), "--upstream", authority.url, "--port", "0"]
    with running("serve-tls", [*arguments, "--data", str(data)], "TLS listening on ") as url:
        yield url


def port_of(url: str) -> Optional[int]:
    """The port that an address names."""
    found = re.search(r":(\d+)$", url)
    return int(found[1]) if found else None
