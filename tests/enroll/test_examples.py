"""The commands of docs/enrolling.md and monitoring.md do what the pages say, with this host's names in them."""

from __future__ import annotations

from pathlib import Path

from harness.authority import Authority, tls_front
from harness.pages import examples
from harness.sandbox import Result
from harness.tls_files import CertificateAuthority
from real_host import EnrolHost

COMMANDS = {**examples("enrolling.md"), **examples("monitoring.md")}


def follow(host: EnrolHost, name: str, url: str) -> Result:
    """Runs an example, as it stands but for the places of this host."""
    commands = COMMANDS[name].replace("/usr/zenta/vrmo/qxag", str(host.agent)).replace("spa.example", "127.0.0.1")
    commands = commands.replace("NEW-NAME", "web02").replace("/var/lib/prometheus/node-exporter", str(host.work))
    host.environment["PATH"] = f"{host.work}:{host.environment['PATH']}"
    return host.run(shell=f"set -e\n{commands}", environment={"URL": url})


def test_a_host_enrols_rotates_the_certificate_and_its_clone_gets_a_name(
    host: EnrolHost, authority: Authority, tmp_path: Path
) -> None:
    host.use_password_of(authority)
    old, new = (CertificateAuthority(tmp_path / name).server() for name in ("old", "new"))
    host.trust(old.certificate)
    (host.work / "new.pem").write_bytes(new.certificate.read_bytes())
    host.set_name("web01")
    with tls_front(authority, old.certificate, old.key, tmp_path / "front-1") as url:
        enrolled = follow(host, "enrol", url)
        assert enrolled.status == 0 and enrolled.stdout.startswith(b"result=enrolled agentid=1 ")
        assert follow(host, "textfile", url).status == 0
        assert "\ntzregister_enroll_registered 1\n" in (host.work / "tzregister.prom").read_text()
        assert follow(host, "rotate", url).status == 0
    with tls_front(authority, new.certificate, new.key, tmp_path / "front-2") as url:
        host.machine_id.write_text("f" * 32 + "\n")
        cloned = follow(host, "clone", url)
        assert cloned.status == 0 and cloned.stdout.startswith(b"result=enrolled agentid=2 ")
    assert {"web01", "web02"} <= set(authority.show("agents").split())
