"""A host in a directory, with a tzregister that says what the case wants it to say."""

from __future__ import annotations

import io
import os
import stat
import subprocess
import sys
from collections.abc import Mapping
from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional

import tzregister_enroll as enroll

_SOURCE = Path(enroll.__file__)

URL = "http://127.0.0.1:9"
TEMPLATE = """\
[main]
agentid=0
[spa]
url={url}
[systemaccount]
login=
passwd=
[paths]
keydir={keydir}
log=/var/log
"""
READ_ACCOUNT = "Failed to perform action createds. Error: Parameter dsname is empty. Please provide valid input"

# Answers to the n-th call of an action with the n-th script, to later ones with the last.
_PROGRAM = """\
#!/bin/sh
place={place}
action=$2
number=$(($(ls "$place/calls" | wc -l) + 1))
printf '%s\\n' "$@" >"$place/calls/$(printf %03d "$number").$action"
env >"$place/environment"
count=$(ls "$place/calls" | grep -c "\\.$action\\$")
script=$place/answers/$action.$count
[ -e "$script" ] || script=$(ls "$place/answers/$action".* | tail -n 1)
. "$script"
"""


@dataclass
class Outcome:
    """What one run left behind."""

    status: int
    result: str
    steps: str


@dataclass
class FakeHost:
    """Directories of a prepared host; its answers are scripts of the shell, by action."""

    root: Path
    waits: list[float] = field(default_factory=list)
    bounds: list[float] = field(default_factory=list)

    def __post_init__(self) -> None:
        for name in ("bin", "calls", "answers", "etc", "agent", "certs"):
            (self.root / name).mkdir(mode=0o755)
        (self.root / "agent/keys").mkdir(mode=0o700)
        self.write_secret(self.keydir / "auth.key", "the key")
        self.write_secret(self.root / "admin.passwd", "passwd=secret\n")
        self.registry.write_text(f"[Agent]\nconfigfilepath={self.target}\npath={self.root}/agent\n")
        (self.root / "machine-id").write_text("0123456789abcdef" * 2 + "\n")
        program = self.root / "bin/tzregister"
        program.write_text(_PROGRAM.format(place=self.root))
        program.chmod(0o755)
        self.answer("createds", f"echo '{READ_ACCOUNT}' >&2; exit 255")
        self.answer("routingtables", "exit 0")
        self.answer("configfile", self.print_template())
        self.answer("register", self.write_file())

    @property
    def target(self) -> Path:
        return self.root / "etc/Agent.cfg"

    @property
    def keydir(self) -> Path:
        return self.root / "agent/keys"

    @property
    def registry(self) -> Path:
        return self.root / "qxregistry.cfg"

    @property
    def paths(self) -> enroll.Paths:
        """What stands in for the places of a real host."""
        return enroll.Paths(
            self.registry, self.target, self.root / "agent", self.root / "machine-id", self.root / "certs"
        )

    @staticmethod
    def write_secret(path: Path, text: str) -> None:
        path.write_text(text)
        path.chmod(0o600)

    def answer(self, action: str, script: str, call: int = 1) -> None:
        """Says what tzregister does when this action is asked for the n-th time."""
        (self.root / "answers" / f"{action}.{call}").write_text(script + "\n")

    def fail(self, action: str, *lines: str, call: int = 1) -> None:
        """Lets this action fail with these lines."""
        said = "".join(f"echo '{line}' >&2; " for line in lines)
        self.answer(action, f"{said}exit 255", call)

    def template(self, **changes: str) -> str:
        """The authority's template as tzregister prints it, its paths absolute."""
        return TEMPLATE.format(**{"url": URL, "keydir": str(self.keydir), **changes})

    def print_template(self, text: Optional[str] = None) -> str:
        """A script that prints a configuration as the action configfile does."""
        (self.root / "template").write_text(self.template() if text is None else text)
        return f"cat {self.root}/template; echo; echo '##Configfile written to '"

    def configuration(self, agent_id: str = "7", login: str = "agent7", passwd: str = "qx1.abc") -> str:
        """A registered host's configuration."""
        text = self.template().replace("agentid=0", f"agentid={agent_id}")
        return text.replace("login=", f"login={login}").replace("passwd=", f"passwd={passwd}")

    def write_file(self, text: Optional[str] = None) -> str:
        """A script that writes a configuration as the action register does."""
        (self.root / "registered").write_text(self.configuration() if text is None else text)
        return (
            'umask 077; while [ "$1" != --file ]; do shift; done; '
            f'cat {self.root}/registered >"$2"; echo "##Configfile written to $2"'
        )

    def enrol_before(self, text: Optional[str] = None) -> None:
        """Makes this a host that is registered already."""
        self.write_secret(self.target, self.configuration() if text is None else text)

    def calls(self) -> list[str]:
        """The actions that were asked for, in order, without the look into the account."""
        names = sorted(path.name for path in (self.root / "calls").iterdir())
        return [name.split(".")[1] for name in names if not name.endswith(".createds")]

    def arguments(self, action: str) -> list[str]:
        """The arguments of the last call of an action."""
        return sorted((self.root / "calls").glob(f"*.{action}"))[-1].read_text().splitlines()

    def command(self, *more: str) -> list[str]:
        """The arguments of a usual run."""
        account = ["--url", URL, "--login", "admin", "--passwdfile", str(self.root / "admin.passwd")]
        return [*account, "--cleartext", "--hostname", "web01", *more]

    def environment(self) -> dict[str, str]:
        return {"PATH": f"{self.root}/bin:/usr/bin:/bin"}

    def patience(self, attempts: int) -> enroll.Patience:
        """Waits that take no time: each is written down with the bound it was drawn below."""

        def draw(low: float, high: float) -> float:
            assert low == 0.0
            self.bounds.append(high)
            return high / 2

        return enroll.Patience(attempts, sleep=self.waits.append, between=draw)

    def run(
        self, *more: str, attempts: int = 3, terminal: bool = False, environment: Optional[Mapping[str, str]] = None
    ) -> Outcome:
        """Runs the script in this process."""
        streams = (_Stream(terminal), _Stream(terminal))
        before = (sys.stdout, sys.stderr)
        sys.stdout, sys.stderr = streams
        try:
            where = {**self.environment(), **(environment or {})}
            status = enroll.main(self.command(*more), where, self.paths, self.patience(attempts))
        finally:
            sys.stdout, sys.stderr = before
        return Outcome(int(status), streams[0].getvalue(), streams[1].getvalue())

    def process_command(self, *more: str) -> list[str]:
        """The script as a process of its own, with this host's places."""
        places = {name: str(getattr(self.paths, name)) for name in self.paths.__dataclass_fields__}
        start = (
            f"import sys; sys.path.insert(0, {str(_SOURCE.parent)!r}); sys.dont_write_bytecode = True\n"
            "import tzregister_enroll as e, pathlib\n"
            f"paths = e.Paths(**{{n: pathlib.Path(p) for n, p in {places!r}.items()}})\n"
            f"sys.exit(e.main({self.command(*more)!r}, None, paths))"
        )
        return ["/usr/bin/python3", "-I", "-c", start]

    def start(self, *more: str) -> "subprocess.Popen[bytes]":
        """Starts the script; what it says is dropped."""
        return subprocess.Popen(
            self.process_command(*more),
            env=self.environment(),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )

    def files(self) -> dict[str, str]:
        """The files beside the configuration file."""
        return {path.name: path.read_text() for path in sorted(self.target.parent.iterdir())}

    def mode(self, path: Path) -> int:
        return stat.S_IMODE(os.stat(path).st_mode)


class _Stream(io.StringIO):
    def __init__(self, terminal: bool) -> None:
        super().__init__()
        self._terminal = terminal

    def isatty(self) -> bool:
        return self._terminal
