#!/usr/bin/python3 -I
"""Registers this host with its storage pool authority: once, wholly, and again where that helps.

The work itself is tzregister's. This script looks at the host before the
authority is asked, lets tzregister write beside the configuration file, checks
what was written and renames it over the file, and repeats what can pass.
See tzregister-enroll(8).
"""

from __future__ import annotations

import argparse
import base64
import contextlib
import enum
import fcntl
import hashlib
import hmac
import json
import os
import random
import re
import shutil
import signal
import socket
import ssl
import stat
import subprocess
import sys
import time
import traceback
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import NoReturn, TextIO
from urllib.parse import urlsplit

VERSION = "@PROJECT_VERSION@"


class Status(enum.IntEnum):
    """Exit statuses, those of sysexits.h where one fits. Wrong options end with 2."""

    DONE = 0
    INTERNAL = 70
    PASSING = 75
    REFUSED = 76
    CLONE = 77
    NOT_READY = 78


class Stop(Exception):
    """Ends the run with this status and these reasons."""

    def __init__(self, status: Status, *reasons: str) -> None:
        super().__init__("; ".join(reasons))
        self.status = status
        self.reasons = reasons


class Kind(enum.Enum):
    """What a failure of tzregister calls for."""

    PASSING = "passing"
    CONNECTION = "connection"  # passing, unless the server's certificate is the reason
    LOGIN = "login"  # lasting, and says that the account is not known
    LASTING = "lasting"


@dataclass(frozen=True)
class Message:
    """What a line of tzregister's standard error begins with, and what it calls for."""

    start: str
    kind: Kind
    meaning: str


_REFUSAL = "The webservice returned an error :"
_REPORT = re.compile(r"Failed to perform action \w+\. Error: ")

# The first line of standard error that begins with one of these decides, by the
# first of them. A failure that is not here is lasting: what nobody knows is not repeated.
MESSAGES = (
    Message("Network error during webservice call", Kind.CONNECTION, "the authority cannot be reached"),
    Message("Request failed.", Kind.CONNECTION, "the authority cannot be reached over the channel"),
    Message("Webservice call timed out.", Kind.PASSING, "the authority did not answer in time"),
    Message(
        "The data returned by the webservice could not be parsed.",
        Kind.PASSING,
        "what answered is not the authority, or it is busy",
    ),
    Message(_REFUSAL + "The authority failed", Kind.PASSING, "the authority is in trouble"),
    Message(_REFUSAL + "Login failed", Kind.LOGIN, "the authority does not know this login and password"),
    Message(_REFUSAL, Kind.LASTING, "the authority refuses"),
    Message("return status failed.", Kind.LASTING, "the authority does not take requests over this channel"),
)

# tzregister says this once it has read and unlocked the account, before it asks anything.
_ACCOUNT_READ = "Parameter dsname is empty. Please provide valid input"
_CLOSING_LINE = "\n##Configfile written to "
_TOOL_SECONDS = 600

_PATH_OPTIONS = ("var", "keydir", "log", "temp", "snapshots", "rtdir", "pid", "progressdir", "resourcebundles")
_NEEDED = (("spa", "url"), ("systemaccount", "login"), ("systemaccount", "passwd"), ("paths", "keydir"))
_DEFAULT_HTTPS_PORT = 443
_CONNECT_SECONDS = 20.0
_KEY_BYTES = 64
_ROOM_BYTES = 1 << 20
_FOREIGN_WRITERS = stat.S_IWGRP | stat.S_IWOTH
_STRANGERS = stat.S_IWGRP | stat.S_IRWXO
_PEM_BLOCK = re.compile(r"-----BEGIN CERTIFICATE-----[^-]+-----END CERTIFICATE-----")

Configuration = dict[str, dict[str, str]]


@dataclass(frozen=True)
class Paths:
    """Where things lie on a host unless options or the registry say otherwise."""

    registry: Path = Path("/etc/qxregistry.cfg")
    target: Path = Path("/etc/quorvex/Agent.cfg")
    installation: Path = Path("/usr/zenta/vrmo/qxag")
    machine_id: Path = Path("/etc/machine-id")
    certificates: Path = Path("/etc/quorvex/certs")


# --- What is told ---------------------------------------------------------


def printable(text: str) -> str:
    """The text with what a terminal could take for a command made visible."""
    return "".join(character if character.isprintable() else "?" for character in text.strip())


def pair(name: str, value: object) -> str:
    """One key=value; the value in quotes where it needs them."""
    text = str(value)
    return f"{name}={text}" if re.fullmatch(r"[\w./:@%+-]+", text, re.ASCII) else f"{name}={json.dumps(text)}"


@dataclass
class Report:
    """Tells one stream: words on a terminal, key=value otherwise."""

    stream: TextIO

    def tell(self, words: str, **facts: object) -> None:
        """One line."""
        line = printable(words) if self.stream.isatty() else " ".join(pair(*fact) for fact in facts.items())
        with contextlib.suppress(BrokenPipeError):
            print(line, file=self.stream, flush=True)


# --- What is left for the node exporter -----------------------------------

_TEXTFILE_ENDING = ".prom"
_LAST_SUCCESS = "tzregister_enroll_last_success_timestamp_seconds"
_METRICS = """\
# HELP tzregister_enroll_registered Whether a whole configuration is in place whose account was not refused.
# TYPE tzregister_enroll_registered gauge
tzregister_enroll_registered {registered:d}
# HELP tzregister_enroll_last_run_timestamp_seconds When the last run ended.
# TYPE tzregister_enroll_last_run_timestamp_seconds gauge
tzregister_enroll_last_run_timestamp_seconds {now}
# HELP {last_success} When a run last ended well; 0 for never.
# TYPE {last_success} gauge
{last_success} {success}
# HELP tzregister_enroll_last_run_failed Whether the last run failed, in a way that can pass or one that lasts.
# TYPE tzregister_enroll_last_run_failed gauge
tzregister_enroll_last_run_failed{{failure="passing"}} {passing:d}
tzregister_enroll_last_run_failed{{failure="lasting"}} {lasting:d}
"""


@dataclass
class Standing:
    """What a run knows of this host, however it ends."""

    registered: bool = False


def last_success(file: Path) -> int:
    """When a run last ended well, from what it left; 0 when it left nothing that can be read."""
    try:
        found = re.search(rf"^{_LAST_SUCCESS} (\d+)$", file.read_text("ascii", "replace"), re.M)
    except OSError:
        return 0
    return int(found[1]) if found is not None else 0


def leave_result(file: Path, status: int, standing: Standing, now: int) -> None:
    """Puts a run's result in place of the one before, whole at any moment and readable for everybody."""
    text = _METRICS.format(
        registered=standing.registered,
        now=now,
        last_success=_LAST_SUCCESS,
        success=now if status == Status.DONE else last_success(file),
        passing=status == Status.PASSING,
        lasting=status not in (Status.DONE, Status.PASSING),
    )
    # A name of this run's own, because another one may be ending at the same time.
    fresh = file.with_name(f"{file.name}.{os.getpid()}")
    fresh.unlink(missing_ok=True)
    try:
        write_synced(fresh, text.encode())
        fresh.chmod(0o644)
        fresh.replace(file)
    finally:
        fresh.unlink(missing_ok=True)


# --- Configuration files --------------------------------------------------


def _header_name(line: str) -> str:
    name, closed, rest = line[1:].partition("]")
    if not name or not closed or rest.strip(" \n\r\t"):
        raise ValueError(f"not a section header: {line}")
    return name


def _trimmed(text: str) -> str:
    return text.strip(" \t") or text


def read_configuration(text: str) -> Configuration:
    """Sections and their options, names in lower case; ValueError where tzregister would refuse a line."""
    configuration: Configuration = {}
    section = None
    for line in (raw.lstrip(" \t\r") for raw in text.split("\n")):
        if not line or line[0] in "#;":
            continue
        if line[0] == "[":
            section = configuration.setdefault(_header_name(line).lower(), {})
            continue
        key, separator, value = line.partition("=")
        if section is None or not key or not separator:
            raise ValueError(f"not an option: {key}")
        section[_trimmed(key).lower()] = _trimmed(value)
    return configuration


def load_configuration(path: Path) -> Configuration:
    """The file's content; ValueError when it is no configuration, OSError when it cannot be read."""
    return read_configuration(path.read_bytes().decode("utf-8", "surrogateescape"))


def names_in(configuration: Configuration) -> set[tuple[str, str]]:
    """Every section and option."""
    return {(section, option) for section, options in configuration.items() for option in options}


def load_whole(file: Path) -> Configuration | None:
    """The configuration in a file, if it is there and whole."""
    try:
        configuration = load_configuration(file)
    except (FileNotFoundError, ValueError):
        return None
    return None if faults_of(configuration) else configuration


def faults_of(configuration: Configuration) -> list[str]:
    """What keeps a configuration from serving a registered host."""
    faults = [f"no {section}/{option}" for section, option in _NEEDED if not configuration.get(section, {}).get(option)]
    paths = configuration.get("paths", {})
    faults += [
        f"paths/{name} is not absolute" for name in _PATH_OPTIONS if not (paths.get(name) or "/").startswith("/")
    ]
    if not re.fullmatch("[0-9]+", agent_id(configuration)):
        faults.append("main/agentid is not a number")
    with contextlib.suppress(KeyError):
        faults += address_faults(configuration["spa"]["url"])
    return faults


def agent_id(configuration: Configuration) -> str:
    """The agent's own id; 0 stands for none."""
    return configuration.get("main", {}).get("agentid", "0")


# --- Asking tzregister ----------------------------------------------------


@dataclass(frozen=True)
class Answer:
    """How one run of tzregister ended."""

    status: int
    stdout: str
    stderr: str

    def message(self) -> tuple[Kind, str]:
        """What its failure calls for, and the reason in words."""
        lines = [_REPORT.sub("", line) for line in self.stderr.split("\n") if line.strip()]
        for line in lines:
            for row in MESSAGES:
                if line.startswith(row.start):
                    detail = line[len(_REFUSAL) :] if row.start == _REFUSAL else line
                    return row.kind, f"{row.meaning} ({printable(detail)})"
        return Kind.LASTING, printable(lines[-1] if lines else f"tzregister ended with status {self.status}")


@dataclass(frozen=True)
class Tool:
    """tzregister, run with nothing of the caller's environment but what it is to see.

    The lock is handed on: as long as a tzregister runs that nobody waits for
    any more, no other enrolment begins.
    """

    program: str
    environment: Mapping[str, str]
    lock: int

    def run(self, *arguments: str) -> Answer:
        """Runs one action to its end."""
        try:
            done = subprocess.run(
                [self.program, *arguments],
                stdin=subprocess.DEVNULL,
                capture_output=True,
                encoding="utf-8",
                errors="surrogateescape",
                env=self.environment,
                pass_fds=(self.lock,),
                timeout=_TOOL_SECONDS,
                check=False,
            )
        except subprocess.TimeoutExpired:
            return Answer(-signal.SIGKILL, "", "Webservice call timed out.")
        return Answer(done.returncode, done.stdout, done.stderr)


def tool_environment(environment: Mapping[str, str]) -> dict[str, str]:
    """What tzregister sees of the environment: proxies and the plugin directory, and strict verification."""
    passed = re.compile(
        r"(https?|all|no)_proxy|QUORVEX_PLUGIN_PATH|LLVM_PROFILE_FILE|[ALU]B?SAN_OPTIONS|GCOV_\w+", re.I
    )
    kept = {name: value for name, value in environment.items() if passed.fullmatch(name)}
    return {**kept, "PATH": "/usr/bin:/bin", "LANG": "C.UTF-8", "QUORVEX_SSL_VERIFY": "required"}


# --- Why the authority cannot be reached ----------------------------------


@dataclass(frozen=True)
class Address:
    """The authority's address, taken apart."""

    scheme: str
    host: str
    port: int

    @property
    def secure(self) -> bool:
        """Whether TLS is spoken there."""
        return self.scheme in ("https", "vrmo")


def parse_address(url: str) -> Address:
    """Scheme, host as typed, port; ValueError when the address is of no use."""
    parts = urlsplit(url)
    if parts.scheme not in ("http", "https", "vrmo"):
        raise ValueError(f"{url}: the address must begin with https:// or vrmo://")
    if "@" in parts.netloc:
        raise ValueError("the address holds a login; give it as --login and --passwdfile")
    host = re.sub(r":\d*$", "", parts.netloc)
    if not host or host.startswith("."):
        raise ValueError(f"{url}: the address names no host")
    return Address(parts.scheme, host, parts.port or (80 if parts.scheme == "http" else _DEFAULT_HTTPS_PORT))


def address_faults(url: str) -> list[str]:
    """What is wrong with an address, if anything."""
    try:
        parse_address(url)
    except ValueError as failure:
        return [str(failure)]
    return []


def fingerprint(certificate: bytes) -> str:
    """SHA-256 of a certificate, as openssl x509 -fingerprint -sha256 prints it."""
    return hashlib.sha256(certificate).digest().hex(":").upper()


def fingerprints_in(text: str) -> list[str]:
    """The fingerprints of the certificates in a PEM text."""
    return [fingerprint(ssl.PEM_cert_to_DER_cert(block)) for block in _PEM_BLOCK.findall(text)]


def trust_in(file: Path) -> ssl.SSLContext:
    """TLS settings that trust what tzregister does: this file alone, without it the system's authorities."""
    if not file.exists():
        return ssl.create_default_context()
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.load_verify_locations(file)
    context.verify_flags |= ssl.VERIFY_X509_PARTIAL_CHAIN
    return context


def shown_certificate(address: Address) -> bytes:
    """What the server shows, whoever vouches for it; nothing is sent to it."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return handshake(address, context)


def handshake(address: Address, context: ssl.SSLContext) -> bytes:
    """Connects, greets, hangs up; the certificate that the server showed."""
    name = address.host.strip("[]")
    with socket.create_connection((name, address.port), _CONNECT_SECONDS) as connection:
        with context.wrap_socket(connection, server_hostname=name) as secured:
            return secured.getpeercert(binary_form=True) or b""


def distrust(address: Address, file: Path, failure: ssl.SSLCertVerificationError) -> str:
    """Says what the server shows and what the file holds."""
    shown = fingerprint(shown_certificate(address))
    said = f"{address.host} shows the certificate SHA-256 {shown}, and {failure.verify_message}"
    if not file.exists():
        return f"{said}; there is no {file}"
    held = fingerprints_in(file.read_text("ascii", "replace"))
    if shown in held:
        return f"{said}, although {file} holds it"
    return f"{said}; {file} holds {len(held)}: {', '.join(held)}"


def look_at_server(url: str, file: Path) -> tuple[Kind, str]:
    """Why a connection that tzregister could not make fails; only a certificate is a lasting reason."""
    address = parse_address(url)
    name = address.host.strip("[]")
    try:
        if address.secure:
            handshake(address, trust_in(file))
        else:
            socket.create_connection((name, address.port), _CONNECT_SECONDS).close()
    except ssl.SSLCertVerificationError as failure:
        with contextlib.suppress(OSError):
            return Kind.LASTING, distrust(address, file, failure)
        return Kind.PASSING, f"{address.host}: {failure.verify_message}"
    except OSError as failure:
        return Kind.PASSING, f"{address.host} port {address.port}: {failure.strerror or failure}"
    return Kind.PASSING, "a connection can be made now"


# --- This host ------------------------------------------------------------


@dataclass(frozen=True)
class Place:
    """Where this enrolment reads and writes."""

    target: Path
    keydir: Path
    certificates: Path
    machine_id: Path

    def certificate_for(self, url: str) -> Path:
        """The file by which the server of an address is verified; for the channel the one beside the key may serve."""
        address = parse_address(url)
        file, beside_key = self.certificates / f"{address.host}.pem", self.keydir / "ca.pem"
        return beside_key if address.scheme == "vrmo" and beside_key.exists() and not file.exists() else file

    def beside(self, suffix: str) -> Path:
        """A file of this script's own next to the configuration file."""
        return self.target.with_name(self.target.name + suffix)

    @property
    def staged(self) -> Path:
        """Where tzregister writes."""
        return self.beside(".staged")

    @property
    def last_good(self) -> Path:
        """The configuration before the last one."""
        return self.beside(".last-good")

    @property
    def machine(self) -> Path:
        """Which machine enrolled."""
        return self.beside(".machine")


def registry_entry(registry: Path, section: str, paths: Paths) -> tuple[Path, Path]:
    """Configuration file and installation directory of a component."""
    if not registry.exists():
        if not paths.installation.exists():
            raise Stop(Status.NOT_READY, f"there is neither {registry} nor {paths.installation}")
        return paths.target, paths.installation
    try:
        entry = load_configuration(registry).get(section.lower(), {})
    except (OSError, ValueError) as failure:
        raise Stop(Status.NOT_READY, f"{registry} cannot be used: {failure}") from failure
    values = [entry.get(name, "") for name in ("configfilepath", "path")]
    if not all(value.startswith("/") for value in values):
        raise Stop(Status.NOT_READY, f"{registry} lacks an absolute configfilepath or path in [{section}]")
    return Path(values[0]), Path(values[1])


def locate(options: argparse.Namespace, environment: Mapping[str, str], paths: Paths) -> Place:
    """Finds the places by options, the registry and the environment."""
    target, installation = registry_entry(paths.registry, options.productname, paths)
    return Place(
        target=Path(os.path.realpath(options.file or target)),
        keydir=Path(options.keydir or Path(options.storage or installation) / "keys"),
        certificates=Path(environment.get("QUORVEX_PLUGIN_PATH") or paths.certificates),
        machine_id=paths.machine_id,
    )


def machine_mark(machine_id: Path) -> str:
    """Tells this machine from its clones without telling its id; empty when it has none."""
    try:
        text = machine_id.read_text("ascii").strip()
    except (OSError, ValueError):
        return ""
    if not re.fullmatch("[0-9a-f]{32}", text):
        return ""
    return hmac.new(text.encode(), b"tzregister-enroll", hashlib.sha256).hexdigest()


def make_key(file: Path) -> None:
    """Makes a key file, whole from the moment it is there, and never over another one."""
    file.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
    if file.exists():
        return
    fresh = file.with_name(file.name + ".new")
    fresh.unlink(missing_ok=True)
    write_synced(fresh, base64.b64encode(os.urandom(_KEY_BYTES)) + b"\n")
    with contextlib.suppress(FileExistsError):
        os.link(fresh, file)
    fresh.unlink()
    sync_directory(file.parent)


def write_synced(file: Path, content: bytes) -> None:
    """A new file for its owner alone, on the disk when this returns."""
    descriptor = os.open(file, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW, 0o600)
    with open(descriptor, "wb") as stream:
        stream.write(content)
        stream.flush()
        os.fsync(descriptor)


def sync_directory(directory: Path) -> None:
    """Puts a directory's names on the disk."""
    descriptor = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


@contextlib.contextmanager
def locked(directory: Path) -> Iterator[int]:
    """Holds the directory against other enrolments; ends the run when one is under way."""
    descriptor = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)
    try:
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError as failure:
            raise Stop(Status.PASSING, f"another enrolment is under way in {directory}") from failure
        yield descriptor
    finally:
        os.close(descriptor)


# --- Looking before asking ------------------------------------------------


@dataclass(frozen=True)
class Look:
    """What the checks look at."""

    options: argparse.Namespace
    environment: Mapping[str, str]
    place: Place


def require(holds: bool, reason: str) -> None:
    """Ends the run unless this holds."""
    if not holds:
        raise Stop(Status.NOT_READY, reason)


def check_mode(path: Path, forbidden: int, regular: bool) -> None:
    """Requires a file or directory of root or the caller with none of these mode bits."""
    status = path.stat()
    right = stat.S_ISREG if regular else stat.S_ISDIR
    require(right(status.st_mode), f"{path} is not a {'regular file' if regular else 'directory'}")
    require(status.st_uid in (0, os.geteuid()), f"{path} belongs to neither root nor the caller")
    mode = stat.S_IMODE(status.st_mode)
    require(
        not mode & forbidden, f"{path} has mode {mode:04o}; others must not get at it (chmod {mode & ~forbidden:04o})"
    )


def check_tool(look: Look) -> None:
    """tzregister is there."""
    require(shutil.which("tzregister", path=look.environment.get("PATH")) is not None, "tzregister is not on the PATH")


def check_verification(look: Look) -> None:
    """Servers are verified."""
    require(look.environment.get("QUORVEX_SSL_VERIFY") != "0", "QUORVEX_SSL_VERIFY=0 switches verification off")


def check_authority(look: Look) -> None:
    """The authority's address is safe to send a password to."""
    check_address(look.options.url, look.place, look.options.cleartext)


def check_address(url: str, place: Place, cleartext: bool) -> None:
    """Passwords go there encrypted, to a server that is verified."""
    scheme = parse_address(url).scheme
    file = place.certificate_for(url)
    require(scheme != "http" or cleartext, f"{url}: over http:// passwords travel in the clear; use https://")
    if scheme == "http" or (scheme == "vrmo" and not file.exists()):
        return
    require(file.exists(), f"{file} is missing; put the authority's certificate there")
    check_mode(file, _FOREIGN_WRITERS, regular=True)
    try:
        trust_in(file)
    except (OSError, ssl.SSLError) as failure:
        raise Stop(Status.NOT_READY, f"{file} holds no certificate that can be read: {failure}") from failure


def check_target(look: Look) -> None:
    """The configuration file can be staged and replaced."""
    directory = look.place.target.parent
    check_mode(directory, _FOREIGN_WRITERS, regular=False)
    require(os.access(directory, os.W_OK | os.X_OK), f"{directory} cannot be written")
    require(not look.place.target.is_dir(), f"{look.place.target} is a directory")
    room = os.statvfs(directory)
    require(room.f_bavail * room.f_frsize >= _ROOM_BYTES, f"{directory} has no room left")
    require(room.f_files == 0 or room.f_favail > 0, f"{directory} has no room left for a file")


def check_key(look: Look) -> None:
    """The key file is there, and nobody else's."""
    file = look.place.keydir / "auth.key"
    if look.options.make_key:
        make_key(file)
    require(file.exists(), f"{file} is missing; --make-key makes it")
    check_mode(look.place.keydir, _STRANGERS, regular=False)
    check_mode(file, _STRANGERS, regular=True)
    require(file.stat().st_size > 0, f"{file} is empty")
    require(os.access(file, os.R_OK), f"{file} cannot be read")


def check_password(look: Look) -> None:
    """The password file holds a password, and nobody else reads it."""
    file = Path(look.options.passwdfile)
    require(file.exists(), f"{file} is missing; it holds the administrator's password")
    check_mode(file, stat.S_IRWXG | stat.S_IRWXO, regular=True)
    found = re.search(rb"passwd=([^\n]*)", file.read_bytes())
    require(found is not None and found[1] != b"", f"{file} has no line passwd=PASSWORD")
    require(found is None or not found[1].endswith(b"\r"), f"{file} has DOS line ends, which would count as password")


def check_name(look: Look) -> None:
    """The host has a name to be known by."""
    require(look.options.hostname not in ("", "localhost"), "this host has no name of its own yet; give --hostname")


CHECKS: Sequence[Callable[[Look], None]] = (
    check_tool,
    check_verification,
    check_authority,
    check_target,
    check_key,
    check_password,
    check_name,
)


def look_at_host(look: Look) -> None:
    """Makes every check and names everything that is wrong at once."""
    reasons: list[str] = []
    for check in CHECKS:
        try:
            check(look)
        except Stop as stop:
            reasons += stop.reasons
        except (OSError, ValueError) as failure:
            reasons.append(str(failure))
    if reasons:
        raise Stop(Status.NOT_READY, *reasons)


# --- Enrolling ------------------------------------------------------------


@dataclass(frozen=True)
class Patience:
    """How often and after which waits what can pass is tried: full jitter below a growing, capped bound."""

    attempts: int
    first_bound_s: float = 5.0
    largest_bound_s: float = 300.0
    sleep: Callable[[float], None] = time.sleep
    between: Callable[[float, float], float] = random.uniform

    def wait_s(self, attempt: int) -> float:
        """How long to wait after this attempt, counted from 1."""
        return self.between(0.0, min(self.largest_bound_s, self.first_bound_s * 2.0 ** (attempt - 1)))


@dataclass
class Enrolment:
    """One run: what it was told, where it works, whom it asks and tells."""

    options: argparse.Namespace
    place: Place
    tool: Tool
    patience: Patience
    report: Report
    standing: Standing
    rehearsed: set[tuple[str, str]] = field(default_factory=set)

    def tell(self, step: str, result: str, words: str, **facts: object) -> None:
        """Tells how a step went."""
        self.report.tell(f"{words}: {result}", step=step, result=result, **facts)

    # Requests

    def verdict(self, answer: Answer, url: str) -> tuple[Kind, str]:
        """What a failed request calls for; a connection that failed is looked at."""
        kind, reason = answer.message()
        if kind is not Kind.CONNECTION:
            return kind, reason
        if any(re.fullmatch("(https?|all)_proxy", name, re.I) for name in self.tool.environment):
            return Kind.PASSING, reason
        kind, seen = look_at_server(url, self.place.certificate_for(url))
        return kind, f"{reason}: {printable(seen)}"

    def request(self, step: str, url: str, *arguments: str) -> tuple[Answer, Kind | None, str]:
        """Runs an action, again while its failure can pass; what a lasting failure calls for, and why."""
        for attempt in range(1, self.patience.attempts + 1):
            answer = self.tool.run(*arguments)
            if answer.status == 0:
                return answer, None, ""
            kind, reason = self.verdict(answer, url)
            if kind is not Kind.PASSING:
                return answer, kind, reason
            if attempt < self.patience.attempts:
                self.wait(step, attempt, reason)
        raise Stop(Status.PASSING, f"{reason}; tried {self.patience.attempts} times")

    def wait(self, step: str, attempt: int, reason: str) -> None:
        """Tells why and how long, and waits."""
        seconds = self.patience.wait_s(attempt)
        words = f"  attempt {attempt} of {self.patience.attempts}, next in {seconds:.0f} s, {reason}"
        self.tell(step, "passing", words, attempt=attempt, wait_s=f"{seconds:.1f}", reason=reason)
        self.patience.sleep(seconds)

    def must(self, step: str, *arguments: str) -> Answer:
        """A request of the administrator's account that has to succeed."""
        account = ("--url", self.options.url, "--login", self.options.login, "--passwdfile", self.options.passwdfile)
        # Over the channel the server may be verified by a file there; elsewhere this would be a field of the request.
        trust = ("--keydir", str(self.place.keydir)) if self.options.url.startswith("vrmo:") else ()
        answer, kind, reason = self.request(step, self.options.url, *arguments, *account, *trust)
        if kind is not None:
            raise Stop(Status.REFUSED, f"{step}: {reason}")
        return answer

    # An account that is there

    def account_works(self, file: Path, configuration: Configuration) -> bool:
        """Whether the authority knows the account in this file; ends the run when it cannot be told."""
        if self.unlock_fault(file):
            return False
        url = configuration["spa"]["url"]
        check_address(url, self.place, self.options.cleartext)
        pool = str(self.options.storagepoolid)
        arguments = ("--type", "Agent", "--agentid", agent_id(configuration), "--storagepoolid", pool)
        _, kind, reason = self.request(
            "account", url, "--action", "routingtables", *arguments, "--configfile", str(file)
        )
        if kind in (None, Kind.LOGIN):
            return kind is None
        hint = f"cannot tell whether the account in {file} works; --storagepoolid names a pool it may read"
        raise Stop(Status.REFUSED, reason, hint)

    def unlock_fault(self, file: Path) -> str:
        """What keeps tzregister from reading the account in this file; asks nobody."""
        nothing = ("--dsname", "", "--dstypeid", "0")
        answer = self.tool.run("--action", "createds", "--type", "Agent", "--configfile", str(file), *nothing)
        return "" if _ACCOUNT_READ in answer.stderr else answer.message()[1]

    # Steps

    def refuse_clone(self) -> None:
        """Ends the run when what lies here was enrolled by another machine."""
        own = machine_mark(self.place.machine_id)
        if not own:
            self.tell("machine", "unknown", "This machine has no id; a clone of it cannot be told")
            return
        if not (self.place.target.exists() or self.place.staged.exists()) or not self.place.machine.exists():
            return
        if self.place.machine.read_text("ascii", "replace").strip() != own:
            self.standing.registered = False
            file = self.place.target
            raise Stop(
                Status.CLONE,
                f"{file} was enrolled by another machine; two hosts must not share an account",
                f"on a clone remove {file} and the key file, then enrol it under its own name",
                f"if this is the same machine with a new id, remove {self.place.machine}",
            )

    def mark_machine(self) -> None:
        """Writes down which machine the configuration is for."""
        own = machine_mark(self.place.machine_id)
        if not own:
            return
        fresh = self.place.beside(".machine.new")
        fresh.unlink(missing_ok=True)
        write_synced(fresh, own.encode() + b"\n")
        fresh.replace(self.place.machine)
        sync_directory(self.place.target.parent)

    def recover(self) -> None:
        """Takes a configuration that an earlier run was killed before it could put in place, if it works."""
        configuration = load_whole(self.place.staged)
        if configuration is not None and self.account_works(self.place.staged, configuration):
            self.put_in_place()
            self.tell("recover", "ok", "Putting in place what an earlier run left")
        self.place.staged.unlink(missing_ok=True)

    def rehearse(self, own_id: str) -> None:
        """Fetches the configuration without registering: what it would lack is known before anything changes."""
        answer = self.must("rehearse", "--action", "configfile", *self.component(own_id))
        try:
            configuration = read_configuration(answer.stdout.rpartition(_CLOSING_LINE)[0])
        except ValueError as failure:
            raise Stop(Status.REFUSED, f"the authority's configuration cannot be read: {failure}") from failure
        account = {"login": "to come", "passwd": "to come"}
        faults = faults_of({**configuration, "systemaccount": account})
        if faults:
            raise Stop(Status.REFUSED, f"the authority's configuration would not do: {', '.join(faults)}")
        check_address(configuration["spa"]["url"], self.place, self.options.cleartext)
        keydir = configuration["paths"]["keydir"]
        if os.path.realpath(keydir) != os.path.realpath(self.place.keydir):
            raise Stop(Status.NOT_READY, f"the authority keeps the key file in {keydir}; give --keydir {keydir}")
        self.rehearsed = names_in(configuration)
        self.tell("rehearse", "ok", "Fetching the configuration without registering")

    def register(self, own_id: str) -> None:
        """Registers; tzregister writes the staged file."""
        name = ("--hostname", self.options.hostname, "--agentType", "0")
        more = ("--mkdir",) if self.options.mkdir else ()
        output = ("--todisk", "--file", str(self.place.staged))
        self.must("register", "--action", "register", *self.component(own_id), *name, *more, *output)
        # From here on the account in the file that is there is dead.
        self.standing.registered = False
        self.tell("register", "ok", "Registering")

    def component(self, own_id: str) -> tuple[str, ...]:
        """What is configured, and for whom."""
        server = ("--server", "--storage", self.options.storage) if self.options.server else ()
        identity = ("--agentid", own_id) if own_id != "0" else ()
        return ("--type", "Agent", *identity, *server, "--productname", self.options.productname)

    def check_staged(self) -> Configuration:
        """The staged configuration, which must be whole: nothing missing, its account readable."""
        try:
            configuration = load_configuration(self.place.staged)
        except (OSError, ValueError) as failure:
            raise Stop(Status.REFUSED, f"what was written is no configuration: {failure}") from failure
        faults = faults_of(configuration)
        faults += [f"no {section}/{option}" for section, option in sorted(self.rehearsed - names_in(configuration))]
        unlock_fault = self.unlock_fault(self.place.staged)
        faults += [unlock_fault] if unlock_fault else []
        if faults:
            raise Stop(Status.REFUSED, f"what was written is not whole: {', '.join(faults)}")
        self.tell("check", "ok", "Checking what was written")
        return configuration

    def put_in_place(self) -> None:
        """Makes the staged file the configuration file; the one before it stays as the last good one."""
        with open(self.place.staged, "rb") as stream:
            with contextlib.suppress(FileNotFoundError):
                before = self.place.target.stat()
                os.fchown(stream.fileno(), before.st_uid, before.st_gid)
                os.fchmod(stream.fileno(), stat.S_IMODE(before.st_mode))
            os.fsync(stream.fileno())
        if load_whole(self.place.target) is not None:
            kept = self.place.beside(".last-good.new")
            kept.unlink(missing_ok=True)
            os.link(self.place.target, kept)
            kept.replace(self.place.last_good)
        self.place.staged.replace(self.place.target)
        sync_directory(self.place.target.parent)

    def enrol(self) -> tuple[str, Configuration]:
        """The whole road; what came of it and the configuration that is in place."""
        self.refuse_clone()
        self.recover()
        present = load_whole(self.place.target)
        self.standing.registered = present is not None
        if present is not None and not self.options.force:
            if self.account_works(self.place.target, present):
                if not self.place.machine.exists():
                    self.mark_machine()
                return "unchanged", present
            self.standing.registered = False
            self.tell("account", "dead", "Trying the account that is there")
        own_id = agent_id(present) if present is not None else "0"
        self.rehearse(own_id)
        self.mark_machine()
        self.register(own_id)
        configuration = self.check_staged()
        self.put_in_place()
        return ("enrolled" if present is None else "renewed"), configuration


# --- Command line ---------------------------------------------------------


def positive(text: str) -> int:
    """A number of at least 1."""
    number = int(text)
    if number < 1:
        raise ValueError
    return number


def textfile(text: str) -> Path:
    """A file that the node exporter reads."""
    if not text.endswith(_TEXTFILE_ENDING):
        raise ValueError
    return Path(text)


def option_table() -> argparse.ArgumentParser:
    """The options; see tzregister-enroll(8)."""
    table = argparse.ArgumentParser(
        prog="tzregister-enroll",
        allow_abbrev=False,
        description="Registers this host with its storage pool authority unless it is registered already.",
        epilog="Exit status: 0 done, 2 wrong options, 75 can pass, 76 refused, 77 a clone, 78 not ready, 70 a defect.",
    )
    table.add_argument("--version", action="version", version=f"%(prog)s {VERSION}")
    table.add_argument("--url", required=True, help="address of the authority, https:// or vrmo://")
    table.add_argument("--login", required=True, help="login of an administrator")
    table.add_argument("--passwdfile", required=True, help="file with the administrator's password, mode 0600")
    table.add_argument("--hostname", default=socket.gethostname(), help="name to register (default: %(default)s)")
    table.add_argument("--file", help="configuration file (default: the registry's)")
    table.add_argument("--productname", default="Agent", help="section of the registry (default: %(default)s)")
    table.add_argument("--keydir", help="directory of the key file (default: keys below the installation)")
    table.add_argument("--server", action="store_true", help="register a server agent; needs --storage")
    table.add_argument("--storage", help="storage directory of a server agent")
    table.add_argument("--mkdir", action="store_true", help="create the directories that the configuration names")
    table.add_argument("--make-key", action="store_true", help="make the key file when it is missing")
    table.add_argument("--storagepoolid", type=positive, default=1, help="pool to try the account with (default: 1)")
    table.add_argument("--force", action="store_true", help="renew, with the agent's own id, an account that works")
    table.add_argument("--attempts", type=positive, default=10, help="tries of what can pass (default: %(default)s)")
    table.add_argument("--textfile", type=textfile, help="leave the result there for the node exporter, *.prom")
    table.add_argument("--cleartext", action="store_true", help="allow http://, where passwords travel in the clear")
    return table


def parse_options(arguments: Sequence[str]) -> argparse.Namespace:
    """The options given; ends the program with status 2 when they are wrong."""
    table = option_table()
    options = table.parse_args(arguments)
    if options.server != (options.storage is not None):
        table.error("--server and --storage go together")
    for fault in address_faults(options.url):
        table.error(fault)
    return options


def run(
    options: argparse.Namespace,
    environment: Mapping[str, str],
    paths: Paths,
    report: Report,
    patience: Patience,
    standing: Standing,
) -> tuple[str, Configuration, Place]:
    """One enrolment, locked against others."""
    place = locate(options, environment, paths)
    with contextlib.suppress(OSError):
        standing.registered = load_whole(place.target) is not None
    look_at_host(Look(options, environment, place))
    report.tell("Looking at this host: ok", step="look", result="ok")
    program = shutil.which("tzregister", path=environment.get("PATH"))
    with locked(place.target.parent) as lock:
        tool = Tool(program or "tzregister", tool_environment(environment), lock)
        result, configuration = Enrolment(options, place, tool, patience, report, standing).enrol()
    standing.registered = True
    return result, configuration, place


RESULTS = {
    "unchanged": "This host is registered and its account works; nothing was done",
    "enrolled": "This host is registered",
    "renewed": "This host is registered anew",
}


def main(
    arguments: Sequence[str],
    environment: Mapping[str, str] | None = None,
    paths: Paths = Paths(),
    patience: Patience | None = None,
) -> int:
    """Runs the program and returns its exit status."""
    options = parse_options(arguments)
    environment = os.environ if environment is None else environment
    standing = Standing()
    try:
        status = attempt(options, environment, paths, patience or Patience(options.attempts), standing)
    except Exception:
        leave_or_tell(options.textfile, Status.INTERNAL, standing)
        raise
    leave_or_tell(options.textfile, status, standing)
    return status


def attempt(
    options: argparse.Namespace, environment: Mapping[str, str], paths: Paths, patience: Patience, standing: Standing
) -> Status:
    """One run that tells how it ended."""
    report = Report(sys.stderr)
    try:
        result, configuration, place = run(options, environment, paths, report, patience, standing)
    except Stop as stop:
        for reason in stop.reasons:
            report.tell(f"tzregister-enroll: {reason}", result="failed", status=int(stop.status), reason=reason)
        return stop.status
    except OSError as failure:
        report.tell(f"tzregister-enroll: {failure}", result="failed", status=int(Status.NOT_READY), reason=failure)
        return Status.NOT_READY
    number = agent_id(configuration)
    words = f"{RESULTS[result]} (agent {number}, {place.target})"
    Report(sys.stdout).tell(words, result=result, agentid=number, file=place.target)
    return Status.DONE


def leave_or_tell(file: Path | None, status: Status, standing: Standing) -> None:
    """Leaves the result where it is wanted, or tells why not: it changes nothing about how the run ended."""
    if file is None:
        return
    try:
        leave_result(file, status, standing, int(time.time()))
    except OSError as failure:
        words = f"Leaving the result in {file}: {failure.strerror}"
        Report(sys.stderr).tell(words, step="textfile", result="failed", reason=failure)


def end() -> NoReturn:
    """Runs the program as a process."""
    os.umask(0o022)
    try:
        sys.exit(main(sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit(128 + signal.SIGINT)
    except Exception:
        traceback.print_exc()
        sys.exit(Status.INTERNAL)


if __name__ == "__main__":
    end()
