"""Machines of their own: network, mounts, processes and host name; their root is an overlay over this system's."""

from __future__ import annotations

import hashlib
import os
import shutil
import socket
import subprocess
import time
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path

BRIDGE = "fleet"
NETWORK = "10.77.0"
CONTROLLER = f"{NETWORK}.1"
PATIENCE_S = 60.0

# Nothing of this system's own is seen there.
_EMPTY = ("tmp", "run", "root", "home", "srv", "var/tmp", "var/log", "etc/quorvex", "etc/apt/sources.list.d")
# What connections and logs leave behind on a machine that nobody changed.
_PASSING = ("tmp", "run", "root/.ansible", "root/.cache", "root/.rpmdb", "var/log", "var/cache/apt", "var/lib/apt")

_SSHD = """\
HostKey /etc/ssh/fleet_host_key
AuthorizedKeysFile /root/.ssh/authorized_keys
PermitRootLogin prohibit-password
PasswordAuthentication no
UsePAM no
UseDNS no
MaxStartups 100
Subsystem sftp internal-sftp
"""

# Writes down what programs tell the system's log.
_SYSLOG = """\
import socket
listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
listener.bind("/dev/log")
with open("/var/log/syslog", "ab", buffering=0) as log:
    while True:
        log.write(listener.recv(1 << 16) + b"\\n")
"""


def run(*command: str | Path) -> str:
    """Runs a program that must succeed; its output."""
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, check=False, timeout=300)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}: {done.stdout}{done.stderr}")
    return done.stdout


def until(condition: object, what: str, seconds: float = PATIENCE_S) -> None:
    """Waits for a condition, a function without arguments."""
    assert callable(condition)
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(f"waited {seconds:.0f} s for: {what}")
        time.sleep(0.05)


def make_bridge() -> None:
    """The network that all machines and the controller share."""
    run("ip", "link", "set", "lo", "up")
    run("ip", "link", "add", BRIDGE, "type", "bridge")
    run("ip", "address", "add", f"{CONTROLLER}/24", "dev", BRIDGE)
    run("ip", "link", "set", BRIDGE, "up")


@dataclass
class Machine:
    """A machine, switched off at first. Its disk is a directory; it outlasts switching off."""

    name: str
    number: int
    folder: Path
    init: subprocess.Popen[str] | None = None
    processes: list[subprocess.Popen[str]] = field(default_factory=list)

    @property
    def layer(self) -> Path:
        """Where its disk is kept."""
        return self.folder / self.name

    @property
    def disk(self) -> Path:
        """What this machine has changed of its root."""
        return self.layer / "upper"

    @property
    def address(self) -> str:
        """Where it is reached."""
        return f"{NETWORK}.{self.number}"

    @property
    def _link(self) -> str:
        return f"fleet{self.number}"

    def make_disk(self) -> None:
        """A disk without anything of this system's own."""
        for name in ("upper", "work", "root"):
            (self.layer / name).mkdir(parents=True)
        for name in _EMPTY:
            self.mkdir(name, 0o1777 if name.endswith("tmp") else 0o700 if name == "root" else 0o755)
            os.setxattr(self.disk / name, "trusted.overlay.opaque", b"y")
        self.write("etc/apt/sources.list", "")
        # Not a hundred megabytes of cache for each machine.
        self.write("etc/apt/apt.conf.d/99fleet", 'Dir::Cache::pkgcache "";\nDir::Cache::srcpkgcache "";\n')

    def clone_disk(self, other: Machine) -> None:
        """A copy of another machine's disk."""
        self.layer.mkdir(parents=True)
        run("cp", "-a", other.disk, self.disk)
        for name in ("work", "root"):
            (self.layer / name).mkdir()

    def mkdir(self, path: str, mode: int = 0o755) -> None:
        """A directory on the disk, whatever the umask."""
        (self.disk / path).mkdir(parents=True, exist_ok=True)
        (self.disk / path).chmod(mode)

    def write(self, path: str, text: str, mode: int = 0o644) -> None:
        """A file on the disk."""
        file = self.disk / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        file.chmod(mode)

    def identify(self) -> None:
        """Gives the machine an identity: machine id, name, key of its SSH server."""
        self.write("etc/machine-id", hashlib.md5(self.name.encode(), usedforsecurity=False).hexdigest() + "\n")
        self.write("etc/hostname", f"{self.name}\n")
        for file in self.disk.glob("etc/ssh/fleet_host_key*"):
            file.unlink()
        self.mkdir("etc/ssh")
        run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", self.name, "-f", self.disk / "etc/ssh/fleet_host_key")
        self.write("etc/ssh/fleet_sshd_config", _SSHD)

    @property
    def host_key(self) -> str:
        """What its SSH server shows."""
        return (self.disk / "etc/ssh/fleet_host_key.pub").read_text().strip()

    def switch_on(self) -> None:
        """Starts the machine and connects it."""
        program = str(Path(__file__).with_name("machine"))
        command = ["unshare", "--mount", "--uts", "--ipc", "--net", "--pid", "--fork", "--kill-child", program]
        self.init = subprocess.Popen([*command, self.name, str(self.layer)], stdout=subprocess.PIPE, text=True)
        assert self.init.stdout is not None
        if self.init.stdout.readline() != "ready\n":
            raise RuntimeError(f"{self.name} did not start")
        run("ip", "link", "add", self._link, "type", "veth", "peer", "name", "eth0", "netns", str(self._first()))
        run("ip", "link", "set", self._link, "master", BRIDGE, "up")
        self.run("ip", "link", "set", "lo", "up")
        self.run("ip", "address", "add", f"{self.address}/24", "dev", "eth0")
        self.run("ip", "link", "set", "eth0", "up")

    def serve_ssh(self) -> None:
        """Starts its SSH server and its log."""
        self.mkdir("run/sshd")
        self.start("python3", "-c", _SYSLOG)
        self.start("/usr/sbin/sshd", "-D", "-f", "/etc/ssh/fleet_sshd_config", "-E", "/var/log/sshd")
        until(lambda: self.listens(22), f"the SSH server of {self.name}")

    def listens(self, port: int) -> bool:
        """Whether a port can be connected to."""
        try:
            socket.create_connection((self.address, port), 5).close()
        except OSError:
            return False
        return True

    def cut(self) -> None:
        """Takes the machine off the network."""
        run("ip", "link", "set", self._link, "down")

    def switch_off(self) -> None:
        """Takes its power away: every process ends at once. The disk stays."""
        assert self.init is not None
        first = self._first()
        self.init.kill()
        for process in [self.init, *self.processes]:
            process.wait(PATIENCE_S)
        # This process, the first of its own namespace, is left with the machine's first.
        os.waitpid(first, 0)
        run("ip", "link", "delete", self._link)
        self.processes.clear()
        self.init = None
        shutil.rmtree(self.layer / "work")
        (self.layer / "work").mkdir()

    def _first(self) -> int:
        assert self.init is not None
        children = Path(f"/proc/{self.init.pid}/task/{self.init.pid}/children").read_text().split()
        return int(children[0])

    def _inside(self, command: tuple[str, ...]) -> list[str]:
        return ["nsenter", f"--target={self._first()}", "--mount", "--uts", "--ipc", "--net", "--pid", "--", *command]

    def start(self, *command: str) -> subprocess.Popen[str]:
        """Starts a program on the machine."""
        process = subprocess.Popen(self._inside(command), stdin=subprocess.DEVNULL, text=True)
        self.processes.append(process)
        return process

    def run(self, *command: str) -> str:
        """Runs a program on the machine that must succeed; its output."""
        return run(*self._inside(command))

    # What is on its disk

    def files(self) -> Iterator[Path]:
        """Every file that the machine has written."""
        return (file for file in sorted(self.disk.rglob("*")) if file.is_file() and not file.is_symlink())

    def state(self) -> dict[str, str]:
        """What distinguishes this disk: path, mode, owner and content of all that lasts on it."""
        found = {}
        for path in sorted(self.disk.rglob("*")):
            name = str(path.relative_to(self.disk))
            if any(name == part or name.startswith(f"{part}/") for part in _PASSING):
                continue
            status = path.lstat()
            content = hashlib.sha256(path.read_bytes()).hexdigest() if path.is_file() else ""
            found[name] = f"{status.st_mode:o} {status.st_uid} {content}"
        return found
