"""Where Ansible runs: the files of the collection's README, and what a play says in the end."""

from __future__ import annotations

import re
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

from machines import Machine, run

ROOT = Path(__file__).resolve().parents[2]
COLLECTION = ROOT / "deploy" / "ansible"
_PLAY_SECONDS = 900


def blocks() -> dict[str, str]:
    """The files and commands that the collection's README shows, by name."""
    text = (COLLECTION / "README.md").read_text()
    return dict(re.findall(r"^```(?:sh|ini|yaml) (\S+)\n(.*?)^```$", text, re.M | re.S))


@dataclass(frozen=True)
class Counts:
    """A host's line of the recap."""

    changed: int
    unreachable: int
    failed: int


@dataclass(frozen=True)
class Outcome:
    """How a play ended."""

    status: int
    output: str

    @property
    def recap(self) -> dict[str, Counts]:
        """The recap by host."""
        lines = self.output.rpartition("PLAY RECAP")[2]
        found = re.findall(r"^(\S+) +: ok=\d+ +changed=(\d+) +unreachable=(\d+) +failed=(\d+)", lines, re.M)
        return {host: Counts(*map(int, counts)) for host, *counts in found}

    def changed(self) -> set[str]:
        """Hosts on which something changed and nothing failed."""
        return {host for host, counts in self.recap.items() if counts.changed and not self._broken(counts)}

    def unchanged(self) -> set[str]:
        """Hosts on which nothing changed and nothing failed."""
        return {host for host, counts in self.recap.items() if not counts.changed and not self._broken(counts)}

    @staticmethod
    def _broken(counts: Counts) -> bool:
        return counts.failed > 0 or counts.unreachable > 0


class Controller:
    """A directory with the files of a roll-out, and the environment in which Ansible runs there."""

    def __init__(self, folder: Path, package: Path, certificate: Path, password: str) -> None:
        self.folder = folder / "controller"
        self.home = self.folder / "home"
        self.project = self.folder / "project"
        (self.home / ".ssh").mkdir(parents=True)
        (self.folder / "tmp").mkdir()
        self.environment = {
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
            "HOME": str(self.home),
            "TMPDIR": str(self.folder / "tmp"),
            "LANG": "C.UTF-8",
            "ANSIBLE_NOCOLOR": "1",
            "ANSIBLE_COLLECTIONS_PATH": str(self.home / ".ansible/collections"),
            "ANSIBLE_VAULT_PASSWORD_FILE": str(self.home / "vault.key"),
            "ANSIBLE_LOG_PATH": str(self.folder / "ansible.log"),
            "ANSIBLE_PYTHON_INTERPRETER": "/usr/bin/python3",
            "ANSIBLE_DISPLAY_ARGS_TO_STDOUT": "1",
            "ANSIBLE_SSH_CONTROL_PATH_DIR": str(self.folder / "cp"),
            "ANSIBLE_REMOTE_USER": "root",
            "ANSIBLE_PRIVATE_KEY_FILE": str(self.home / ".ssh/id_ed25519"),
            # ssh looks for its files where the account's own home is.
            "ANSIBLE_SSH_COMMON_ARGS": f"-F /dev/null -o UserKnownHostsFile={self.home}/.ssh/known_hosts",
        }
        self.secret("vault.key", "a vault's own password\n")
        run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.home / ".ssh/id_ed25519")
        self._write_project(package, certificate, password)

    @property
    def public_key(self) -> str:
        """The key that the hosts let in."""
        return (self.home / ".ssh/id_ed25519.pub").read_text()

    def secret(self, name: str, text: str) -> Path:
        """A file of the home directory for its owner alone."""
        file = self.home / name
        file.touch(0o600)
        file.write_text(text)
        return file

    def write(self, name: str, text: str) -> None:
        """A file of the project."""
        file = self.project / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def _write_project(self, package: Path, certificate: Path, password: str) -> None:
        for name, text in blocks().items():
            if re.search(r"\.(ini|cfg|yml)$", name):
                self.write(name, text)
        self.write("files/spa.example.pem", certificate.read_text())
        shutil.copy(package, self.project / "files/tzregister.deb")
        vault = self.project / "group_vars/storage_hosts/vault.yml"
        self.write("group_vars/storage_hosts/vault.yml", f"vault_tzregister_password: {password}\n")
        self.command("ansible-vault", "encrypt", str(vault))

    def install_collection(self) -> None:
        """Builds and installs the collection, by the README's commands."""
        self.command("bash", "-euc", f'cd "$1"; ln -s "$2" deploy; {blocks()["install"]}', "-",
                     str(self.folder / "tmp"), str(ROOT / "deploy"))  # fmt: skip

    def know(self, machine: Machine) -> None:
        """Knows a machine's key and its name from now on."""
        with (self.home / ".ssh/known_hosts").open("a") as known:
            known.write(f"{machine.name} {machine.host_key}\n")
        with Path("/etc/hosts").open("a") as names:
            names.write(f"{machine.address} {machine.name}\n")

    def command(self, *command: str) -> str:
        """Runs a program that must succeed; its output."""
        done = subprocess.run(
            command, cwd=self.project, env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True,
            check=False, timeout=_PLAY_SECONDS,
        )  # fmt: skip
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: {done.stdout}{done.stderr}")
        return done.stdout

    def start(self, *arguments: str) -> subprocess.Popen[str]:
        """Starts a play, as talkative as it gets without debugging."""
        # ssh keeps its shared connection open behind the play, and would keep a pipe open.
        output = (self.folder / f"play-{len(self.outputs())}").open("w+")
        command = ["ansible-playbook", "-vvv", *arguments]
        return subprocess.Popen(
            command, cwd=self.project, env=self.environment, stdin=subprocess.DEVNULL, stdout=output,
            stderr=subprocess.STDOUT, text=True,
        )  # fmt: skip

    def outputs(self) -> list[Path]:
        """What the plays so far have said."""
        return sorted(self.folder.glob("play-*"))

    def finish(self, play: subprocess.Popen[str]) -> Outcome:
        """Waits for the play that was started last."""
        status = play.wait(_PLAY_SECONDS)
        return Outcome(status, (self.folder / f"play-{len(self.outputs()) - 1}").read_text())

    def play(self, *arguments: str) -> Outcome:
        """Runs a play to its end."""
        return self.finish(self.start(*arguments))

    def forget_connections(self) -> None:
        """Ends the shared connections, which would outlast a host that was switched off."""
        for socket in (self.folder / "cp").glob("*"):
            subprocess.run(["ssh", "-Oexit", f"-oControlPath={socket}", "any"], capture_output=True, check=False)

    def role_options(self) -> str:
        """What ansible-doc says about the role, as JSON."""
        return self.command("ansible-doc", "--type", "role", "--json", "quorvex.storage.tzregister")


