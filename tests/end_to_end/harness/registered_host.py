"""A machine that belongs to a pool already: every action has what it needs, and files to lose."""

from __future__ import annotations

import os
from dataclasses import dataclass
from pathlib import Path
from typing import Mapping, Optional, Sequence

from harness.credentials import CredentialFile
from harness.passwords import KEY_FILE, encrypt
from harness.sandbox import DEFAULT_TIME_LIMIT_SECONDS, Host, Result

KEY = b"the host's key file"
LOGIN = "agent_42"
PASSWORD = "s3cret"
ACCOUNT = ("--login", "admin", "--passwd", "secret")
OLD_CONFIG = b"# the configuration that the host runs with\n[paths]\nkeydir=/opt/agent/keys\n" + b"#" * 10_000 + b"\n"
OLD_TABLE = b"# the table that the host runs with\n" * 100
OLD_PEM = b"the key material that the host runs with\n" * 100

# What stands on the command line besides address and account.
_AGENT = ("--type", "Agent")
_NUMBERS = ("--agentid", "42", "--storagepoolid", "1")
_SELECTION = ("--dsname", "home", "--dstypeid", "1", "--dsrules", "/home")


@dataclass(frozen=True)
class FileState:
    """One file or directory: whatever a run could change about it."""

    mode: int
    changed_ns: int
    content: bytes


class RegisteredHost:
    """A `Host` with an agent, its configuration, keys and certificate, and a pool's two routing tables."""

    def __init__(self, host: Host) -> None:
        self.host = host
        base = host.work / "agent"
        self.keys = base / "keys"
        self.keys.mkdir(parents=True)
        (self.keys / KEY_FILE).write_bytes(KEY)
        (self.keys / KEY_FILE).chmod(0o600)
        host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(base))
        self.config = host.etc_quorvex / "Agent.cfg"
        self.config.write_bytes(OLD_CONFIG)
        self.config.chmod(0o600)
        self.credentials = CredentialFile(base / "account.cfg", login=LOGIN, keydir=str(self.keys))
        self.tables = (base / "recommended", base / "current")
        for table in self.tables:
            table.write_bytes(OLD_TABLE)
        for name in ("Agent.cert", "Agent.key"):
            (self.keys / name).write_bytes(OLD_PEM)

    def arguments(self, action: str, url: str) -> tuple[str, ...]:
        """The command line of an action whose authority is at this address."""
        self.credentials.url = url
        self.credentials.passwd = encrypt(KEY, PASSWORD.encode())
        self.credentials.write()
        address = ("--url", url, *ACCOUNT)
        stored = ("--configfile", str(self.credentials.path))
        files = ("--file", str(self.tables[0]), "--file2", str(self.tables[1]))
        options: dict[str, Sequence[str]] = {
            "discover": address,
            "register": (*_AGENT, *address, "--hostname", "web01", "--agentType", "0", "--todisk"),
            "configfile": (*_AGENT, *address, "--agentid", "42", "--todisk"),
            "routingtables": (*_AGENT, *_NUMBERS, *stored, *files),
            "createds": (*_AGENT, *_SELECTION, *stored),
            "certificate": (*_AGENT, "--todisk", "--keydir", str(self.keys)),
        }
        return ("--action", action, *options[action])

    def run(
        self,
        action: str,
        url: str,
        environment: Optional[Mapping[str, str]] = None,
        time_limit: float = DEFAULT_TIME_LIMIT_SECONDS,
    ) -> tuple[Result, dict[str, bytes]]:
        """Runs an action and says what it left: its streams, and the files that appeared or changed."""
        arguments = self.arguments(action, url)
        before = self.files()
        result = self.host.run(*arguments, environment=environment, time_limit=time_limit)
        return result, self.changes(before)

    def files(self) -> dict[str, FileState]:
        """Every file and directory that a run could have touched, by its path."""
        places = [self.host.work, self.host.etc_quorvex]
        found = places + [path for place in places for path in sorted(place.rglob("*"))]
        return {str(path): _state(path) for path in found}

    def changes(self, before: dict[str, FileState]) -> dict[str, bytes]:
        """The new content of whatever differs from before, by file name; vanished files read "gone"."""
        now = self.files()
        names = {path for path in {*before, *now} if before.get(path) != now.get(path)}
        return {os.path.basename(path): now[path].content if path in now else b"gone" for path in names}


def _state(path: Path) -> FileState:
    """What there is to see of one file."""
    status = path.lstat()
    content = path.read_bytes() if path.is_file() else b""
    return FileState(status.st_mode, status.st_mtime_ns, content)
