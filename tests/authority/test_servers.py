"""The authority behind nginx, which passes requests on or runs the pages itself, as the README configures it."""

from __future__ import annotations

import os
import re
import subprocess
import tempfile
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import pytest

from harness.answers import options, records
from harness.authority import Authority, make_certificate
from harness.programs import AUTHORITY, TIMEOUT_S

SITE = "127.0.0.1:8443"


@dataclass
class Server:
    """nginx on two sockets of the file system; addresses on it may name any port."""

    folder: Path
    password: str

    def page(self, scheme: str, path: str, version: str, *fields: str) -> str:
        """The answer of a page to a form with the administrator's account."""
        form = [f'form = "{field}"' for field in (*fields, "login=admin", f"passwd={self.password}")]
        return self._ask(scheme, path, version, form)

    def channel(self, path: str, version: str, text: str) -> str:
        """The answer to a channel request of the administrator."""
        headers = ("X-Quorvex-Request-Kind: 13", "X-Quorvex-Parameter: action", "Content-Type: text/plain")
        request = [f'header = "{header}"' for header in headers]
        request += [f'user = "admin:{self.password}"', f'data-binary = "{text}"']
        return self._ask("https", path, version, request)

    def watch(self, path: str, version: str) -> str:
        """The page for people, as the administrator gets it."""
        return self._ask("https", path, version, [f'user = "admin:{self.password}"'])

    def _ask(self, scheme: str, path: str, version: str, request: list[str]) -> str:
        command = ["curl", "-q", "-s", "-K", "-", "--cacert", f"{self.folder}/cert.pem", f"--http{version}"]
        command += ["--unix-socket", f"{self.folder}/{scheme}.sock", f"{scheme}://{SITE}{path}"]
        done = subprocess.run(
            command, input="\n".join(request), capture_output=True, text=True, check=True, timeout=TIMEOUT_S
        )
        return done.stdout


def snippet(mark: str) -> str:
    """The README's piece of nginx configuration that holds a mark."""
    pieces: list[str] = re.findall(r"^```nginx\n(.*?)^```$", (AUTHORITY / "README.md").read_text(), re.M | re.S)
    [found] = [piece for piece in pieces if mark in piece]
    return found


@contextmanager
def running(*command: str | Path, until: Path) -> Iterator[None]:
    """Runs a server, from when its socket is there."""
    process = subprocess.Popen(["setpriv", "--pdeathsig", "TERM", "--", *map(str, command)], stderr=subprocess.PIPE)
    pause = threading.Event()
    try:
        for _ in range(TIMEOUT_S * 20):
            if until.exists() or process.poll() is not None:
                break
            pause.wait(0.05)
        if not until.exists():
            process.terminate()
            raise AssertionError(process.communicate(timeout=TIMEOUT_S))
        yield
    finally:
        process.terminate()
        process.communicate(timeout=TIMEOUT_S)


@contextmanager
def nginx(folder: Path, location: str) -> Iterator[None]:
    """nginx with one location, in clear text and with TLS."""
    make_certificate(folder)
    user = "user root;" if os.geteuid() == 0 else ""
    (folder / "nginx.conf").write_text(f"""{user} daemon off; pid nginx.pid; error_log nginx.log; events {{}}
        http {{
          access_log off;
          client_body_temp_path tmp-body; proxy_temp_path tmp-proxy; fastcgi_temp_path tmp-fastcgi;
          uwsgi_temp_path tmp-uwsgi; scgi_temp_path tmp-scgi;
          server {{
            listen unix:{folder}/http.sock;
            listen unix:{folder}/https.sock ssl http2;
            ssl_certificate cert.pem; ssl_certificate_key key.pem;
            {location}
          }}
        }}""")
    command = ("nginx", "-p", f"{folder}/", "-e", "nginx.log", "-c", "nginx.conf")
    with running(*command, until=folder / "https.sock"):
        yield


@contextmanager
def php_fpm(folder: Path) -> Iterator[None]:
    """PHP-FPM under the account that runs the tests."""
    [program] = Path("/usr/sbin").glob("php-fpm[0-9]*")
    account = "user = root\ngroup = root\n" if os.geteuid() == 0 else ""
    (folder / "fpm.conf").write_text(
        f"[global]\nerror_log = {folder}/fpm.log\ndaemonize = no\n"
        f"[www]\n{account}listen = {folder}/fpm.sock\npm = static\npm.max_children = 2\n"
    )
    with running(program, "--allow-to-run-as-root", "--fpm-config", folder / "fpm.conf", until=folder / "fpm.sock"):
        yield


@pytest.fixture
def folder() -> Iterator[Path]:
    """A folder with a short name: the path of a socket has 107 bytes at most."""
    with tempfile.TemporaryDirectory() as made:
        yield Path(made)


@pytest.fixture(params=["proxy_pass", "fastcgi_pass"])
def server(request: pytest.FixtureRequest, authority: Authority, folder: Path) -> Iterator[Server]:
    """nginx with the authority under /spa."""
    replaced = {"http://127.0.0.1:41741": authority.url, "unix:/run/php/php8.2-fpm.sock": f"unix:{folder}/fpm.sock"}
    # A link, because nginx would want its blanks quoted.
    (folder / "pages").symlink_to(AUTHORITY / "pages")
    replaced |= {"/srv/authority": str(folder), "/srv/spa": str(authority.data)}
    location = snippet(request.param)
    for shown, real in replaced.items():
        location = location.replace(shown, real)
    with php_fpm(folder), nginx(folder, location):
        yield Server(folder, authority.password)


def named_address(answer: str) -> str:
    """The address of the authority in a configuration file that it answers."""
    return options(records(answer)[0]["returnvalue"])["spa"]["url"]


def test_the_address_under_a_path_is_named_whole(server: Server) -> None:
    form = ("action=create", "agentid=0", "configfiletemplateid=1")
    for scheme, version in [("http", "1.1"), ("https", "1.1"), ("https", "2")]:
        answer = server.page(scheme, "/spa/ws_configfile.php", version, *form)
        assert named_address(answer) == f"{scheme}://{SITE}/spa", version
    for version in ("1.1", "2"):
        answer = server.channel("/spa/vrmo.php", version, "create&agentid=0&configfiletemplateid=1")
        assert named_address(answer) == f"vrmo://{SITE}/spa/vrmo.php", version


def test_the_page_for_people_is_there_as_well(server: Server) -> None:
    server.page("https", "/spa/ws_storagepool.php", "1.1", "action=discover")
    for version in ("1.1", "2"):
        shown = server.watch("/spa/watch.php", version)
        assert "<title>Storage pool authority</title>" in shown and ">discover</td>" in shown
