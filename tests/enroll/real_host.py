"""A made-up machine with the real program and the real script."""

from __future__ import annotations

import shutil
from pathlib import Path

from harness.authority import Authority
from harness.sandbox import Host, Result

_SOURCE = Path(__file__).resolve().parents[2] / "enroll" / "tzregister_enroll.py"
_TIME_LIMIT_SECONDS = 400.0


class EnrolHost(Host):
    """A machine that is ready to be enrolled; the agent lives in its work directory."""

    def __init__(self, directory: Path) -> None:
        super().__init__(directory)
        self.machine_id = directory / "machine-id"
        self.machine_id.write_text("0123456789abcdef" * 2 + "\n")
        self.agent = self.work / "agent"
        self.keydir = self.agent / "keys"
        self.certificates = self.etc_quorvex / "certs"
        self.target = self.etc_quorvex / "Agent.cfg"
        self.password_file = self.work / "admin.passwd"
        self.etc_quorvex.chmod(0o755)
        self.certificates.mkdir(mode=0o755)
        self.agent.mkdir()
        self.keydir.mkdir(mode=0o700)
        self.write_secret(self.keydir / "auth.key", "the key")
        self.write_secret(self.password_file, "passwd=secret\n")
        self.register_component("Agent", "/etc/quorvex/Agent.cfg", str(self.agent))
        self.environment["PATH"] = f"{Path(self.program).parent}:/usr/bin:/bin"
        shutil.copy(_SOURCE, self.work / "tzregister-enroll")
        (self.work / "tzregister-enroll").chmod(0o755)

    @staticmethod
    def write_secret(path: Path, text: str) -> None:
        """Writes a file for its owner alone."""
        path.write_text(text)
        path.chmod(0o600)

    def use_password_of(self, authority: Authority) -> None:
        """Gives the machine the administrator's password."""
        self.write_secret(self.password_file, authority.password_file.read_text())

    def trust(self, *certificates: Path, name: str = "127.0.0.1") -> None:
        """Puts these certificates where the server's are looked for."""
        file = self.certificates / f"{name}.pem"
        file.write_text("".join(certificate.read_text() for certificate in certificates))
        file.chmod(0o644)

    def enrol(self, url: str, *more: str, attempts: int = 1) -> Result:
        """Runs the script to register with the authority at this address."""
        account = ("--url", url, "--login", "admin", "--passwdfile", str(self.password_file))
        options = ("--hostname", "web01", "--attempts", str(attempts))
        start = 'shift; exec ./tzregister-enroll "$@"'
        return self.run(*account, *options, *more, shell=start, time_limit=_TIME_LIMIT_SECONDS)

    def _etc(self) -> list[str]:
        return [*super()._etc(), "--ro-bind", str(self.machine_id), "/etc/machine-id"]
