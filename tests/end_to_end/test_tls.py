"""HTTPS: verified where the server's certificate is at hand, unverified where not."""

from __future__ import annotations

import shutil
from pathlib import Path
from typing import Callable, Mapping, Optional

import pytest

from harness.answers import empty_answer
from harness.authority import Authority, port_of, tls_front
from harness.messages import NETWORK_ERROR, call_failed, completed, written_to
from harness.passwords import KEY_FILE
from harness.raw_server import RawServer, http_answer
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.templates import stored_option
from harness.tls_files import CertificateAuthority, ServerFiles

SUCCESS = Result(0, b"", completed("discover"))
FAILURE = Result(EXIT_FAILURE, b"", call_failed("discover", NETWORK_ERROR))


@pytest.fixture
def ca(tmp_path: Path) -> CertificateAuthority:
    """The authority that signed the servers' certificates."""
    return CertificateAuthority(tmp_path / "ca")


@pytest.fixture
def plugins(host: Host) -> Path:
    """The plugin directory, named by the environment."""
    directory = host.work / "plugins"
    directory.mkdir()
    host.environment["QUORVEX_PLUGIN_PATH"] = f"{directory}/"
    return directory


def discover(host: Host, url: str, environment: Optional[Mapping[str, str]] = None) -> Result:
    """Runs discover with a login and a password."""
    account = ("--login", "admin", "--passwd", "secret")
    return host.run("--action", "discover", "--url", url, *account, environment=environment)


def verdict(
    host: Host, server: ServerFiles, name: str = "127.0.0.1", environment: Optional[Mapping[str, str]] = None
) -> Result:
    """Runs discover against a server with this certificate; credentials reach it only on success."""
    with RawServer([http_answer(empty_answer())], tls=server.context()) as listening:
        result = discover(host, f"https://{name}:{listening.port}", environment)
    assert len(listening.requests) == (1 if result == SUCCESS else 0)
    return result


@pytest.mark.parametrize("name", ["127.0.0.1", "localhost"])
def test_a_server_whose_issuer_lies_there_is_verified(
    host: Host, plugins: Path, ca: CertificateAuthority, name: str
) -> None:
    shutil.copy(ca.file, plugins / f"{name}.pem")
    assert verdict(host, ca.server(), name) == SUCCESS


def test_a_servers_own_certificate_serves_too(host: Host, plugins: Path, ca: CertificateAuthority) -> None:
    server = ca.server()
    shutil.copy(server.certificate, plugins / "127.0.0.1.pem")
    assert verdict(host, server) == SUCCESS


def test_the_plugin_directory_needs_no_trailing_slash(host: Host, ca: CertificateAuthority, plugins: Path) -> None:
    host.environment["QUORVEX_PLUGIN_PATH"] = str(plugins)
    shutil.copy(CertificateAuthority(host.work / "other").file, plugins / "127.0.0.1.pem")
    assert verdict(host, ca.server()) == FAILURE


@pytest.mark.parametrize("verify", [None, "", "1", "no", "00"])
def test_another_issuers_certificate_under_the_name_fails(
    host: Host, plugins: Path, ca: CertificateAuthority, verify: Optional[str]
) -> None:
    other = CertificateAuthority(host.work / "other")
    shutil.copy(other.file, plugins / "127.0.0.1.pem")
    environment = {} if verify is None else {"QUORVEX_SSL_VERIFY": verify}
    assert verdict(host, ca.server(), environment=environment) == FAILURE


def test_an_issuer_of_the_same_name_but_another_key_fails(host: Host, plugins: Path, ca: CertificateAuthority) -> None:
    impostor = CertificateAuthority(host.work / "impostor", name="ca")
    shutil.copy(ca.file, plugins / "127.0.0.1.pem")
    assert verdict(host, impostor.server()) == FAILURE


def test_an_expired_certificate_fails(host: Host, plugins: Path, ca: CertificateAuthority) -> None:
    shutil.copy(ca.file, plugins / "127.0.0.1.pem")
    assert verdict(host, ca.expired_server()) == FAILURE


def test_a_certificate_not_valid_yet_fails(host: Host, plugins: Path, ca: CertificateAuthority) -> None:
    shutil.copy(ca.file, plugins / "127.0.0.1.pem")
    assert verdict(host, ca.future_server()) == FAILURE


@pytest.mark.parametrize(
    "asked, certified", [("127.0.0.1", "127.0.0.2"), ("127.0.0.1", "localhost"), ("localhost", "localhost.example")]
)
def test_a_certificate_for_another_name_fails(
    host: Host, plugins: Path, ca: CertificateAuthority, asked: str, certified: str
) -> None:
    shutil.copy(ca.file, plugins / f"{asked}.pem")
    assert verdict(host, ca.server(names=[certified]), asked) == FAILURE


@pytest.mark.parametrize("content", [b"", b"not a certificate\n", b"-----BEGIN CERTIFICATE-----\nAAAA\n"])
def test_a_file_that_holds_no_certificate_fails(
    host: Host, plugins: Path, ca: CertificateAuthority, content: bytes
) -> None:
    (plugins / "127.0.0.1.pem").write_bytes(content)
    assert verdict(host, ca.server()) == FAILURE


def test_a_file_that_may_not_be_read_fails(host: Host, plugins: Path, ca: CertificateAuthority) -> None:
    shutil.copy(ca.file, plugins / "127.0.0.1.pem")
    (plugins / "127.0.0.1.pem").chmod(0)
    assert verdict(host, ca.server()) == FAILURE


@pytest.mark.parametrize("present", ["", "localhost.pem", "127.0.0.1", "127.0.0.1.pem.old"])
@pytest.mark.parametrize("expired", [False, True])
def test_without_the_hosts_file_the_server_is_not_verified(
    host: Host, plugins: Path, ca: CertificateAuthority, present: str, expired: bool
) -> None:
    if present:
        (plugins / present).write_bytes(b"not a certificate\n")
    server = ca.expired_server() if expired else ca.server(names=["other.example"])
    assert verdict(host, server) == SUCCESS


def test_verification_can_be_switched_off(host: Host, plugins: Path, ca: CertificateAuthority) -> None:
    (plugins / "127.0.0.1.pem").write_bytes(b"not a certificate\n")
    assert verdict(host, ca.expired_server(), environment={"QUORVEX_SSL_VERIFY": "0"}) == SUCCESS


@pytest.mark.parametrize("variable", [{}, {"QUORVEX_PLUGIN_PATH": ""}], ids=["not set", "empty"])
def test_the_default_plugin_directory_is_quorvexs_own(
    host: Host, ca: CertificateAuthority, variable: Mapping[str, str]
) -> None:
    directory = host.etc_quorvex / "certs"
    directory.mkdir()
    shutil.copy(ca.file, directory / "127.0.0.1.pem")
    assert verdict(host, ca.server(), environment=variable) == SUCCESS
    assert verdict(host, ca.expired_server(), environment=variable) == FAILURE


@pytest.mark.parametrize("asked", ["LOCALHOST", "LocalHost"])
@pytest.mark.parametrize("scheme", ["https", "vrmo"])
def test_the_hosts_file_is_found_however_its_name_is_written(
    host: Host, plugins: Path, ca: CertificateAuthority, asked: str, scheme: str
) -> None:
    shutil.copy(CertificateAuthority(host.work / "other").file, plugins / "localhost.pem")
    with RawServer([http_answer(empty_answer())], tls=ca.server().context()) as server:
        result = discover(host, f"{scheme}://{asked}:{server.port}")
    assert result.status == EXIT_FAILURE and server.requests == []
    shutil.copy(ca.file, plugins / "localhost.pem")
    reply = http_answer(empty_answer(), headers=["X-Quorvex-Status: 0"])
    with RawServer([reply], tls=ca.server().context()) as server:
        assert discover(host, f"{scheme}://{asked}:{server.port}") == SUCCESS


REQUIRED = {"QUORVEX_SSL_VERIFY": "required"}


def system_authorities(host: Host, directory: Path, *trusted: CertificateAuthority) -> None:
    """Lets these be the authorities that the machine trusts."""
    (directory / "certs").mkdir(parents=True)
    bundle = directory / "certs" / "ca-certificates.crt"
    bundle.write_bytes(b"".join(one.file.read_bytes() for one in trusted))
    for one in trusted:
        shutil.copy(one.file, directory / "certs" / one.hashed_name())
    host.install_ssl_directory(directory)


def test_required_verification_takes_no_server_without_trust(
    host: Host, plugins: Path, ca: CertificateAuthority, tmp_path: Path
) -> None:
    system_authorities(host, tmp_path / "ssl", CertificateAuthority(tmp_path / "public"))
    assert verdict(host, ca.server(), environment=REQUIRED) == FAILURE
    assert verdict(host, ca.server()) == SUCCESS


def test_required_verification_takes_what_the_system_trusts(
    host: Host, plugins: Path, ca: CertificateAuthority, tmp_path: Path
) -> None:
    system_authorities(host, tmp_path / "ssl", ca)
    assert verdict(host, ca.server(), environment=REQUIRED) == SUCCESS
    assert verdict(host, ca.server(names=["other.example"]), environment=REQUIRED) == FAILURE
    assert verdict(host, ca.expired_server(), environment=REQUIRED) == FAILURE


def test_required_verification_trusts_a_servers_file_alone(
    host: Host, plugins: Path, ca: CertificateAuthority, tmp_path: Path
) -> None:
    public = CertificateAuthority(tmp_path / "public")
    system_authorities(host, tmp_path / "ssl", public)
    shutil.copy(ca.file, plugins / "127.0.0.1.pem")
    assert verdict(host, ca.server(), environment=REQUIRED) == SUCCESS
    assert verdict(host, public.server(), environment=REQUIRED) == FAILURE
    # Without the requirement the directory of the system's authorities counts beside the file.
    assert verdict(host, public.server()) == SUCCESS


def test_a_server_without_tls_is_a_network_error(host: Host) -> None:
    with RawServer([http_answer(empty_answer())]) as server:
        assert discover(host, f"https://127.0.0.1:{server.port}") == FAILURE
    assert server.requests == []


def test_a_registered_agent_works_over_a_verified_front(
    host: Host, plugins: Path, ca: CertificateAuthority, authority: Authority, tmp_path: Path
) -> None:
    server = ca.server()
    shutil.copy(ca.file, plugins / "127.0.0.1.pem")
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(b"key")
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(host.work))
    with tls_front(authority, server.certificate, server.key, tmp_path / "front") as url:
        options = ("--hostname", "web01", "--agentType", "0", "--url", url, "--todisk", *authority.account)
        result = host.run("--action", "register", "--type", "Agent", *options)
        assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("register"))
        assert stored_option(host.etc_quorvex / "Agent.cfg", "url").decode() == url
        agent_id = stored_option(host.etc_quorvex / "Agent.cfg", "agentid").decode()
        numbers = ("--storagepoolid", "1", "--agentid", agent_id)
        tables = host.run("--action", "routingtables", "--type", "Agent", *numbers)
        assert (tables.status, tables.stderr) == (0, completed("routingtables"))
    assert "web01" in authority.show("agents")


@pytest.mark.parametrize("wrong", ["expired", "wrong name", "unknown issuer"])
def test_a_front_that_cannot_be_verified_gets_no_credentials(
    host: Host, plugins: Path, ca: CertificateAuthority, authority: Authority, tmp_path: Path, wrong: str
) -> None:
    servers: dict[str, Callable[[], ServerFiles]] = {
        "expired": ca.expired_server,
        "wrong name": lambda: ca.server(names=["spa.example"]),
        "unknown issuer": CertificateAuthority(host.work / "other").server,
    }
    server = servers[wrong]()
    shutil.copy(ca.file, plugins / "127.0.0.1.pem")
    with tls_front(authority, server.certificate, server.key, tmp_path / "front") as url:
        assert port_of(url) is not None
        assert discover(host, url) == FAILURE
        assert "discover" not in authority.show("requests")
        (plugins / "127.0.0.1.pem").unlink()
        account = authority.account
        assert host.run("--action", "discover", "--url", url, *account) == SUCCESS
        assert "discover" in authority.show("requests")
