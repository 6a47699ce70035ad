"""The "vrmo://" channel: one verified HTTPS request per call."""

from __future__ import annotations

import base64
import shutil
import ssl
from pathlib import Path
from typing import Iterator, Mapping, Optional, Sequence

import pytest

from harness.answers import agent_answer, config_answer, empty_answer, error_answer, routing_answer
from harness.authority import Authority, port_of, tls_front
from harness.config_model import provisioned
from harness.credentials import CredentialFile
from harness.messages import (
    NOT_PARSED,
    REQUEST_FAILED,
    STATUS_FAILED,
    call_failed,
    completed,
    error_returned,
    written_to,
)
from harness.passwords import KEY_FILE, decrypt
from harness.raw_server import RawServer, Request, http_answer, refusing_port
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.templates import AGENT_TEMPLATE, agent_provisioned, stored_option
from harness.tls_files import CertificateAuthority, ServerFiles

KEY = b"the host's key file"
SUCCESS = Result(0, b"", completed("discover"))
ACCOUNT = ("--login", "admin", "--passwd", "secret")
NOT_INITIALIZED = b"Can't initialize webservice.\n"


def failure(*messages: bytes) -> Result:
    """A discover whose call failed behind these messages."""
    return Result(EXIT_FAILURE, b"", call_failed("discover", *messages))


@pytest.fixture
def ca(tmp_path: Path) -> CertificateAuthority:
    """The authority that signed the servers' certificates."""
    return CertificateAuthority(tmp_path / "ca")


@pytest.fixture
def server_files(ca: CertificateAuthority) -> ServerFiles:
    """A server's certificate that is in order."""
    return ca.server()


@pytest.fixture
def trusting(host: Host, ca: CertificateAuthority) -> Host:
    """A machine with the servers' issuer in its plugin directory and an agent installed."""
    certs = host.etc_quorvex / "certs"
    certs.mkdir()
    shutil.copy(ca.file, certs / "127.0.0.1.pem")
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(host.work))
    return host


def reply(text: bytes = empty_answer(), status: Optional[str] = "0", http_status: str = "200 OK") -> bytes:
    """The channel's reply; without a status its header is missing."""
    headers = [f"X-Quorvex-Status: {status}"] if status is not None else []
    return http_answer(text, http_status, headers)


def discover(host: Host, url: str, *more: str, environment: Optional[Mapping[str, str]] = None) -> Result:
    """Runs discover with a login and a password."""
    return host.run("--action", "discover", "--url", url, *ACCOUNT, *more, environment=environment)


def discover_from(host: Host, files: ServerFiles, answer: bytes) -> Result:
    """Runs discover over the channel against a server that answers once, with this."""
    with RawServer([answer], tls=files.context()) as server:
        return discover(host, f"vrmo://127.0.0.1:{server.port}")


def check_request(request: Request, text: str, target: str = "/vrmo.php", account: str = "admin:secret") -> None:
    """Checks one request of the channel: line, headers and body."""
    assert request.secure
    assert request.request_line == f"POST {target} HTTP/1.1"
    headers = request.headers
    assert headers.pop("host").startswith("127.0.0.1:")
    assert headers.pop("accept", "*/*") == "*/*"
    assert headers == {
        "authorization": "Basic " + base64.b64encode(account.encode()).decode(),
        "content-type": "application/octet-stream",
        "content-length": str(len(text.encode())),
        "x-quorvex-request-kind": "13",
        "x-quorvex-parameter": "action",
    }
    assert request.body == text.encode()


def test_discover_is_one_request(trusting: Host, server_files: ServerFiles) -> None:
    with RawServer([reply()], tls=server_files.context()) as server:
        assert discover(trusting, f"vrmo://127.0.0.1:{server.port}", "--keydir", "/not/sent") == SUCCESS
    check_request(server.only_request(), "discover")


@pytest.mark.parametrize(
    "path, target", [("/", "/vrmo.php"), ("/own/path", "/own/path"), ("/own/?a=b", "/own/?a=b")]
)
def test_a_path_of_the_address_is_kept(
    trusting: Host, server_files: ServerFiles, path: str, target: str
) -> None:
    with RawServer([reply()], tls=server_files.context()) as server:
        assert discover(trusting, f"vrmo://127.0.0.1:{server.port}{path}") == SUCCESS
    check_request(server.only_request(), "discover", target)


def test_register_is_two_requests(trusting: Host, server_files: ServerFiles) -> None:
    replies = [reply(agent_answer()), reply(config_answer(AGENT_TEMPLATE))]
    with RawServer(replies, tls=server_files.context()) as server:
        url = f"vrmo://127.0.0.1:{server.port}"
        options = ("--hostname", "web01", "--agentType", "0", "--url", url, "--todisk")
        result = trusting.run("--action", "register", "--type", "Agent", *options, *ACCOUNT)
    assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("register"))
    text = (
        "register&agentVersion=6.6.0.12345&agentid=0&hostName=web01&isServerAgent=0&macAddress=000000000000"
        "&osType=20&osextensions=&osvariantid=0&type=0&version=6.6.0.12345"
    )
    check_request(server.requests[0], text)
    check_request(server.requests[1], "create&agentid=42&configfiletemplateid=1")
    stored = stored_option(trusting.etc_quorvex / "Agent.cfg", "passwd")
    assert decrypt(KEY, stored) == b"s3cret"
    expected = agent_provisioned(trusting.work, ("agent_42", stored.decode()))
    assert (trusting.etc_quorvex / "Agent.cfg").read_bytes() == expected


def stored_account(host: Host, server: RawServer) -> None:
    """Writes the credential file of an agent that talks over the channel."""
    url = f"vrmo://127.0.0.1:{server.port}"
    CredentialFile(host.etc_quorvex / "Agent.cfg", url, keydir=str(host.work)).write()


def test_routing_tables_are_one_request(trusting: Host, server_files: ServerFiles) -> None:
    with RawServer([reply(routing_answer("r", "c"))], tls=server_files.context()) as server:
        stored_account(trusting, server)
        options = ("--storagepoolid", "3", "--agentid", "42")
        result = trusting.run("--action", "routingtables", "--type", "Agent", *options)
    assert result == Result(0, b"rc", completed("routingtables"))
    check_request(server.only_request(), "getRoutingTables&id=42&storagepoolId=3", account="agent_42:s3cret")


def test_a_data_selection_is_one_request_without_any_escapes(trusting: Host, server_files: ServerFiles) -> None:
    with RawServer([reply()], tls=server_files.context()) as server:
        stored_account(trusting, server)
        options = ("--dsname", "a&b=c", "--dstypeid", "4", "--dsrules", "include /ä\nexclude %20")
        result = trusting.run("--action", "createds", "--type", "Agent", *options)
    assert result == Result(0, b"", completed("createds"))
    text = "createDS&agentid=42&dataselection=include /ä\nexclude %20&dstypeid=4&name=a&b=c"
    check_request(server.only_request(), text, account="agent_42:s3cret")


@pytest.mark.parametrize("login, passwd", [("ä b", "p:q"), ("", ""), ("x" * 300, 'q"\\')])
def test_any_account_travels_as_basic_credentials(
    trusting: Host, server_files: ServerFiles, login: str, passwd: str
) -> None:
    with RawServer([reply()], tls=server_files.context()) as server:
        url = f"vrmo://127.0.0.1:{server.port}"
        result = trusting.run("--action", "discover", "--url", url, "--login", login, "--passwd", passwd)
    assert result == SUCCESS
    check_request(server.only_request(), "discover", account=f"{login}:{passwd}")


@pytest.mark.parametrize("url, login", [("vrmo://", "admin"), ("vrmo://127.0.0.1:9", "a:b")])
def test_what_cannot_become_a_request_is_not_initialized(trusting: Host, url: str, login: str) -> None:
    result = trusting.run("--action", "discover", "--url", url, "--login", login, "--passwd", "p")
    assert result == failure(NOT_INITIALIZED)


@pytest.mark.parametrize("status", ["0", " 0", "0 ", "00"])
def test_a_status_of_zero_hands_the_text_on(trusting: Host, server_files: ServerFiles, status: str) -> None:
    assert discover_from(trusting, server_files, reply(status=status)) == SUCCESS


def test_the_status_headers_name_may_be_written_in_any_case(trusting: Host, server_files: ServerFiles) -> None:
    answer = http_answer(empty_answer(), headers=["x-quorvex-STATUS: 0"])
    assert discover_from(trusting, server_files, answer) == SUCCESS


@pytest.mark.parametrize("status", ["1", "-1", "13", "2147483647"])
def test_another_status_is_a_failure(trusting: Host, server_files: ServerFiles, status: str) -> None:
    assert discover_from(trusting, server_files, reply(status=status)) == failure(STATUS_FAILED)


@pytest.mark.parametrize("status", [None, "", "zero", "0x0", "0 0", "0,0", "1.0", "99999999999999999999"])
def test_a_status_that_is_missing_or_no_number_is_no_reply(
    trusting: Host, server_files: ServerFiles, status: Optional[str]
) -> None:
    assert discover_from(trusting, server_files, reply(status=status)) == failure(REQUEST_FAILED)


def test_a_status_given_twice_is_no_reply(trusting: Host, server_files: ServerFiles) -> None:
    answer = http_answer(empty_answer(), headers=["X-Quorvex-Status: 1", "X-Quorvex-Status: 0"])
    assert discover_from(trusting, server_files, answer) == failure(REQUEST_FAILED)


@pytest.mark.parametrize("http_status", ["201 Created", "302 Found", "401 Unauthorized", "404 Not Found", "500 Oops"])
def test_another_http_status_is_no_reply(trusting: Host, server_files: ServerFiles, http_status: str) -> None:
    answer = http_answer(empty_answer(), http_status, ["X-Quorvex-Status: 0", "Location: /elsewhere"])
    assert discover_from(trusting, server_files, answer) == failure(REQUEST_FAILED)


@pytest.mark.parametrize("answer", [b"", reply()[:-5], b"HTTP/1.1 200 OK\r\nX-Quorvex-St", b"220 mail\r\n"])
def test_a_broken_transfer_is_no_reply(trusting: Host, server_files: ServerFiles, answer: bytes) -> None:
    assert discover_from(trusting, server_files, answer) == failure(REQUEST_FAILED)


def test_a_port_that_refuses_is_no_reply(trusting: Host) -> None:
    with refusing_port() as port:
        assert discover(trusting, f"vrmo://127.0.0.1:{port}") == failure(REQUEST_FAILED)


def test_a_server_without_tls_gets_no_request(trusting: Host) -> None:
    with RawServer([reply()]) as server:
        assert discover(trusting, f"vrmo://127.0.0.1:{server.port}") == failure(REQUEST_FAILED)
    assert server.requests == []


@pytest.mark.parametrize(
    "text, messages",
    [(b"", [NOT_PARSED]), (b"no answer", [NOT_PARSED]), (error_answer("unknown"), [error_returned("unknown")])],
    ids=["empty", "not parsed", "error"],
)
def test_the_replys_text_is_read_like_any_answer(
    trusting: Host, server_files: ServerFiles, text: bytes, messages: Sequence[bytes]
) -> None:
    assert discover_from(trusting, server_files, reply(text)) == failure(*messages)


class Trust:
    """The three places in which an issuer may lie."""

    def __init__(self, host: Host, directory: Path) -> None:
        self.host = host
        self.key_directory = host.work / "keys"
        self.key_directory.mkdir()
        self._certs = host.etc_quorvex / "certs"
        self._certs.mkdir()
        self._ssl = directory / "ssl"
        (self._ssl / "certs").mkdir(parents=True)
        host.install_ssl_directory(self._ssl)

    def put(self, place: str, issuer: CertificateAuthority) -> None:
        """Puts an issuer's certificate into one of the places."""
        places = {
            "plugin": [self._certs / "127.0.0.1.pem"],
            "keydir": [self.key_directory / "ca.pem"],
            # The system keeps its authorities in one file and one by one.
            "system": [self._ssl / "certs" / name for name in ("ca-certificates.crt", issuer.hashed_name())],
        }
        for path in places[place]:
            shutil.copy(issuer.file, path)

    def verdict(self, server: ServerFiles, environment: Optional[Mapping[str, str]] = None) -> Result:
        """Runs discover; the request reaches the server only on success."""
        with RawServer([reply()], tls=server.context()) as listening:
            url = f"vrmo://127.0.0.1:{listening.port}"
            result = discover(self.host, url, "--keydir", str(self.key_directory), environment=environment)
        assert len(listening.requests) == (1 if result == SUCCESS else 0)
        return result


@pytest.fixture
def trust(host: Host, tmp_path: Path) -> Trust:
    """A machine that trusts nobody yet."""
    return Trust(host, tmp_path)


PLACES = ("plugin", "keydir", "system")


@pytest.mark.parametrize("place", PLACES)
def test_an_issuer_in_any_of_the_places_is_enough(
    trust: Trust, ca: CertificateAuthority, server_files: ServerFiles, place: str
) -> None:
    trust.put(place, ca)
    assert trust.verdict(server_files) == SUCCESS


@pytest.mark.parametrize("first, second", [("plugin", "keydir"), ("plugin", "system"), ("keydir", "system")])
def test_only_the_first_place_that_has_one_counts(
    trust: Trust, ca: CertificateAuthority, server_files: ServerFiles, tmp_path: Path, first: str, second: str
) -> None:
    trust.put(first, CertificateAuthority(tmp_path / "other"))
    trust.put(second, ca)
    assert trust.verdict(server_files) == failure(REQUEST_FAILED)


@pytest.mark.parametrize("verify", [{}, {"QUORVEX_SSL_VERIFY": "0"}], ids=["as set up", "switched off elsewhere"])
@pytest.mark.parametrize("place", [None, *PLACES])
def test_an_unknown_issuer_is_never_passed_over(
    trust: Trust, server_files: ServerFiles, tmp_path: Path, place: Optional[str], verify: Mapping[str, str]
) -> None:
    if place is not None:
        trust.put(place, CertificateAuthority(tmp_path / "other"))
    assert trust.verdict(server_files, verify) == failure(REQUEST_FAILED)


@pytest.mark.parametrize("verify", [{}, {"QUORVEX_SSL_VERIFY": "0"}], ids=["as set up", "switched off elsewhere"])
@pytest.mark.parametrize("place", PLACES)
def test_time_and_name_of_the_certificate_count(
    trust: Trust, ca: CertificateAuthority, place: str, verify: Mapping[str, str]
) -> None:
    trust.put(place, ca)
    for server in (ca.expired_server(), ca.future_server(), ca.server(names=["localhost", "127.0.0.2"])):
        assert trust.verdict(server, verify) == failure(REQUEST_FAILED)


# Lets OpenSSL agree to what the channel must refuse of its own accord.
LAX_OPENSSL = """\
openssl_conf = all
[all]
ssl_conf = programs
[programs]
system_default = lax
[lax]
MinProtocol = TLSv1
CipherString = DEFAULT:@SECLEVEL=0
"""


def old_context(files: ServerFiles, newest: ssl.TLSVersion) -> ssl.SSLContext:
    """A server's settings that end at this protocol version."""
    context = files.context()
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = ssl.TLSVersion.TLSv1
    context.maximum_version = newest
    return context


@pytest.mark.filterwarnings("ignore:.*TLSv1:DeprecationWarning")
@pytest.mark.parametrize(
    "newest, accepted", [(ssl.TLSVersion.TLSv1, False), (ssl.TLSVersion.TLSv1_1, False), (ssl.TLSVersion.TLSv1_2, True)]
)
def test_protocols_before_tls_1_2_are_refused(
    trust: Trust, ca: CertificateAuthority, server_files: ServerFiles, newest: ssl.TLSVersion, accepted: bool
) -> None:
    trust.put("plugin", ca)
    settings = trust.host.work / "openssl.cnf"
    settings.write_text(LAX_OPENSSL)
    environment = {"OPENSSL_CONF": str(settings)}
    with RawServer([reply()], tls=old_context(server_files, newest)) as server:
        result = discover(trust.host, f"vrmo://127.0.0.1:{server.port}", environment=environment)
    assert result == (SUCCESS if accepted else failure(REQUEST_FAILED))
    assert len(server.requests) == (1 if accepted else 0)


@pytest.fixture
def front(authority: Authority, server_files: ServerFiles, tmp_path: Path) -> Iterator[str]:
    """The authority's channel address, behind nginx with TLS."""
    with tls_front(authority, server_files.certificate, server_files.key, tmp_path / "front") as url:
        yield f"vrmo://127.0.0.1:{port_of(url)}"


def test_the_authority_answers_every_action_over_the_channel(
    trusting: Host, authority: Authority, front: str
) -> None:
    agent = trusting
    account = ("--url", front, *authority.account)
    assert agent.run("--action", "discover", *account) == SUCCESS
    options = ("--hostname", "web01", "--agentType", "0", "--todisk")
    result = agent.run("--action", "register", "--type", "Agent", *options, *account)
    assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("register"))
    assert "web01" in authority.show("agents")
    file = agent.etc_quorvex / "Agent.cfg"
    login, stored, agent_id = (stored_option(file, name).decode() for name in ("login", "passwd", "agentid"))
    template = authority.template(1, int(agent_id)).replace(authority.url, front)
    assert file.read_text() == provisioned(template, 1, str(agent.work), (login, stored))
    tables = agent.run("--action", "routingtables", "--type", "Agent", "--storagepoolid", "2", "--agentid", agent_id)
    record = authority.first_record("ws_agent.php", {"action": "getRoutingTables", "storagepoolId": "2"})
    expected = record["cr_recommendedrt"] + record["cr_currentrt"]
    assert tables == Result(0, expected.encode(), completed("routingtables"))
    selection = ("--dsname", "home", "--dstypeid", "4", "--dsrules", "include /home")
    assert agent.run("--action", "createds", "--type", "Agent", *selection) == Result(0, b"", completed("createds"))
    assert "home" in authority.show("dataselections")


@pytest.mark.parametrize(
    "component_type, template_id, more",
    [("Agent", 1, ()), ("ContentRouter", 3, ("--storage", "/data")), ("StoragePoolAuthority", 6, ())],
)
def test_the_authoritys_templates_come_over_the_channel(
    trusting: Host, authority: Authority, front: str, component_type: str, template_id: int, more: Sequence[str]
) -> None:
    arguments = ("--type", component_type, "--url", front, *authority.account, *more)
    result = trusting.run("--action", "configfile", *arguments)
    template = authority.template(template_id).replace(authority.url, front)
    text = provisioned(template, template_id, "/data" if more else str(trusting.work))
    assert result == Result(0, text.encode() + b"\n" + written_to(), completed("configfile"))


def test_the_authority_refuses_a_wrong_password_over_the_channel(trusting: Host, front: str) -> None:
    result = discover(trusting, front)
    assert (result.status, result.stdout) == (EXIT_FAILURE, b"")
    assert result.stderr.startswith(b"The webservice returned an error :")
    assert result.stderr.endswith(call_failed("discover"))
