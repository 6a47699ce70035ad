"""The reference authority as a site of its own: nginx with TLS, PHP-FPM, and the data."""

from __future__ import annotations

import contextlib
import os
import signal
import socket
import subprocess
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import paths
from harness.tls_files import CertificateAuthority, ServerFiles

WORKERS = 16
FPM_BACKLOG = 511
# One of two belongs to PHP-FPM.
CONNECTIONS = 2048

_START_LIMIT_S = 30.0
_POLL_S = 0.02

_NGINX = """{user}
daemon off;
pid nginx.pid;
error_log nginx.log error;
worker_processes 2;
worker_rlimit_nofile 8192;
events {{ worker_connections {connections}; }}
http {{
  access_log off;
  client_body_temp_path tmp-body; proxy_temp_path tmp-proxy; fastcgi_temp_path tmp-fastcgi;
  uwsgi_temp_path tmp-uwsgi; scgi_temp_path tmp-scgi;
  server {{
    listen 127.0.0.1:{port} ssl backlog=1024;
    ssl_certificate "{certificate}";
    ssl_certificate_key "{key}";
    ssl_protocols TLSv1.2 TLSv1.3;
    location ~ ^(/[a-z_]+\\.php)$ {{
      include /etc/nginx/fastcgi_params;
      fastcgi_param HTTP_HOST $http_host;
      fastcgi_param SCRIPT_FILENAME "{pages}$1";
      fastcgi_param QUORVEX_AUTHORITY_DATA "{data}";
      fastcgi_read_timeout 120;
      fastcgi_pass "unix:{folder}/fpm.sock";
    }}
  }}
}}
"""

_FPM = """[global]
error_log = {folder}/fpm.log
daemonize = no
[www]
{account}
listen = {folder}/fpm.sock
listen.backlog = {backlog}
pm = static
pm.max_children = {workers}
"""


def free_port() -> int:
    """A loopback port that nobody listens on at the moment."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        port: int = server.getsockname()[1]
        return port


def group_cpu_s(group: int) -> float:
    """The CPU seconds that the living processes of a group have used; each of them has one thread."""
    nanoseconds = 0
    for process in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if int((process / "stat").read_text().rpartition(")")[2].split()[2]) == group:
                nanoseconds += int((process / "schedstat").read_text().split()[0])
    return nanoseconds / 1e9


@dataclass
class Server:
    """A program in a process group of its own, which ends with this one."""

    command: list[str]
    log: Path
    cpu_s: float = 0.0
    process: subprocess.Popen[bytes] | None = None

    def start(self) -> None:
        """Starts it, from the main thread: it would end with any other one."""
        with open(self.log, "ab") as log:
            command = ["setpriv", "--pdeathsig", "TERM", "--", *self.command]
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True
            )

    def end(self, number: signal.Signals) -> None:
        """Ends it and notes the CPU seconds that it used."""
        if self.process is None:
            return
        self.cpu_s += group_cpu_s(self.process.pid)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, number)
        self.process.wait(_START_LIMIT_S)
        self.process = None


@dataclass
class Site:
    """An authority below `folder`, whose name must be short: a socket lies in it. `program` is its source."""

    folder: Path
    program: Path = paths.AUTHORITY
    workers: int = WORKERS
    chosen_password: bool = False  # the administrator's; without it the authority makes one

    def __post_init__(self) -> None:
        self.data = self.folder / "data"
        self.data.mkdir(mode=0o700, exist_ok=True)
        self.ca = CertificateAuthority(self.folder / "ca")
        self.port = free_port()
        self.nginx = Server(["nginx", "-p", f"{self.folder}/", "-e", "nginx.log", "-c", "nginx.conf"], self._log)
        [program] = Path("/usr/sbin").glob("php-fpm[0-9]*")
        ini = ["-c", str(self.program / "lib/php.ini")]
        options = ["--allow-to-run-as-root", *ini, "--fpm-config", f"{self.folder}/fpm.conf"]
        self.fpm = Server([str(program), *options], self._log)
        self._configure(self.ca.server())

    @property
    def url(self) -> str:
        """Where nginx listens."""
        return f"https://127.0.0.1:{self.port}"

    @property
    def password_file(self) -> Path:
        """The administrator's password as the tool reads it."""
        return self.data / "admin.passwd"

    @property
    def _log(self) -> Path:
        return self.folder / "servers.log"

    def seed(self) -> None:
        """Makes the data."""
        if self.chosen_password:
            self.password_file.touch(0o600)
            self.password_file.write_text("passwd=what a person chose\n")
        lib = self.program / "lib"
        command = ["php", "-c", str(lib / "php.ini"), str(lib / "seed.php"), str(self.data), "admin", ""]
        subprocess.run(command, check=True, umask=0o077)

    def start(self) -> None:
        """Starts both servers and returns when they answer."""
        self.fpm.start()
        self.nginx.start()
        deadline = time.monotonic() + _START_LIMIT_S
        while not (self._listens(socket.AF_UNIX) and self._listens(socket.AF_INET)):
            if time.monotonic() > deadline:
                raise RuntimeError(f"the authority did not start: {self._log.read_text()}")
            time.sleep(_POLL_S)

    @contextlib.contextmanager
    def traced(self, file: Path | None) -> Iterator[None]:
        """Has strace count what PHP-FPM waits for while the block runs, and write it to the file, if there is one."""
        if file is None or self.fpm.process is None:
            yield
            return
        calls = "trace=fdatasync,fsync,fcntl,clock_nanosleep,pwrite64,unlink,openat,futex"
        attached = ["strace", "-f", "-c", "-w", "-e", calls, "-o", str(file)]
        pids = Path(f"/proc/{self.fpm.process.pid}/task/{self.fpm.process.pid}/children").read_text().split()
        strace = subprocess.Popen([*attached, *(f"--attach={pid}" for pid in pids)], stderr=subprocess.DEVNULL)
        try:
            yield
        finally:
            strace.send_signal(signal.SIGINT)
            strace.wait(_START_LIMIT_S)

    def end(self, number: signal.Signals = signal.SIGTERM) -> None:
        """Ends both servers; with SIGKILL in the middle of what they do."""
        self.nginx.end(number)
        self.fpm.end(number)

    def _listens(self, family: socket.AddressFamily) -> bool:
        address: str | tuple[str, int] = f"{self.folder}/fpm.sock"
        if family == socket.AF_INET:
            address = ("127.0.0.1", self.port)
        with socket.socket(family) as probe:
            return probe.connect_ex(address) == 0

    def _configure(self, files: ServerFiles) -> None:
        root = os.geteuid() == 0
        names = {"folder": self.folder, "data": self.data, "port": self.port, "workers": self.workers}
        nginx = _NGINX.format(
            **names,
            user="user root;" if root else "",
            certificate=files.certificate,
            key=files.key,
            connections=CONNECTIONS,
            pages=self.program / "pages",
        )
        (self.folder / "nginx.conf").write_text(nginx)
        account = "user = root\ngroup = root" if root else ""
        (self.folder / "fpm.conf").write_text(_FPM.format(**names, account=account, backlog=FPM_BACKLOG))


@contextlib.contextmanager
def running(site: Site) -> Iterator[Site]:
    """Seeds and starts the site, and ends it with the block."""
    site.seed()
    try:
        site.start()
        yield site
    finally:
        site.end()
