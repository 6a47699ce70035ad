"""What is looked at before the authority is asked."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Callable

import pytest

import tzregister_enroll as enroll
from fake_host import FakeHost

NOT_READY = 78
CERTIFICATE = (Path(__file__).parent / "certificate.pem").read_text()

Spoil = Callable[[FakeHost], object]


def mode(name: str, bits: int) -> Spoil:
    return lambda fake: (fake.root / name).chmod(bits)


def write(name: str, text: str) -> Spoil:
    return lambda fake: (fake.root / name).write_text(text)


def remove(name: str) -> Spoil:
    return lambda fake: (fake.root / name).unlink()


SPOILED: dict[str, tuple[Spoil, str]] = {
    "no tzregister": (remove("bin/tzregister"), "tzregister is not on the PATH"),
    "no key file": (remove("agent/keys/auth.key"), "auth.key is missing; --make-key makes it"),
    "an empty key file": (write("agent/keys/auth.key", ""), "auth.key is empty"),
    "a key file that all may read": (mode("agent/keys/auth.key", 0o604), "chmod 0600"),
    "a key file that the group may write": (mode("agent/keys/auth.key", 0o620), "chmod 0600"),
    "a key directory that all may enter": (mode("agent/keys", 0o701), "chmod 0700"),
    "a target directory that the group may write": (mode("etc", 0o775), "chmod 0755"),
    "a target that is a directory": (lambda fake: fake.target.mkdir(), "is a directory"),
    "no password file": (remove("admin.passwd"), "admin.passwd is missing"),
    "a password file that the group may read": (mode("admin.passwd", 0o640), "chmod 0600"),
    "a password file without a password": (write("admin.passwd", "secret\n"), "has no line passwd="),
    "an empty password": (write("admin.passwd", "passwd=\nword"), "has no line passwd="),
    "a password with a DOS line end": (
        lambda fake: (fake.root / "admin.passwd").write_bytes(b"passwd=word\r\n"),
        "DOS line ends",
    ),
    "a registry that cannot be read as one": (write("qxregistry.cfg", "[Agent\n"), "cannot be used"),
    "a registry without the component": (write("qxregistry.cfg", "[Other]\n"), "in [Agent]"),
    "a registry with a relative path": (
        write("qxregistry.cfg", "[Agent]\nconfigfilepath=/a\npath=b\n"),
        "lacks an absolute",
    ),
}


@pytest.mark.parametrize("spoil, reason", SPOILED.values(), ids=SPOILED.keys())
def test_a_host_that_is_not_ready_asks_nobody(fake: FakeHost, spoil: Spoil, reason: str) -> None:
    spoil(fake)
    outcome = fake.run()
    assert outcome.status == NOT_READY and reason in outcome.steps
    assert list((fake.root / "calls").iterdir()) == []


def test_everything_that_is_wrong_is_named_at_once(fake: FakeHost) -> None:
    for name in ("no key file", "no password file", "no tzregister"):
        SPOILED[name][0](fake)
    lines = fake.run().steps.splitlines()
    assert len(lines) == 3 and all(line.startswith("result=failed status=78 reason=") for line in lines)


@pytest.mark.parametrize("name", ["admin.passwd", "agent/keys", "agent/keys/auth.key", "etc"])
def test_what_belongs_to_somebody_else_is_refused(fake: FakeHost, name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    if os.geteuid() == 0:
        os.chown(fake.root / name, 12345, 0)
    else:
        monkeypatch.setattr(os, "geteuid", lambda: 12345)
    outcome = fake.run()
    assert outcome.status == NOT_READY and f"{name} belongs to neither root nor the caller" in outcome.steps


def test_a_host_without_a_name_is_refused(fake: FakeHost) -> None:
    for name in ("localhost", ""):
        outcome = fake.run("--hostname", name)
        assert outcome.status == NOT_READY and "give --hostname" in outcome.steps


@pytest.mark.parametrize("place", [4, 7], ids=["blocks", "files"])
def test_a_full_disk_is_refused(fake: FakeHost, place: int, monkeypatch: pytest.MonkeyPatch) -> None:
    values = list(os.statvfs(fake.target.parent))
    values[place] = 0
    monkeypatch.setattr(os, "statvfs", lambda _: os.statvfs_result(values))
    outcome = fake.run()
    assert outcome.status == NOT_READY and "no room left" in outcome.steps


def test_the_default_places_serve_without_a_registry(fake: FakeHost) -> None:
    fake.registry.unlink()
    assert fake.run().result == f"result=enrolled agentid=7 file={fake.target}\n"


def test_without_registry_and_installation_nothing_is_guessed(fake: FakeHost) -> None:
    fake.registry.unlink()
    (fake.root / "agent").rename(fake.root / "elsewhere")
    outcome = fake.run()
    assert outcome.status == NOT_READY and "there is neither" in outcome.steps


def test_a_file_given_wins_over_the_registry(fake: FakeHost) -> None:
    other = fake.root / "etc/other.cfg"
    assert fake.run("--file", str(other)).status == 0
    assert other.exists() and not fake.target.exists()


def test_another_component(fake: FakeHost) -> None:
    fake.registry.write_text(f"[Second]\nconfigfilepath={fake.root}/etc/second.cfg\npath={fake.root}/agent\n")
    assert fake.run("--productname", "second").status == 0
    assert (fake.root / "etc/second.cfg").exists()


def test_the_key_file_is_made_when_told_to(fake: FakeHost) -> None:
    (fake.keydir / "auth.key").unlink()
    fake.keydir.rmdir()
    assert fake.run("--make-key").status == 0
    assert (fake.mode(fake.keydir), fake.mode(fake.keydir / "auth.key")) == (0o700, 0o600)
    made = (fake.keydir / "auth.key").read_bytes()
    assert len(made) > 64 and [path.name for path in fake.keydir.iterdir()] == ["auth.key"]
    fake.run("--make-key", "--force")
    assert (fake.keydir / "auth.key").read_bytes() == made


def address(fake: FakeHost, url: str, *more: str, **environment: str) -> tuple[int, str]:
    """Looks at a host that is to ask this address; without --cleartext."""
    arguments = ["--url", url, "--login", "admin", "--passwdfile", str(fake.root / "admin.passwd"), *more]
    options = enroll.parse_options([*arguments, "--hostname", "web01"])
    place = enroll.locate(options, environment, fake.paths)
    try:
        enroll.look_at_host(enroll.Look(options, {**fake.environment(), **environment}, place))
    except enroll.Stop as stop:
        return int(stop.status), "; ".join(stop.reasons)
    return 0, ""


def test_clear_text_must_be_asked_for(fake: FakeHost) -> None:
    status, reason = address(fake, "http://spa.example")
    assert status == NOT_READY and "in the clear" in reason
    assert address(fake, "http://spa.example", "--cleartext") == (0, "")


def test_https_needs_the_authoritys_certificate(fake: FakeHost) -> None:
    status, reason = address(fake, "https://spa.example:8443/spa")
    assert status == NOT_READY and f"{fake.root}/certs/spa.example.pem is missing" in reason
    (fake.root / "certs/spa.example.pem").write_text(CERTIFICATE)
    assert address(fake, "https://spa.example:8443/spa") == (0, "")


def test_the_plugin_directory_of_the_environment_counts(fake: FakeHost) -> None:
    (fake.root / "agent/[::1].pem").write_text(CERTIFICATE)
    assert address(fake, "https://[::1]:8443", QUORVEX_PLUGIN_PATH=f"{fake.root}/agent") == (0, "")


def test_the_channel_may_rely_on_the_systems_authorities(fake: FakeHost) -> None:
    assert address(fake, "vrmo://spa.example") == (0, "")
    (fake.root / "certs/spa.example.pem").write_text("")
    assert address(fake, "vrmo://spa.example")[0] == NOT_READY


@pytest.mark.parametrize("text", ["", "no certificate\n", CERTIFICATE[:200]])
def test_a_certificate_that_is_none_is_refused(fake: FakeHost, text: str) -> None:
    (fake.root / "certs/spa.example.pem").write_text(text)
    status, reason = address(fake, "https://spa.example")
    assert status == NOT_READY and "holds no certificate" in reason


def test_a_certificate_that_others_may_change_is_refused(fake: FakeHost) -> None:
    file = fake.root / "certs/spa.example.pem"
    file.write_text(CERTIFICATE)
    file.chmod(0o664)
    assert "chmod 0644" in address(fake, "https://spa.example")[1]


def test_verification_may_not_be_off(fake: FakeHost) -> None:
    status, reason = address(fake, "vrmo://spa.example", QUORVEX_SSL_VERIFY="0")
    assert status == NOT_READY and "switches verification off" in reason
