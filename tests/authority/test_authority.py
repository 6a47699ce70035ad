"""The reference authority, tried over HTTP, TLS and the channel, and its scripts."""

from __future__ import annotations

import base64
import concurrent.futures
import http.client
import os
import re
import signal
import socket
import sqlite3
import ssl
import stat
import subprocess
import threading
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from urllib.parse import urlsplit

import pytest

AUTHORITY = Path(__file__).resolve().parents[2] / "authority"
TIMEOUT_S = 30
TEMPLATES = (1, 2, 3, 6)
PASSWORD = re.compile(r"[A-Za-z0-9_-]{32}")
HOST = socket.gethostname()
ERROR_BLOCK = re.compile(
    r"\*\*\*ERROR\*\*\*\n(\d+)\nseverity: (\d)\nserver: (\S+)\nsource: (\S+)\ndescription: (.*)\n\*\*\*DONE\*\*\*\n"
)
REGISTRATION = {
    "action": "register",
    "agentid": "0",
    "isServerAgent": "0",
    "macAddress": "000000000000",
    "agentVersion": "6.6.0.12345",
    "version": "6.6.0.12345",
    "osvariantid": "0",
    "osType": "20",
    "osextensions": "",
    "hostName": "host.example",
    "type": "0",
}
NOT_A_NUMBER = "must be a decimal number of at most 18 digits."
NO_FORM = "The request holds no form fields; they come as a multipart POST."


# Requests and answers


@dataclass
class Reply:
    """One HTTP reply."""

    status: int
    headers: http.client.HTTPMessage
    text: str


def request(url: str, body: bytes | None, headers: dict[str, str], trusted: Path | None = None) -> Reply:
    """Sends one request, a GET when there is no body; over TLS only the trusted certificate is accepted."""
    parts = urlsplit(url)
    if parts.scheme == "https":
        context = ssl.create_default_context(cafile=str(trusted))
        connection = http.client.HTTPSConnection(parts.netloc, timeout=TIMEOUT_S, context=context)
    else:
        connection = http.client.HTTPConnection(parts.netloc, timeout=TIMEOUT_S)
    try:
        target = parts.path + ("?" + parts.query if parts.query else "")
        connection.request("GET" if body is None else "POST", target, body, headers)
        reply = connection.getresponse()
        return Reply(reply.status, reply.headers, reply.read().decode())
    finally:
        connection.close()


def multipart(fields: dict[str, str]) -> tuple[bytes, str]:
    """The fields as a form body, and its content type."""
    boundary = "part-8d1f0c5e"
    parts = [
        f'--{boundary}\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n{value}\r\n'
        for name, value in fields.items()
    ]
    body = "".join(parts) + f"--{boundary}--\r\n"
    return body.encode("utf-8", "surrogateescape"), f"multipart/form-data; boundary={boundary}"


def unescape(value: str) -> str:
    """Undoes the escapes of a value."""
    plain = {"\\\\": "\\", "\\n": "\n", "\\r": "\r", "\\t": "\t"}
    return re.sub(
        r"\\(?:[\\nrt]|x[0-9a-f]{2})", lambda hit: plain.get(hit[0]) or chr(int(hit[0][2:], 16)), value
    )


def records(text: str) -> list[dict[str, str]]:
    """The records of a data answer, whose layout is checked on the way."""
    lines = text.split("\n")
    assert lines[0] == "***BEGIN***" and lines[-2:] == ["***DONE***", ""], text
    names, types, rows = lines[2].split("|"), lines[3].split("|"), lines[4:-2]
    assert int(lines[1]) == len(rows) and len(names) == len(types)
    assert all(row.count("|") == len(names) - 1 for row in rows)
    return [dict(zip(names, map(unescape, row.split("|")))) for row in rows]


def refusal(text: str) -> tuple[int, str]:
    """Number and description of an error block, which must be the whole text."""
    match = ERROR_BLOCK.fullmatch(text)
    assert match is not None, text
    number, severity, server, _, description = match.groups()
    assert (severity, server) == ("7" if number == "1" else "5", HOST)
    return int(number), description


# The authority, running


def start(*command: str | Path, umask: int = 0o022) -> tuple[subprocess.Popen[str], str]:
    """Starts a script; returns it with the address in the one line that it prints when it is ready."""
    # A run of tests that is killed must leave no server behind.
    process = subprocess.Popen(
        ["setpriv", "--pdeathsig", "TERM", "--", *map(str, command)],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        umask=umask,
    )
    guard = threading.Timer(TIMEOUT_S, process.kill)
    guard.start()
    line = process.stdout.readline()
    guard.cancel()
    ready = re.fullmatch(r"(?:Authority|TLS) listening on (https?://127\.0\.0\.1:\d+)\n", line)
    if ready is None:
        process.kill()
        raise AssertionError(f"{line!r}, {process.communicate()}")
    return process, ready[1]


def stop(process: subprocess.Popen[str]) -> tuple[int, str, str]:
    """Ends a script; returns its status and what it printed after its first line."""
    process.terminate()
    rest, errors = process.communicate(timeout=TIMEOUT_S)
    return process.returncode, rest, errors


@dataclass
class Authority:
    """An authority that answers at an address and keeps its data in a directory."""

    url: str
    data: Path

    @property
    def password(self) -> str:
        """The administrator's password, from the file that `serve` made."""
        return (self.data / "admin.passwd").read_text().removeprefix("passwd=").rstrip("\n")

    def page(self, page: str, fields: dict[str, str], **headers: str) -> str:
        """The answer of a page to exactly these fields."""
        body, content_type = multipart(fields)
        reply = request(
            f"{self.url}/ws_{page}.php",
            body,
            {"Content-Type": content_type, **{name.replace("_", "-"): value for name, value in headers.items()}},
        )
        assert reply.status == 200 and reply.headers["Content-Type"] == "text/plain; charset=utf-8"
        return reply.text

    def ask(self, page: str, login: str = "admin", passwd: str | None = None, **fields: str) -> str:
        """The answer of a page to these fields and an account, the administrator's unless another is given."""
        return self.page(page, {"login": login, "passwd": self.password if passwd is None else passwd, **fields})

    def register(self, host: str = "host.example", **changes: str) -> dict[str, str]:
        """Registers a host; returns its record."""
        [record] = records(self.ask("agent", **{**REGISTRATION, "hostName": host, **changes}))
        return record

    def rows(self, sql: str) -> list[tuple]:
        """What a query finds in the database file."""
        connection = sqlite3.connect(f"file:{self.data}/authority.sqlite?mode=ro", uri=True)
        try:
            return connection.execute(sql).fetchall()
        finally:
            connection.close()

    def show(self, *sections: str) -> str:
        """What `show` prints."""
        command = [AUTHORITY / "show", "--data", self.data, *sections]
        return subprocess.run(command, capture_output=True, text=True, check=True, timeout=TIMEOUT_S).stdout


@pytest.fixture
def authority(tmp_path: Path) -> Iterator[Authority]:
    """A fresh authority of this case alone; it must print nothing but its address."""
    process, url = start(AUTHORITY / "serve", "--data", tmp_path / "spa")
    try:
        yield Authority(url, tmp_path / "spa")
    finally:
        assert stop(process) == (0, "", "")


@dataclass
class Front:
    """A TLS front of an authority."""

    url: str
    certificate: Path
    authority: Authority

    def channel(self, text: str, login: str = "admin", passwd: str | None = None, **changes: str | None) -> Reply:
        """Sends a request text as the channel's client does; changes replace headers or, as None, drop them."""
        passwd = self.authority.password if passwd is None else passwd
        credentials = base64.b64encode(f"{login}:{passwd}".encode()).decode()
        headers = {
            "Authorization": f"Basic {credentials}",
            "Content-Type": "application/octet-stream",
            "X-Quorvex-Request-Kind": "13",
            "X-Quorvex-Parameter": "action",
        }
        headers.update({name.replace("_", "-"): value for name, value in changes.items()})
        sent = {name: value for name, value in headers.items() if value is not None}
        return request(f"{self.url}/vrmo.php", text.encode(), sent, self.certificate)


def make_certificate(folder: Path) -> tuple[Path, Path]:
    """A self-signed certificate for the loopback address, and its key."""
    certificate, key = folder / "cert.pem", folder / "key.pem"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2"]
        + ["-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate],
        check=True,
        capture_output=True,
    )
    return certificate, key


@pytest.fixture
def front(authority: Authority, tmp_path: Path) -> Iterator[Front]:
    """A TLS front; its directories hold every character that a configuration could trip over."""
    folder = tmp_path / 'odd $host "q"; {x} \\'
    folder.mkdir()
    certificate, key = make_certificate(folder)
    process, url = start(
        *[AUTHORITY / "serve-tls", "--cert", certificate, "--key", key],
        *["--upstream", authority.url, "--data", folder / "tls"],
    )
    try:
        yield Front(url, certificate, authority)
    finally:
        assert stop(process) == (0, "", "")


def php(code: str, *arguments: str) -> str:
    """What a piece of PHP prints that uses the authority's classes."""
    command = ["php", "-r", f"namespace Quorvex\\Authority; require '{AUTHORITY}/lib/bootstrap.php'; {code}"]
    return subprocess.run(
        [*command, "--", *arguments], capture_output=True, text=True, check=True, timeout=TIMEOUT_S
    ).stdout


# Pools and routing tables


def test_discover_lists_the_pools_byte_for_byte(authority: Authority) -> None:
    assert authority.ask("storagepool", action="discover") == (
        "***BEGIN***\n2\nid|name\nI|S\n1|Primary pool\n2|Archive pool (Ghent\\x7cLyon)\n***DONE***\n"
    )


@pytest.mark.parametrize("pool", [1, 2])
def test_routing_tables_arrive_as_shipped(authority: Authority, pool: int) -> None:
    answer = authority.ask("agent", action="getRoutingTables", storagepoolId=str(pool))
    assert answer.split("\n")[1:4] == ["1", "cr_recommendedrt|cr_currentrt", "S|S"]
    for column, ending in (("cr_recommendedrt", "recommended"), ("cr_currentrt", "current")):
        shipped = (AUTHORITY / "pools" / f"{pool}.{ending}").read_bytes().decode()
        assert {"|", "\\", "\t", "\n"} <= set(shipped)
        assert records(answer)[0][column] == shipped


@pytest.mark.parametrize(
    ("fields", "expected"),
    [
        ({"storagepoolId": "3"}, (7, "There is no storage pool with the id 3.")),
        ({"storagepoolId": "0"}, (7, "There is no storage pool with the id 0.")),
        ({"storagepoolId": "one"}, (6, f'The field "storagepoolId" {NOT_A_NUMBER}')),
        ({"storagepoolId": "-1"}, (6, f'The field "storagepoolId" {NOT_A_NUMBER}')),
        ({}, (6, 'The field "storagepoolId" is missing.')),
        ({"storagepoolId": "1", "id": "9"}, (7, "There is no agent with the id 9.")),
        ({"storagepoolId": "1", "id": ""}, (6, f'The field "id" {NOT_A_NUMBER}')),
    ],
)
def test_routing_tables_are_refused(authority: Authority, fields: dict[str, str], expected: tuple[int, str]) -> None:
    assert refusal(authority.ask("agent", action="getRoutingTables", **fields)) == expected


# Registration


def test_registration_gives_an_id_and_a_system_account(authority: Authority) -> None:
    answer = authority.ask("agent", **REGISTRATION)
    assert re.fullmatch(
        r"\*\*\*BEGIN\*\*\*\n1\nagentid\|login\|password\nI\|S\|S\n1\|agent1\|[A-Za-z0-9_-]{32}\n\*\*\*DONE\*\*\*\n",
        answer,
    )
    [record] = records(answer)
    assert records(authority.ask("storagepool", "agent1", record["password"], action="discover"))
    columns = "host_name, agent_type, is_server_agent, mac_address, agent_version, os_variant_id, os_type"
    assert authority.rows(f"SELECT {columns} FROM agents") == [
        ("host.example", 0, 0, "000000000000", "6.6.0.12345", 0, 20)
    ]


def test_a_host_that_registers_again_keeps_its_id_and_gets_a_new_password(authority: Authority) -> None:
    authority.register("other.example")
    first = authority.register("host.example")
    again = authority.register("HOST.example", type="3")
    assert (first["agentid"], again["agentid"], again["login"]) == ("2", "2", "agent2")
    assert refusal(authority.ask("storagepool", "agent2", first["password"], action="discover"))[0] == 3
    assert records(authority.ask("storagepool", "agent2", again["password"], action="discover"))
    assert authority.rows("SELECT id, agent_type FROM agents ORDER BY id") == [(1, 0), (2, 3)]


def test_an_agent_is_renewed_by_its_id_under_another_host_name(authority: Authority) -> None:
    authority.register("old.example")
    assert authority.register("new.example", agentid="1")["agentid"] == "1"
    assert authority.rows("SELECT id, host_name FROM agents") == [(1, "new.example")]


def test_registration_under_an_unknown_id_stores_nothing(authority: Authority) -> None:
    answer = authority.ask("agent", **{**REGISTRATION, "agentid": "7"})
    assert refusal(answer) == (7, "There is no agent with the id 7.")
    assert authority.rows("SELECT count(*) FROM agents") == [(0,)]


def test_an_agent_cannot_take_the_host_name_of_another(authority: Authority) -> None:
    authority.register("a.example")
    authority.register("b.example")
    answer = authority.ask("agent", **{**REGISTRATION, "agentid": "2", "hostName": "A.example"})
    assert refusal(answer) == (8, 'The host "A.example" is registered as another agent.')


def test_only_an_administrator_registers(authority: Authority) -> None:
    agent = authority.register()
    answer = authority.ask("agent", "agent1", agent["password"], **{**REGISTRATION, "hostName": "x"})
    assert refusal(answer) == (4, "Only an administrator may register agents.")
    assert authority.rows("SELECT count(*) FROM agents") == [(1,)]


@pytest.mark.parametrize("name", sorted(set(REGISTRATION) - {"macAddress", "agentVersion"}))
def test_registration_names_the_missing_field(authority: Authority, name: str) -> None:
    fields = {key: value for key, value in REGISTRATION.items() if key != name}
    assert refusal(authority.ask("agent", **fields)) == (6, f'The field "{name}" is missing.')


def test_registration_goes_without_hardware_address_and_agent_version(authority: Authority) -> None:
    fields = {key: value for key, value in REGISTRATION.items() if key not in ("macAddress", "agentVersion")}
    assert records(authority.ask("agent", **{**fields, "version": ""}))[0]["agentid"] == "1"


BAD_FIELDS = [
    ("agentid", ["", "-1", "1x", "01", " 1", "1\n", "1e3", "9" * 19], "a decimal number of at most 18 digits"),
    ("isServerAgent", ["", "2", "yes", "1\n"], "0 or 1"),
    ("macAddress", ["", "00000000000", "0000000000000", "00000000000g", "000000000000\n"], "twelve hexadecimal digits"),
    ("osType", ["", "Linux"], "a decimal number of at most 18 digits"),
    ("osvariantid", ["x"], "a decimal number of at most 18 digits"),
    ("type", ["", "4", "00", "agent", "0\n"], "0, 1, 2 or 3"),
    (
        "hostName",
        ["", "a b", "a\n", "a\nb", "a\x00", "-a", "a;b", "ü", "x" * 256],
        "a host name of at most 255 letters, digits, dots, hyphens and underscores",
    ),
    (
        "agentVersion",
        ["", "1\t2", "1\n", "x" * 256, "\udcff"],
        "one line of 1 to 255 characters in UTF-8 without control characters",
    ),
    (
        "osextensions",
        ["\x1b[0m", "x" * 256],
        "one line of at most 255 characters in UTF-8 without control characters",
    ),
]


def test_registration_refuses_bad_values(authority: Authority) -> None:
    for name, values, rule in BAD_FIELDS:
        for value in values:
            answer = authority.ask("agent", **{**REGISTRATION, name: value})
            assert refusal(answer) == (6, f'The field "{name}" must be {rule}.'), (name, value)
    assert authority.rows("SELECT count(*) FROM agents") == [(0,)]


def test_parallel_registrations_of_many_hosts_get_distinct_ids(authority: Authority) -> None:
    hosts = [f"host{n}.example" for n in range(16)]
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        answers = list(pool.map(authority.register, hosts))
    assert sorted(int(answer["agentid"]) for answer in answers) == list(range(1, 17))
    assert len({answer["password"] for answer in answers}) == 16
    for host, answer in zip(hosts, answers):
        assert authority.rows(f"SELECT host_name FROM agents WHERE id = {answer['agentid']}") == [(host,)]


def test_parallel_registrations_of_one_host_make_one_agent(authority: Authority) -> None:
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        answers = list(pool.map(authority.register, ["host.example"] * 8))
    assert {answer["agentid"] for answer in answers} == {"1"}
    logins = [authority.ask("storagepool", "agent1", answer["password"], action="discover") for answer in answers]
    assert sum(login.startswith("***BEGIN***") for login in logins) == 1


def test_only_one_registration_at_a_time_reads_what_it_then_writes(tmp_path: Path) -> None:
    code = """$first = Store::create($argv[1]);
        $second = Store::open($argv[1]);
        $second->rows('PRAGMA busy_timeout = 0');
        $first->atomically(fn () => $second->atomically(fn () => print('read at the same time')));"""
    with pytest.raises(subprocess.CalledProcessError) as failure:
        php(code, str(tmp_path))
    assert "database is locked" in failure.value.stderr and failure.value.stdout == ""


# Configuration files

PATHS = "var keydir log temp snapshots rtdir pid progressdir resourcebundles".split()
PATH_OPTIONS = {
    1: {"paths": PATHS},
    2: {"paths": PATHS},
    3: {
        "ContentRouter": ["RouteTableLocation", "PrevRouteTableLocation"],
        "Logging": ["LogPath"],
        "Spooler": ["Path"],
        "StorageDaemon": ["Storage", "Path", "ProcessedPath", "HistoryPath", "TmpPath", "DelLogPath"],
        "SSL": ["CertFileName", "PrivateKeyFileName"],
        "paths": ["keydir"],
    },
    6: {"paths": PATHS},
}


def options(text: str) -> dict[str, dict[str, str]]:
    """Sections and options of a configuration file."""
    sections: dict[str, dict[str, str]] = {}
    current: dict[str, str] = {}
    for line in text.splitlines():
        if line.startswith("["):
            current = sections.setdefault(line[1:-1], {})
        elif line and line[0] not in "#;":
            key, _, value = line.partition("=")
            current[key.strip()] = value.strip()
    return sections


@pytest.mark.parametrize("template", TEMPLATES)
def test_a_configuration_file_is_the_template_filled_in(authority: Authority, template: int) -> None:
    authority.register()
    answer = authority.ask("configfile", action="create", agentid="1", configfiletemplateid=str(template))
    assert answer.split("\n")[1:4] == ["1", "returnvalue", "S"]
    content = records(answer)[0]["returnvalue"]
    shipped = (AUTHORITY / "templates" / f"{template}.cfg").read_text()
    filled = {"@SPA_URL@": authority.url, "@AGENT_ID@": "1", "@SYSTEM_LOGIN@": "agent1"}
    for mark, value in filled.items():
        shipped = shipped.replace(mark, value)
    assert content == shipped
    assert options(content)["spa"]["url"] == authority.url
    assert options(content)["systemaccount"] == {"login": "agent1", "passwd": ""}
    assert template == 6 or options(content)["main"]["agentid"] == "1"


@pytest.mark.parametrize("template", TEMPLATES)
def test_templates_hold_every_path_relative_and_absolute_ones(template: int) -> None:
    text = (AUTHORITY / "templates" / f"{template}.cfg").read_text()
    sections = options(text)
    values = [sections[section][option] for section, names in PATH_OPTIONS[template].items() for option in names]
    assert {value.startswith("/") for value in values} == {True, False}
    assert re.search("^#", text, re.M) and re.search("^;", text, re.M)
    assert template not in (1, 2) or sections["paths"]["keydir"] == "keys"


def test_a_component_without_an_agent_has_the_id_0_and_no_login(authority: Authority) -> None:
    answer = authority.ask("configfile", action="create", agentid="0", configfiletemplateid="3")
    sections = options(records(answer)[0]["returnvalue"])
    assert (sections["main"]["agentid"], sections["systemaccount"]["login"]) == ("0", "")


@pytest.mark.parametrize(
    ("agent", "template", "expected"),
    [
        ("0", "4", (7, "There is no configuration file template with the id 4.")),
        ("0", "0", (7, "There is no configuration file template with the id 0.")),
        ("0", "", (6, f'The field "configfiletemplateid" {NOT_A_NUMBER}')),
        ("5", "1", (7, "There is no agent with the id 5.")),
        ("-5", "1", (6, f'The field "agentid" {NOT_A_NUMBER}')),
    ],
)
def test_a_configuration_file_is_refused(
    authority: Authority, agent: str, template: str, expected: tuple[int, str]
) -> None:
    answer = authority.ask("configfile", action="create", agentid=agent, configfiletemplateid=template)
    assert refusal(answer) == expected


@pytest.mark.parametrize(
    ("headers", "url"),
    [
        ({"Host": "spa.example:8080"}, "http://spa.example:8080"),
        ({"Host": "[::1]:8080"}, "http://[::1]:8080"),
        ({"X_Forwarded_Proto": "https", "X_Forwarded_Host": "spa.example"}, "https://spa.example"),
        ({"Host": "in", "X_Forwarded_Host": "out:81"}, "http://out:81"),
    ],
)
def test_the_address_is_the_one_that_the_client_used(authority: Authority, headers: dict[str, str], url: str) -> None:
    fields = {"login": "admin", "passwd": authority.password}
    fields |= {"action": "create", "agentid": "0", "configfiletemplateid": "1"}
    answer = authority.page("configfile", fields, **headers)
    assert options(records(answer)[0]["returnvalue"])["spa"]["url"] == url


@pytest.mark.parametrize("host", ["a b", "a/b", "a:port", "a\\x7c", "", "a=b"])
def test_a_host_name_that_is_none_never_reaches_a_file(authority: Authority, host: str) -> None:
    fields = {"login": "admin", "passwd": authority.password}
    fields |= {"action": "create", "agentid": "0", "configfiletemplateid": "1"}
    answer = authority.page("configfile", fields, X_Forwarded_Host=host)
    assert refusal(answer) == (2, "The request does not name the host that it is meant for.")


@pytest.mark.parametrize(
    ("peer", "url"),
    [
        ("127.0.0.1", "https://front"),
        ("127.9.9.9", "https://front"),
        ("::1", "https://front"),
        ("192.0.2.1", "http://spa"),
        ("", "http://spa"),
    ],
)
def test_forwarded_headers_count_from_loopback_only(peer: str, url: str) -> None:
    code = """echo (new Origin(['REMOTE_ADDR' => $argv[1], 'HTTP_HOST' => 'spa', 'HTTP_X_FORWARDED_PROTO' => 'https',
        'HTTP_X_FORWARDED_HOST' => 'front']))->webUrl();"""
    assert php(code, peer) == url


# Data selections


def test_a_data_selection_is_stored_as_it_came(authority: Authority) -> None:
    authority.register()
    rules = 'include /home\r\nexclude "*|\\tmp"\té=&'
    answer = authority.ask(
        "dataselection", action="createDS", agentid="1", dstypeid="2", dataselection=rules, name="häuser | 1"
    )
    assert answer == "***BEGIN***\n1\ndataselectionid\nI\n1\n***DONE***\n"
    stored = authority.rows("SELECT agent_id, name, type_id, rules FROM dataselections")
    assert stored == [(1, "häuser | 1", "2", rules)]


def test_a_data_selection_goes_without_type_and_rules(authority: Authority) -> None:
    authority.register()
    assert records(
        authority.ask("dataselection", action="createDS", agentid="1", dstypeid="", dataselection="", name="n")
    ) == [{"dataselectionid": "1"}]


def test_a_name_is_taken_for_one_agent_only(authority: Authority) -> None:
    authority.register("a")
    authority.register("b")
    fields = {"action": "createDS", "dstypeid": "", "dataselection": "", "name": "n ***DONE***"}
    ids = [records(authority.ask("dataselection", agentid=agent, **fields)) for agent in ("1", "2")]
    assert ids == [[{"dataselectionid": "1"}], [{"dataselectionid": "2"}]]
    answer = authority.ask("dataselection", agentid="2", **fields)
    assert refusal(answer) == (8, "The agent 2 has a data selection of this name already.")


ONE_LINE = "one line of 1 to 255 characters in UTF-8 without control characters"
ANY_TEXT = "a text of at most 65535 characters in UTF-8 without control characters"


@pytest.mark.parametrize(
    ("changes", "expected"),
    [
        ({"agentid": ""}, (6, f'The field "agentid" {NOT_A_NUMBER}')),
        ({"agentid": "0"}, (7, "There is no agent with the id 0.")),
        ({"agentid": "2"}, (7, "There is no agent with the id 2.")),
        ({"name": ""}, (6, f'The field "name" must be {ONE_LINE}.')),
        ({"name": "a\nb"}, (6, f'The field "name" must be {ONE_LINE}.')),
        ({"dstypeid": "x"}, (6, 'The field "dstypeid" must be empty or a decimal number of at most 18 digits.')),
        ({"dataselection": "\x00"}, (6, f'The field "dataselection" must be {ANY_TEXT}.')),
        ({"dataselection": "\udcff"}, (6, f'The field "dataselection" must be {ANY_TEXT}.')),
        ({"dataselection": "x" * 65536}, (6, f'The field "dataselection" must be {ANY_TEXT}.')),
    ],
)
def test_a_data_selection_is_refused(
    authority: Authority, changes: dict[str, str], expected: tuple[int, str]
) -> None:
    authority.register()
    fields = {"agentid": "1", "dstypeid": "1", "dataselection": "", "name": "n"}
    assert refusal(authority.ask("dataselection", action="createDS", **{**fields, **changes})) == expected


@pytest.mark.parametrize("name", ["agentid", "dstypeid", "dataselection", "name"])
def test_a_data_selection_names_the_missing_field(authority: Authority, name: str) -> None:
    fields = {"agentid": "1", "dstypeid": "1", "dataselection": "", "name": "n"}
    del fields[name]
    answer = authority.ask("dataselection", action="createDS", **fields)
    assert refusal(answer) == (6, f'The field "{name}" is missing.')


# Accounts


def test_a_system_account_serves_its_own_agent_only(authority: Authority) -> None:
    password = authority.register("a")["password"]
    authority.register("b")
    requests = [
        ("agent", "id", {"action": "getRoutingTables", "storagepoolId": "1"}),
        ("configfile", "agentid", {"action": "create", "configfiletemplateid": "1"}),
        ("dataselection", "agentid", {"action": "createDS", "dstypeid": "", "dataselection": "", "name": "n"}),
    ]
    denied = (4, 'The account "agent1" may act for its own agent only.')
    for page, field, fields in requests:
        assert records(authority.ask(page, "agent1", password, **{**fields, field: "1"}))
        for other in ("2", "99"):
            assert refusal(authority.ask(page, "agent1", password, **{**fields, field: other})) == denied
    assert records(authority.ask("agent", "agent1", password, action="getRoutingTables", storagepoolId="1"))


def test_failed_logins_look_alike_whether_the_login_exists_or_not(authority: Authority) -> None:
    right = authority.password
    attempts = [
        ("admin", "wrong"),
        ("admin", ""),
        ("admin", right + "x"),
        ("admin", right + "\x00"),
        ("admin", right.lower()),
        ("Admin", right),
        ("nobody", right),
        ("", ""),
        ("' OR 1=1 --", "x"),
    ]
    answers = {authority.ask("storagepool", login, passwd, action="discover") for login, passwd in attempts}
    assert answers == {
        f"***ERROR***\n3\nseverity: 5\nserver: {HOST}\nsource: ws_storagepool.php\n"
        "description: Login failed\n***DONE***\n"
    }


def test_an_unknown_login_is_not_refused_faster(authority: Authority) -> None:
    def fastest(login: str) -> float:
        times = []
        for _ in range(5):
            before = time.perf_counter()
            authority.ask("storagepool", login, "wrong", action="discover")
            times.append(time.perf_counter() - before)
        return min(times)

    # Hashing takes tens of milliseconds, all the rest of a request a few.
    assert fastest("nobody") > fastest("admin") / 2


def test_a_password_counts_to_its_last_byte(tmp_path: Path) -> None:
    longest = "x" * 72
    (tmp_path / "passwd").write_text(f"# the administrator's\nspa passwd={longest}\npasswd=other\n")
    process, url = start(AUTHORITY / "serve", "--data", tmp_path / "d", "--passwd-file", tmp_path / "passwd")
    try:
        authority = Authority(url, tmp_path / "d")
        assert records(authority.ask("storagepool", passwd=longest, action="discover"))
        assert refusal(authority.ask("storagepool", passwd=longest + "y", action="discover"))[0] == 3
        assert not (tmp_path / "d" / "admin.passwd").exists()
    finally:
        stop(process)


# What every page refuses


@pytest.mark.parametrize("page", ["storagepool", "agent", "configfile", "dataselection"])
def test_every_page_checks_the_login_first(authority: Authority, page: str) -> None:
    for fields, expected in [
        ({"passwd": "x", "action": "bad"}, (6, 'The field "login" is missing.')),
        ({"login": "x", "action": "bad"}, (6, 'The field "passwd" is missing.')),
        ({"login": "x", "passwd": "x"}, (3, "Login failed")),
        ({"login": "admin", "passwd": authority.password}, (6, 'The field "action" is missing.')),
    ]:
        answer = authority.page(page, fields)
        assert refusal(answer) == expected
        assert f"\nsource: ws_{page}.php\n" in answer


def test_a_page_has_its_own_actions_only(authority: Authority) -> None:
    pages = {
        "storagepool": "discover",
        "agent": "register, getRoutingTables",
        "configfile": "create",
        "dataselection": "createDS",
    }
    for page, actions in pages.items():
        others = set(", ".join(pages.values()).split(", ")) - set(actions.split(", "))
        for action in others | {"", "Discover", "__construct"}:
            answer = authority.ask(page, action=action)
            assert refusal(answer) == (5, f"This page has no such action; it has: {actions}.")


def test_a_get_is_refused_whatever_its_query_holds(authority: Authority) -> None:
    for query in ("", f"?login=admin&passwd={authority.password}&action=discover"):
        reply = request(f"{authority.url}/ws_storagepool.php{query}", None, {})
        assert refusal(reply.text) == (2, NO_FORM)
    assert authority.password not in (authority.data / "server.log").read_text()


def test_bodies_that_are_no_form_are_refused(authority: Authority) -> None:
    for body, content_type in [
        (b"action=discover", "text/plain"),
        (b"garbage", "multipart/form-data; boundary=x"),
        (b"garbage", "multipart/form-data"),
        (b"", "application/x-www-form-urlencoded"),
        (b"login=admin&x=" + b"x" * (1 << 20), "application/x-www-form-urlencoded"),
    ]:
        reply = request(f"{authority.url}/ws_agent.php", body, {"Content-Type": content_type})
        assert refusal(reply.text) == (2, NO_FORM), (body[:20], content_type)


def test_a_list_in_place_of_a_text_is_refused(authority: Authority) -> None:
    for name in ("login", "passwd"):
        fields = {"login": "admin", "passwd": "x", "action": "discover"}
        fields[f"{name}[]"] = fields.pop(name)
        answer = authority.page("storagepool", fields)
        assert refusal(answer) == (6, f'The field "{name}" must be given once, as a text.')
    answer = authority.page(
        "agent", {"login": "admin", "passwd": authority.password, **REGISTRATION, "hostName[x]": "a"}
    )
    assert refusal(answer) == (6, 'The field "hostName" must be given once, as a text.')


def test_unknown_fields_are_ignored(authority: Authority) -> None:
    assert len(records(authority.ask("storagepool", action="discover", keydir="/etc/quorvex/keys", more="x"))) == 2


def test_answers_are_not_to_be_stored_on_the_way(authority: Authority) -> None:
    body, content_type = multipart({"login": "admin", "passwd": authority.password, **REGISTRATION})
    reply = request(f"{authority.url}/ws_agent.php", body, {"Content-Type": content_type})
    assert reply.headers["Cache-Control"] == "no-store"
    assert reply.headers["X-Powered-By"] is None


def test_a_failure_of_the_authority_is_an_error_block_and_its_cause_stays_in_the_log(authority: Authority) -> None:
    password = authority.password
    (authority.data / "authority.sqlite").write_text("this is no database\n" * 100)
    answer = authority.ask("storagepool", passwd=password, action="discover")
    assert refusal(answer) == (1, "The authority failed; its server.log says why.")
    log = (authority.data / "server.log").read_text()
    assert "file is not a database" in log and password not in log


# Escapes


@pytest.mark.parametrize(
    ("value", "escaped"),
    [
        ("", ""),
        ("plain ä", "plain ä"),
        ("a|b", "a\\x7cb"),
        ("a\\b", "a\\\\b"),
        ("\\x7c", "\\\\x7c"),
        ("\n\r\t", "\\n\\r\\t"),
        ("\x01\x1f\x7f", "\\x01\\x1f\\x7f"),
    ],
)
def test_values_are_escaped(value: str, escaped: str) -> None:
    assert php("echo Answer::escape($argv[1]);", value) == escaped
    assert unescape(escaped) == value


def test_a_value_that_looks_like_the_end_mark_does_not_end_the_records() -> None:
    text = php("echo Answer::data(['a' => 'S', 'b' => 'S'], [['***DONE***', '***DONE***'], ['*', '']]);")
    assert text == "***BEGIN***\n2\na|b\nS|S\n\\x2a**DONE***|***DONE***\n*|\n***DONE***\n"
    assert records(text)[0] == {"a": "***DONE***", "b": "***DONE***"}


def test_an_answer_without_records_keeps_its_layout() -> None:
    assert php("echo Answer::data(['a' => 'I'], []);") == "***BEGIN***\n0\na\nI\n***DONE***\n"


# Secrets


def test_passwords_are_nowhere_but_in_the_administrators_file(authority: Authority) -> None:
    secrets = [authority.password, "a-wrong-password", "typed-into-the-login"]
    secrets += [authority.register(host)["password"] for host in ("a", "a", "b")]
    authority.ask("storagepool", passwd="a-wrong-password", action="discover")
    authority.ask("storagepool", "typed-into-the-login", "x", action="discover")
    authority.ask("storagepool", action="discover", Passwd="a-wrong-password")
    authority.ask("storagepool", action="a-wrong-password")
    texts = {path.name: path.read_bytes() for path in authority.data.rglob("*") if path.is_file()}
    texts["show"] = authority.show().encode()
    assert b"Login failed" in texts["show"] and b"$2y$" not in texts["show"]
    assert texts.pop("admin.passwd") == f"passwd={secrets[0]}\n".encode()
    found = [(name, secret) for name, text in texts.items() for secret in secrets if secret.encode() in text]
    assert found == []


@pytest.mark.parametrize("umask", [0o000, 0o022])
def test_everything_kept_is_for_the_owner_alone(tmp_path: Path, umask: int) -> None:
    process, url = start(AUTHORITY / "serve", "--data", tmp_path / "new" / "spa", umask=umask)
    try:
        data = tmp_path / "new" / "spa"
        Authority(url, data).register()
        modes = {path.name: stat.S_IMODE(path.stat().st_mode) for path in [data, *data.iterdir()]}
    finally:
        stop(process)
    assert modes == {"spa": 0o700, "admin.passwd": 0o600, "authority.sqlite": 0o600, "server.log": 0o600}


# The scripts


def is_listening(url: str) -> bool:
    """Whether a server accepts connections at an address."""
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", urlsplit(url).port)) == 0


def wait_until_gone(url: str) -> None:
    """Returns once nobody listens at an address any more; it must not take long."""
    gone = threading.Event()
    for _ in range(TIMEOUT_S * 20):
        if not is_listening(url):
            return
        gone.wait(0.05)
    raise AssertionError(f"{url} still answers")


@pytest.mark.parametrize(
    ("number", "status"), [(signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGHUP, 0), (signal.SIGKILL, -9)]
)
def test_the_server_ends_with_its_script(tmp_path: Path, number: signal.Signals, status: int) -> None:
    process, url = start(AUTHORITY / "serve", "--data", tmp_path / "spa")
    process.send_signal(number)
    assert process.wait(TIMEOUT_S) == status
    wait_until_gone(url)


def test_a_second_start_keeps_the_data_and_the_password(tmp_path: Path) -> None:
    process, url = start(AUTHORITY / "serve", "--data", tmp_path / "spa")
    authority = Authority(url, tmp_path / "spa")
    password, agent = authority.password, authority.register()
    stop(process)
    port = str(urlsplit(url).port)
    process, url = start(AUTHORITY / "serve", "--data", tmp_path / "spa", "--port", port, "--login", "second")
    try:
        assert url == authority.url
        assert authority.password == password
        for login in ("admin", "second"):
            assert records(authority.ask("storagepool", login, password, action="discover"))
        assert records(authority.ask("storagepool", "agent1", agent["password"], action="discover"))
        assert authority.register("another.example")["agentid"] == "2"
    finally:
        stop(process)


def run(script: str, *arguments: str | Path) -> tuple[int, str, str]:
    """Runs a script to its end."""
    command = [str(word) for word in (AUTHORITY / script, *arguments)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT_S)
    return done.returncode, done.stdout, done.stderr


def test_a_port_that_is_taken_is_reported(tmp_path: Path) -> None:
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = str(taken.getsockname()[1])
        status, printed, errors = run("serve", "--data", tmp_path / "spa", "--port", port)
    assert (status, printed) == (1, "")
    assert errors == f"serve: the server did not start; see {tmp_path}/spa/server.log\n"
    assert "Address already in use" in (tmp_path / "spa" / "server.log").read_text()


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        (["--passwd", "x"], "unknown option: --passwd (see serve --help)"),
        (["more"], "unknown option: more (see serve --help)"),
        (["--login"], "--login needs a value"),
        (["--port", "http"], "not a port: http"),
        (["--port", "65536"], "not a port: 65536"),
        (["--passwd-file", "/nonexistent/f"], "cannot read /nonexistent/f"),
        (["--login", "agent7"], '"agent7" cannot be the login of an administrator'),
        (["--login", "a:b"], '"a:b" cannot be the login of an administrator'),
    ],
)
def test_serve_refuses_bad_options(tmp_path: Path, arguments: list[str], message: str) -> None:
    assert run("serve", "--data", tmp_path / "spa", *arguments) == (1, "", f"serve: {message}\n")


@pytest.mark.parametrize(
    ("content", "message"),
    [
        ("", '{} has no line with "passwd="'),
        ("passwd=\n", "the password must be 1 to 72 bytes without control characters"),
        ("passwd=a\r\n", "the password must be 1 to 72 bytes without control characters"),
        (f"passwd={'x' * 73}\n", "the password must be 1 to 72 bytes without control characters"),
    ],
)
def test_serve_refuses_a_bad_password_file(tmp_path: Path, content: str, message: str) -> None:
    file = tmp_path / "passwd"
    file.write_bytes(content.encode())
    status, printed, errors = run("serve", "--data", tmp_path / "spa", "--passwd-file", file)
    assert (status, printed, errors) == (1, "", f"serve: {message.format(file)}\n")


def test_show_prints_every_section_as_a_table(authority: Authority) -> None:
    authority.register()
    authority.ask("dataselection", action="createDS", agentid="1", dstypeid="2", dataselection="a\n|\x1b", name="x")
    authority.ask(
        "dataselection", action="createDS", agentid="1", dstypeid="2", dataselection="a\n|b", name="homes"
    )
    day = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"
    assert authority.show("accounts") == (
        "== accounts ==\nlogin   role           agent_id\n------  -------------  --------\n"
        "admin   administrator\nagent1  agent          1\n"
    )
    assert re.search(rf"\n1   host\.example  0           0    .*  {day}\n$", authority.show("agents"))
    assert re.search(rf"\n1   1         homes  2        a\\n\|b  {day}\n$", authority.show("dataselections"))
    assert "\ncurrent routing table of pool 2:\n    # Routing table of pool 2, current\n" in authority.show("pools")
    assert "\ntemplate 6:\n    # Configuration of the storage pool authority itself.\n" in authority.show("templates")
    headings = re.findall("^== (.*) ==$", authority.show(), re.M)
    assert headings == ["accounts", "agents", "pools", "templates", "dataselections", "requests"]


def test_show_says_none_for_an_empty_section(authority: Authority) -> None:
    assert authority.show("agents") == "== agents ==\n(none)\n"


def test_show_refuses_what_it_does_not_know(tmp_path: Path) -> None:
    usage = "Usage: show [--data DIR] [accounts|agents|pools|templates|dataselections|requests]\n"
    assert run("show", "passwords") == (2, "", usage)
    status, printed, errors = run("show", "--data", tmp_path)
    assert (status, printed) == (1, "") and errors.startswith(f"show: cannot read {tmp_path}: ")
    assert list(tmp_path.iterdir()) == []


def test_requests_are_logged_with_their_fields_and_outcome(authority: Authority) -> None:
    authority.register()
    authority.ask("agent", action="getRoutingTables", storagepoolId="1", id="1")
    authority.ask("agent", passwd="wrong", action="getRoutingTables", storagepoolId="1")
    authority.ask("dataselection", action="createDS", agentid="1", dstypeid="", dataselection="é" * 300, name="")
    authority.ask("dataselection", action="createDS", agentid="1", dstypeid="", dataselection="é" * 300, name="n")
    assert authority.rows("SELECT page, action, login, fields, outcome FROM requests ORDER BY id") == [
        (
            "ws_agent.php",
            "register",
            "admin",
            "agentid=0 isServerAgent=0 macAddress=000000000000 agentVersion=6.6.0.12345 version=6.6.0.12345 "
            "osvariantid=0 osType=20 osextensions= hostName=host.example type=0",
            "done",
        ),
        ("ws_agent.php", "getRoutingTables", "admin", "storagepoolId=1 id=1", "done"),
        ("ws_agent.php", "", "", "", "Login failed"),
        ("ws_dataselection.php", "createDS", "admin", "agentid=1", f'The field "name" must be {ONE_LINE}.'),
        (
            "ws_dataselection.php",
            "createDS",
            "admin",
            f"agentid=1 name=n dstypeid= dataselection={'é' * 200}...",
            "done",
        ),
    ]


# TLS and the channel


def test_the_pages_answer_over_tls_with_their_own_address(front: Front) -> None:
    body, content_type = multipart(
        {"login": "admin", "passwd": front.authority.password}
        | {"action": "create", "agentid": "0", "configfiletemplateid": "1"}
    )
    spoofed = {"X-Forwarded-Host": "evil.example", "X-Forwarded-Proto": "http"}
    reply = request(
        f"{front.url}/ws_configfile.php", body, {"Content-Type": content_type, **spoofed}, front.certificate
    )
    assert options(records(reply.text)[0]["returnvalue"])["spa"]["url"] == front.url


def test_the_channel_performs_every_action(front: Front) -> None:
    fields = "".join(f"&{name}={value}" for name, value in REGISTRATION.items() if name != "action")
    texts = {
        "discover": [{"id": "1", "name": "Primary pool"}, {"id": "2", "name": "Archive pool (Ghent|Lyon)"}],
        f"register{fields}": [{"agentid": "1", "login": "agent1"}],
        "createDS&agentid=1&dataselection=a=b; c\n&dstypeid=&name=n": [{"dataselectionid": "1"}],
    }
    for text, expected in texts.items():
        reply = front.channel(text)
        assert (reply.status, reply.headers["X-Quorvex-Status"]) == (200, "0")
        assert [{key: row[key] for key in row if key != "password"} for row in records(reply.text)] == expected
    [tables] = records(front.channel("getRoutingTables&id=1&storagepoolId=2").text)
    assert tables["cr_currentrt"] == (AUTHORITY / "pools" / "2.current").read_bytes().decode()
    [created] = records(front.channel("create&agentid=1&configfiletemplateid=2").text)
    assert options(created["returnvalue"])["spa"]["url"] == front.url.replace("https", "vrmo")
    assert front.authority.rows("SELECT rules FROM dataselections") == [("a=b; c\n",)]


def test_the_channel_answers_like_the_pages(front: Front) -> None:
    page = front.authority.ask("storagepool", action="discover")
    assert front.channel("discover").text == page
    password = records(front.authority.ask("agent", **REGISTRATION))[0]["password"]
    refused = front.channel("getRoutingTables&id=2&storagepoolId=1", "agent1", password)
    assert refused.headers["X-Quorvex-Status"] == "0"
    assert refusal(refused.text) == (4, 'The account "agent1" may act for its own agent only.')


def test_the_channel_refuses_with_error_blocks_and_status_0(front: Front) -> None:
    actions = "discover, register, getRoutingTables, create, createDS"
    for reply, expected in [
        (front.channel("discover", passwd="wrong"), (3, "Login failed")),
        (front.channel("discover", Authorization=None), (3, "Login failed")),
        (front.channel("certificate"), (5, f"This page has no such action; it has: {actions}.")),
        (front.channel("&storagepoolId=1"), (5, f"This page has no such action; it has: {actions}.")),
        (front.channel("getRoutingTables"), (6, 'The field "storagepoolId" is missing.')),
    ]:
        assert (reply.status, reply.headers["X-Quorvex-Status"]) == (200, "0")
        assert refusal(reply.text) == expected
        assert "\nsource: vrmo.php\n" in reply.text


def test_malformed_channel_requests_get_status_1(front: Front) -> None:
    for reply, text in [
        (front.channel("discover", X_Quorvex_Request_Kind="12"), "Unknown request kind."),
        (front.channel("discover", X_Quorvex_Request_Kind=None), "Unknown request kind."),
        (front.channel("discover", X_Quorvex_Parameter="Action"), "Unknown parameter name."),
        (front.channel("discover", X_Quorvex_Parameter=None), "Unknown parameter name."),
        (front.channel(""), "The request holds no text."),
        (front.channel("createDS&name=a&b&agentid=1"), "A field of the request text has no value."),
        (front.channel("createDS&name=a&name=b"), "A field of the request text is given twice."),
        (front.channel("discover&action=create"), "A field of the request text is given twice."),
        (front.channel("discover&login=x"), "Credentials do not belong in the request text."),
        (front.channel("discover&passwd=x"), "Credentials do not belong in the request text."),
        (request(f"{front.url}/vrmo.php", None, {}, front.certificate), "A channel request is a POST."),
    ]:
        assert (reply.status, reply.headers["X-Quorvex-Status"], reply.text) == (200, "1", text + "\n")
    assert front.authority.rows("SELECT count(*) FROM requests") == [(0,)]


def test_the_channel_never_answers_without_tls(authority: Authority) -> None:
    plain = Front(authority.url, Path(), authority)
    for changes in ({}, {"X_Forwarded_Proto": "http"}, {"X_Forwarded_Proto": "HTTPS,http"}):
        reply = plain.channel("discover", **changes)
        assert reply.headers["X-Quorvex-Status"] == "1"
        assert reply.text == "The channel is served over TLS only.\n"


def test_the_channel_leaves_no_password_behind(front: Front) -> None:
    front.channel("discover", passwd="a-wrong-password")
    front.channel("discover&passwd=a-wrong-password")
    password = records(front.channel("&".join(["register", *map("=".join, list(REGISTRATION.items())[1:])])).text)[0][
        "password"
    ]
    folders = [front.authority.data, front.certificate.parent]
    for path in (path for folder in folders for path in folder.rglob("*") if path.is_file()):
        content = path.read_bytes()
        assert b"a-wrong-password" not in content and password.encode() not in content, path


def test_the_front_ends_with_its_script(authority: Authority, tmp_path: Path) -> None:
    certificate, key = make_certificate(tmp_path)
    command = [AUTHORITY / "serve-tls", "--cert", certificate, "--key", key, "--upstream", authority.url]
    for number, status in [(signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGKILL, -9)]:
        process, url = start(*command, "--data", tmp_path / f"tls{number}")
        process.send_signal(number)
        assert process.wait(TIMEOUT_S) == status
        wait_until_gone(url)


def test_serve_tls_refuses_bad_options(tmp_path: Path) -> None:
    certificate, key = make_certificate(tmp_path)
    good = {"--cert": certificate, "--key": key, "--upstream": "http://127.0.0.1:1", "--data": tmp_path / "tls"}
    for changes, message in [
        ({"--cert": tmp_path / "none"}, f"cannot read the certificate: {tmp_path}/none"),
        ({"--key": ""}, "cannot read the key: "),
        ({"--upstream": "https://127.0.0.1:1"}, "not the address of an authority: https://127.0.0.1:1"),
        ({"--upstream": "http://x; }"}, "not the address of an authority: http://x; }"),
        ({"--port": "-1"}, "not a port: -1"),
        ({"--more": "x"}, "unknown option: --more (see serve-tls --help)"),
        ({"--cert": key}, f"nginx did not start; see {tmp_path}/tls/nginx.log"),
    ]:
        words = [word for pair in {**good, **changes}.items() for word in pair]
        assert run("serve-tls", *words) == (1, "", f"serve-tls: {message}\n"), changes


# The README


def examples(readme: str) -> list[tuple[str, str]]:
    """Commands and what they print, from the console blocks that call the pages."""
    blocks = re.findall(r"^```console\n(.*?)^```$", readme, re.M | re.S)
    pairs = [re.split(r"^\$ ", block, flags=re.M)[1:] for block in blocks]
    return [tuple(example.split("\n", 1)) for block in pairs for example in block if re.search("curl|^spa ", example)]


def test_the_examples_of_the_readme_print_what_it_says(front: Front) -> None:
    readme = (AUTHORITY / "README.md").read_text()
    setup = re.search(r"^```sh\n(.*?)^```$", readme, re.M | re.S)[1]
    own = {"OWN_SPA": front.authority.url, "OWN_DATA": str(front.authority.data), "OWN_TLS": front.url}
    values = "DATA=$OWN_DATA SPA=$OWN_SPA TLS=$OWN_TLS"
    (front.authority.data / "cert.pem").write_bytes(front.certificate.read_bytes())
    found = examples(readme)
    assert len(found) == 8
    for command, expected in found:
        done = subprocess.run(
            ["bash", "-c", f"{setup}\n{values}\n{command}"], capture_output=True, text=True, env={**os.environ, **own}
        )
        printed = done.stdout.replace("\r", "").replace(front.authority.url, "http://127.0.0.1:41741")
        printed = printed.replace(f"server: {HOST}", "server: spa.example")
        assert PASSWORD.sub("PASSWORD", printed) == PASSWORD.sub("PASSWORD", expected), command
