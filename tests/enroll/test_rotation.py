"""Enrolling with the reference authority behind TLS, and changing its certificate under way."""

from __future__ import annotations

import re
import shutil
import subprocess
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

from harness.authority import Authority, tls_front
from harness.passwords import decrypt
from real_host import EnrolHost
from harness.sandbox import Result
from harness.templates import stored_option
from harness.tls_files import CertificateAuthority, ServerFiles

DONE, PASSING, REFUSED, CLONE, NOT_READY = 0, 75, 76, 77, 78


@contextmanager
def front(authority: Authority, server: ServerFiles, data: Path) -> Iterator[str]:
    """The authority behind TLS with this certificate; yields its address."""
    with tls_front(authority, server.certificate, server.key, data) as url:
        yield url


def enrolled(result: Result) -> bool:
    """Whether a run registered the host."""
    return result.status == DONE and result.stdout.split()[0] == b"result=enrolled"


def agents(authority: Authority) -> int:
    """How many agents the authority knows by this host's name."""
    return authority.show("agents").count("web01")


def test_a_host_enrols_stays_and_renews(
    host: EnrolHost, authority: Authority, ca: CertificateAuthority, tmp_path: Path
) -> None:
    host.use_password_of(authority)
    host.trust(ca.file)
    with front(authority, ca.server(), tmp_path / "front") as url:
        assert enrolled(host.enrol(url))
        first = host.target.read_bytes()
        again = host.enrol(url)
        assert again.stdout == b"result=unchanged agentid=1 file=/etc/quorvex/Agent.cfg\n"
        assert host.target.read_bytes() == first
        assert host.enrol(url, "--force").stdout.startswith(b"result=renewed agentid=1 ")
        assert host.enrol(url).stdout.startswith(b"result=unchanged agentid=1 ")
    assert (host.etc_quorvex / "Agent.cfg.last-good").read_bytes() == first
    assert stored_option(host.target, "url").decode() == url
    assert decrypt(b"the key", stored_option(host.target, "passwd"))
    assert agents(authority) == 1


def test_an_account_that_was_lost_is_renewed(host: EnrolHost, authority: Authority) -> None:
    host.use_password_of(authority)
    assert enrolled(host.enrol(authority.url, "--cleartext"))
    host.write_secret(host.keydir / "auth.key", "another key")
    assert host.enrol(authority.url, "--cleartext").stdout.startswith(b"result=renewed agentid=1 ")
    lost = host.target.read_bytes()
    assert host.enrol(authority.url, "--cleartext", "--force").status == DONE
    host.target.write_bytes(lost)
    assert host.enrol(authority.url, "--cleartext").stdout.startswith(b"result=renewed agentid=1 ")


def test_a_wrong_password_changes_nothing(host: EnrolHost, authority: Authority) -> None:
    host.use_password_of(authority)
    assert enrolled(host.enrol(authority.url, "--cleartext"))
    before = host.target.read_bytes()
    host.write_secret(host.password_file, "passwd=wrong\n")
    result = host.enrol(authority.url, "--cleartext", "--force")
    assert result.status == REFUSED and b"does not know this login and password" in result.stderr
    host.use_password_of(authority)
    assert host.target.read_bytes() == before
    assert host.enrol(authority.url, "--cleartext").stdout.startswith(b"result=unchanged")


def test_a_clone_asks_nobody(host: EnrolHost, authority: Authority) -> None:
    host.use_password_of(authority)
    assert enrolled(host.enrol(authority.url, "--cleartext"))
    requests = authority.show("requests")
    host.machine_id.write_text("f" * 32 + "\n")
    assert host.enrol(authority.url, "--cleartext").status == CLONE
    assert authority.show("requests") == requests


def test_keys_that_lie_elsewhere_are_found_before_the_account_changes(host: EnrolHost, authority: Authority) -> None:
    host.use_password_of(authority)
    other = host.work / "other"
    shutil.copytree(host.keydir, other)
    other.chmod(0o700)
    result = host.enrol(authority.url, "--cleartext", "--keydir", str(other))
    assert result.status == NOT_READY and f"give --keydir {host.keydir}" in result.stderr.decode()
    assert agents(authority) == 0


def test_a_server_agent_with_directories(host: EnrolHost, authority: Authority) -> None:
    host.use_password_of(authority)
    storage = host.work / "storage"
    options = ("--cleartext", "--server", "--storage", str(storage), "--mkdir", "--make-key")
    assert enrolled(host.enrol(authority.url, *options))
    assert (storage / "keys/auth.key").exists() and (storage / "progress").is_dir()
    assert host.enrol(authority.url, *options).stdout.startswith(b"result=unchanged")


def fingerprint(certificate: Path) -> str:
    """A certificate's SHA-256 as openssl prints it."""
    command = ["openssl", "x509", "-noout", "-fingerprint", "-sha256", "-in", str(certificate)]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip().partition("=")[2]


def test_the_certificate_is_changed_without_locking_anybody_out(
    host: EnrolHost, authority: Authority, tmp_path: Path
) -> None:
    host.use_password_of(authority)
    old, new, other = (CertificateAuthority(tmp_path / name).server() for name in ("old", "new", "other"))
    host.trust(old.certificate)
    with front(authority, old, tmp_path / "front-1") as url:
        assert enrolled(host.enrol(url))
        host.trust(old.certificate, new.certificate)
        assert host.enrol(url, "--force").status == DONE
    with front(authority, new, tmp_path / "front-2") as url:
        assert host.enrol(url, "--force").status == DONE
        host.trust(new.certificate)
        assert host.enrol(url, "--force").status == DONE
        host.trust(old.certificate, other.certificate)
        before = host.target.read_bytes()
        result = host.enrol(url, "--force", attempts=5)
    assert result.status == REFUSED
    assert re.search(r"127\.0\.0\.1 shows the certificate SHA-256 ([0-9A-F:]{95})", result.stderr.decode())
    for server in (old, new, other):
        assert fingerprint(server.certificate) in result.stderr.decode()
    assert "holds 2: " in result.stderr.decode()
    assert b"result=passing" not in result.stderr
    assert host.target.read_bytes() == before


@pytest.mark.parametrize("wrong", ["expired", "for another name", "signed by another"])
def test_a_wrong_certificate_lasts(
    host: EnrolHost, authority: Authority, ca: CertificateAuthority, tmp_path: Path, wrong: str
) -> None:
    servers: dict[str, Callable[[], ServerFiles]] = {
        "expired": ca.expired_server,
        "for another name": lambda: ca.server(names=["spa.example"]),
        "signed by another": CertificateAuthority(tmp_path / "other", name="ca").server,
    }
    host.use_password_of(authority)
    host.trust(ca.file)
    with front(authority, servers[wrong](), tmp_path / "front") as url:
        for address in (url, url.replace("https", "vrmo")):
            result = host.enrol(address, attempts=5)
            assert result.status == REFUSED and b"shows the certificate" in result.stderr
    assert "register" not in authority.show("requests")


def test_a_server_that_the_system_does_not_vouch_for_lasts(
    host: EnrolHost, authority: Authority, ca: CertificateAuthority, tmp_path: Path
) -> None:
    host.use_password_of(authority)
    with front(authority, ca.server(), tmp_path / "front") as url:
        result = host.enrol(url.replace("https", "vrmo"), attempts=5)
    assert result.status == REFUSED and b"shows the certificate" in result.stderr
    assert b"there is no /etc/quorvex/certs/127.0.0.1.pem" in result.stderr


def test_over_the_channel_the_file_beside_the_key_serves(
    host: EnrolHost, authority: Authority, ca: CertificateAuthority, tmp_path: Path
) -> None:
    host.use_password_of(authority)
    host.write_secret(host.keydir / "ca.pem", ca.file.read_text())
    with front(authority, ca.server(), tmp_path / "front") as url:
        address = url.replace("https", "vrmo")
        result = host.enrol(address, "--make-key")
        assert enrolled(result), result.stderr
        assert host.enrol(address).stdout.startswith(b"result=unchanged")
