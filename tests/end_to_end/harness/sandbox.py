"""A made-up machine to run the tool on.

The tool reads "/etc/qxregistry.cfg", writes below "/etc/quorvex" and looks for
"/usr/zenta". A `Host` gives every case its own copies of these in a mount
namespace whose root is built from nothing, so the real machine is neither seen
nor changed. The network is the real one: servers on loopback are reachable.
"""

from __future__ import annotations

import functools
import os
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import IO, Mapping, Optional, Sequence

DEFAULT_PROGRAM = "/opt/quorvex/bin/tzregister"
# Without a blank, at which the loader would split the name of what is preloaded.
_LIBRARY = "/opt/quorvex/lib/preloaded.so"
DEFAULT_TIME_LIMIT_SECONDS = 90.0
EXIT_FAILURE = 255

# What the tool and its libraries need of the real /etc.
_SHARED_ETC = ("passwd", "group", "ca-certificates", "localtime", "ld.so.cache", "ld.so.conf", "ld.so.conf.d")

# Where instrumented builds write and how they behave is decided outside.
_PASSED_ON = ("ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "LLVM_PROFILE_FILE", "GCOV_PREFIX", "GCOV_PREFIX_STRIP")

_NAMESPACES = ("--unshare-pid", "--unshare-ipc", "--unshare-uts", "--cap-drop", "ALL")

# How bwrap is started: as it is; with the rights of a user namespace, which it does
# not ask for by itself as root; in a plain chroot, below a root that is a mount point.
_LAUNCHERS: Sequence[Sequence[str]] = (
    ("bwrap",),
    ("bwrap", "--unshare-user"),
    (sys.executable, str(Path(__file__).with_name("own_root.py")), "bwrap"),
)

_NOT_ALLOWED = (
    "bwrap cannot make the machines that the cases run on: {complaint}\n"
    "Allow user namespaces (sysctl user.max_user_namespaces, kernel.unprivileged_userns_clone), or run as root where "
    "root may mount (docker run --cap-add SYS_ADMIN --security-opt seccomp=unconfined "
    "--security-opt apparmor=unconfined)."
)

_HOSTS = "127.0.0.1 localhost\n"
_NAME_SERVICE = "passwd: files\ngroup: files\nhosts: files\n"
_ALL_ADDRESSES_OF_A_NAME = "multi on\n"


@dataclass(frozen=True)
class Result:
    """What one run of the tool left behind on its streams."""

    status: int
    stdout: bytes
    stderr: bytes


class SandboxUnavailable(Exception):
    """No machine can be made up here; the text says why and what to allow."""


@functools.lru_cache(maxsize=None)
def launcher() -> Sequence[str]:
    """How bwrap is started on this machine, tried once."""
    complaints: list[str] = []
    for tried in _LAUNCHERS:
        machine = ("--ro-bind", "/", "/", "--proc", "/proc", "--dev", "/dev", "--hostname", "probe")
        probe = [*tried, *_NAMESPACES, *machine, "--", "true"]
        done = subprocess.run(probe, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if done.returncode == 0:
            return tried
        complaints.append(done.stderr.strip())
    raise SandboxUnavailable(_NOT_ALLOWED.format(complaint=complaints[0]))


def binary() -> Path:
    """The program under test, named by TZREGISTER_BINARY."""
    return Path(os.environ["TZREGISTER_BINARY"]).resolve()


def _system_directories() -> list[str]:
    """The real machine's programs and libraries, read-only.

    The entries of /usr are bound one by one, so that "/usr/zenta" can be added
    beside them without a mount point appearing on the real machine.
    """
    options: list[str] = []
    for entry in sorted(Path("/usr").iterdir()):
        if entry.name != "zenta":
            options += ["--ro-bind", str(entry), str(entry)]
    for top in ("/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"):
        if os.path.islink(top):
            options += ["--symlink", os.readlink(top), top]
        elif os.path.isdir(top):
            options += ["--ro-bind", top, top]
    return options


class Host:
    """One machine, its files in a directory of the case's own.

    `work` is seen by the tool under the same path and is its current
    directory; `etc_quorvex` is its "/etc/quorvex". `program` is the path under
    which the tool sees itself. Whatever is `shown` keeps its path, too, and may
    be written to. The tool runs as root with no more than `capabilities`.
    """

    def __init__(self, directory: Path, program: str = DEFAULT_PROGRAM) -> None:
        self.program = program
        self.environment: dict[str, str] = {}
        self.small_disks: dict[str, int] = {}
        self.shown: list[Path] = []
        self.capabilities: list[str] = []
        self.work = directory / "work"
        self.etc_quorvex = directory / "etc-quorvex"
        self._files = directory / "machine"
        self._registry = self._files / "qxregistry.cfg"
        self._ssl = Path("/etc/ssl")
        self._zenta: Optional[Path] = None
        self._library: Optional[Path] = None
        self._name = ""
        self._prepares = False
        for made in (self.work, self.etc_quorvex, self._files):
            made.mkdir(parents=True)
        (self._files / "hosts").write_text(_HOSTS)
        (self._files / "nsswitch.conf").write_text(_NAME_SERVICE)
        (self._files / "host.conf").write_text(_ALL_ADDRESSES_OF_A_NAME)

    def install_library(self, library: Path) -> str:
        """Gives the machine a library to preload; the path that it has there."""
        self._library = library.resolve()
        return _LIBRARY

    def install_registry(self, text: bytes) -> None:
        """Gives the machine a "/etc/qxregistry.cfg" with this text."""
        self._registry.write_bytes(text)

    def register_component(self, section: str, config_file: str, path: str) -> None:
        """Adds one component to the machine's registry."""
        entry = f"[{section}]\nconfigfilepath={config_file}\npath={path}\n".encode()
        before = self._registry.read_bytes() if self._registry.exists() else b""
        self.install_registry(before + entry)

    def make_registry_a_directory(self) -> None:
        """Puts a directory where the registry file belongs."""
        self._registry.mkdir()

    def lock_registry(self) -> None:
        """Leaves the registry file in place but readable for nobody."""
        self._registry.chmod(0)

    def install_default_product(self) -> None:
        """Gives the machine the default installation "/usr/zenta/vrmo/qxag"."""
        self._zenta = self._files / "zenta"
        (self._zenta / "vrmo" / "qxag").mkdir(parents=True)

    def let_prepare(self) -> None:
        """Lets the run itself write the registry and install the product."""
        self._prepares = True

    def install_ssl_directory(self, directory: Path) -> None:
        """Replaces the machine's "/etc/ssl" (trusted authorities, OpenSSL's settings)."""
        self._ssl = directory

    def name_address(self, name: str, address: str) -> None:
        """Lets the machine know another host by name."""
        with open(self._files / "hosts", "a", encoding="ascii") as hosts:
            hosts.write(f"{address} {name}\n")

    def set_name(self, name: str) -> None:
        """Gives the machine a host name of its own."""
        self._name = name

    def add_small_disk(self, mount_point: str, size_bytes: int) -> None:
        """Mounts a disk of this size; it vanishes with the run."""
        self.small_disks[mount_point] = size_bytes

    def run(
        self,
        *arguments: str,
        environment: Optional[Mapping[str, str]] = None,
        time_limit: float = DEFAULT_TIME_LIMIT_SECONDS,
        umask: int = 0o022,
        stdout: Optional[IO[bytes]] = None,
        shell: Optional[str] = None,
    ) -> Result:
        """Runs the tool with these arguments and waits for its end.

        With `shell` the script is run instead, the tool and its arguments
        being its "$@": for runs that need a preparation, another standard
        output or a look at a disk that vanishes.
        """
        command = [*_run_under(), self.program, *arguments]
        if shell is not None:
            command = ["/bin/sh", "-c", shell, "sh", *command]
        done = subprocess.run(
            [*self._bubblewrap(environment or {}), *command],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE if stdout is None else stdout,
            stderr=subprocess.PIPE,
            timeout=time_limit,
            umask=umask,
            check=False,
        )
        return Result(done.returncode, done.stdout or b"", done.stderr)

    def _bubblewrap(self, environment: Mapping[str, str]) -> list[str]:
        """The whole bwrap command line up to the program.

        No capability is kept but those asked for, so permissions hold for root as
        for anyone else.
        """
        options = [*launcher(), "--die-with-parent", *_NAMESPACES]
        for capability in self.capabilities:
            options += ["--cap-add", capability]
        options += ["--hostname", self._name or "agent-host"]
        options += [*_system_directories(), "--proc", "/proc", "--dev", "/dev", "--dir", "/tmp"]
        options += self._etc()
        options += ["--ro-bind", str(binary()), self.program]
        if self._library is not None:
            options += ["--ro-bind", str(self._library), _LIBRARY]
        for path in (self.work, *self.shown, *_writable_outside()):
            options += ["--bind", str(path), str(path)]
        for mount_point, size in self.small_disks.items():
            options += ["--size", str(size), "--tmpfs", mount_point]
        options += ["--chdir", str(self.work), "--clearenv"]
        for name, value in self._environment(environment).items():
            options += ["--setenv", name, value]
        return [*options, "--"]

    def _etc(self) -> list[str]:
        """The options that make the machine's /etc and "/usr/zenta"."""
        options: list[str] = []
        for name in _SHARED_ETC:
            options += ["--ro-bind-try", f"/etc/{name}", f"/etc/{name}"]
        for name in ("hosts", "nsswitch.conf", "host.conf"):
            options += ["--ro-bind", str(self._files / name), f"/etc/{name}"]
        options += ["--ro-bind", str(self._ssl), "/etc/ssl"]
        options += ["--bind", str(self.etc_quorvex), "/etc/quorvex"]
        if self._registry.exists():
            options += ["--ro-bind", str(self._registry), "/etc/qxregistry.cfg"]
        if self._prepares:
            options += ["--dir", "/usr/zenta"]
        if self._zenta is not None:
            options += ["--ro-bind", str(self._zenta), "/usr/zenta"]
        return options

    def _environment(self, more: Mapping[str, str]) -> dict[str, str]:
        """The run's whole environment."""
        passed_on = {name: os.environ[name] for name in _PASSED_ON if name in os.environ}
        return {"PATH": "/usr/bin:/bin", "LANG": "C.UTF-8", **passed_on, **self.environment, **more}


def _run_under() -> Sequence[str]:
    """The program that watches the runs, if any, with its options."""
    return os.environ.get("TZREGISTER_RUN_UNDER", "").split()


def _writable_outside() -> Sequence[Path]:
    """Directories of instrumented builds that runs write to."""
    listed = os.environ.get("TZREGISTER_SANDBOX_WRITABLE", "")
    return [Path(entry) for entry in listed.split(":") if entry]
