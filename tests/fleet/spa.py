"""The machine with the reference authority: nginx with TLS and PHP-FPM, as the authority's README configures them."""

from __future__ import annotations

import re
import shutil
import sqlite3
import subprocess
from pathlib import Path
from typing import Any

from machines import Machine, run, until

ROOT = Path(__file__).resolve().parents[2]
NAME = "spa.example"
LOGIN = "admin"

_NGINX = """\
user www-data; daemon off; pid /run/nginx.pid; error_log /var/log/nginx.log; events {{}}
http {{
  access_log /var/log/access.log;
  client_body_temp_path /tmp/body; proxy_temp_path /tmp/proxy; fastcgi_temp_path /tmp/fastcgi;
  uwsgi_temp_path /tmp/uwsgi; scgi_temp_path /tmp/scgi;
  server {{
    listen 443 ssl;
    ssl_certificate /etc/spa/cert.pem; ssl_certificate_key /etc/spa/key.pem;
    {location}
  }}
}}
"""
_FPM = """\
[global]
error_log = /var/log/fpm.log
daemonize = no
[www]
user = www-data
group = www-data
listen = /run/php/php8.2-fpm.sock
listen.owner = www-data
pm = static
pm.max_children = 4
catch_workers_output = yes
"""


def make_certificate(folder: Path, name: str) -> Path:
    """A self-signed certificate for a server, and its key beside it."""
    folder.mkdir(parents=True, exist_ok=True)
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", f"/CN={name}", "-addext",
        f"subjectAltName=DNS:{name}", "-keyout", folder / "key.pem", "-out", folder / "cert.pem")  # fmt: skip
    return folder / "cert.pem"


class Authority:
    """The authority on its machine."""

    def __init__(self, machine: Machine, password: str) -> None:
        self.machine = machine
        self._servers: list[subprocess.Popen[str]] = []
        machine.make_disk()
        machine.identify()
        (machine.layer / "data").mkdir()
        machine.mkdir("srv/spa")
        machine.mkdir("run/php")
        shutil.copytree(ROOT / "authority", machine.disk / "srv/authority", ignore=shutil.ignore_patterns("data"))
        run("chmod", "-R", "a+rX", machine.disk / "srv")
        machine.write("etc/spa/admin.passwd", f"passwd={password}\n")
        self.certificate = make_certificate(machine.disk / "etc/spa", NAME)
        readme = (ROOT / "authority/README.md").read_text()
        [location] = re.findall(r"^```nginx\n([^`]*fastcgi_pass[^`]*)^```$", readme, re.M)
        machine.write("etc/spa/nginx.conf", _NGINX.format(location=location))
        machine.write("etc/spa/fpm.conf", _FPM)

    def switch_on(self) -> None:
        """Starts the machine, prepares the authority's data and serves."""
        self.machine.switch_on()
        self.machine.run("chown", "www-data:", "/srv/spa")
        self.machine.run("chmod", "700", "/srv/spa")
        seed = ("php", "-c", "/srv/authority/lib/php.ini", "/srv/authority/lib/seed.php", "/srv/spa", LOGIN)
        as_www = ("setpriv", "--reuid=www-data", "--regid=www-data", "--clear-groups")
        self.machine.run(*as_www, *seed, "/etc/spa/admin.passwd")
        self.serve()

    def serve(self) -> None:
        """Starts the servers."""
        [fpm] = [str(path) for path in Path("/usr/sbin").glob("php-fpm[0-9]*")]
        self._servers = [
            self.machine.start(fpm, "--fpm-config", "/etc/spa/fpm.conf"),
            self.machine.start("nginx", "-e", "/var/log/nginx.log", "-c", "/etc/spa/nginx.conf"),
        ]
        until(lambda: self.machine.listens(443), "the authority")

    def kill(self) -> None:
        """Kills the servers and all their workers, whatever they are doing."""
        self.machine.run("pkill", "-KILL", "-x", "nginx|php-fpm.*")
        for server in self._servers:
            server.wait(10)

    def turned_away(self) -> int:
        """How many connections the machine has refused or broken off."""
        names, numbers = re.findall(r"^Tcp: (.*)$", self.machine.run("cat", "/proc/net/snmp"), re.M)
        return int(dict(zip(names.split(), numbers.split(), strict=True))["OutRsts"])

    def rows(self, sql: str, *values: object) -> list[tuple[Any, ...]]:
        """What a query finds in the database."""
        connection = sqlite3.connect(f"file:{self.machine.layer}/data/authority.sqlite?mode=ro", uri=True, timeout=20)
        try:
            return connection.execute(sql, values).fetchall()
        finally:
            connection.close()

    def agents(self) -> dict[str, int]:
        """The registered hosts and their agents' ids."""
        return {str(name): int(number) for name, number in self.rows("SELECT host_name, id FROM agents")}

    def requests(self) -> int:
        """How many requests were answered so far."""
        return int(self.rows("SELECT coalesce(max(id), 0) FROM requests")[0][0])

    def requests_since(self, number: int, action: str = "%") -> list[tuple[str, str]]:
        """Action and outcome of the requests after that many."""
        sql = "SELECT action, outcome FROM requests WHERE id > ? AND action LIKE ? ORDER BY id"
        return [(str(asked), str(outcome)) for asked, outcome in self.rows(sql, number, action)]
