"""The script that puts TLS in front of an authority."""

from __future__ import annotations

import signal
from pathlib import Path

import pytest

from harness.authority import Authority, Front, make_certificate
from harness.programs import AUTHORITY, TIMEOUT_S, opened_by_children, path_without, run, start, stop, wait_until_gone


def test_the_front_ends_with_its_script(authority: Authority, tmp_path: Path) -> None:
    certificate, key = make_certificate(tmp_path)
    files = ("--cert", certificate, "--key", key)
    for number, status in [(signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGKILL, -9)]:
        data = tmp_path / f"tls{number}"
        process, url = start(AUTHORITY / "serve-tls", *files, "--upstream", authority.url, "--data", data)
        assert data not in opened_by_children(process)
        process.send_signal(number)
        assert process.wait(TIMEOUT_S) == status
        wait_until_gone(url)


def test_serve_tls_refuses_bad_options(tmp_path: Path) -> None:
    certificate, key = make_certificate(tmp_path)
    good = {"--cert": str(certificate), "--key": str(key), "--upstream": "http://127.0.0.1:1"}
    cases: list[tuple[dict[str, str], str]] = [
        ({"--cert": f"{tmp_path}/none"}, f"cannot read the certificate: {tmp_path}/none"),
        ({"--key": ""}, "cannot read the key: "),
        ({"--upstream": "https://127.0.0.1:1"}, "not the address of an authority: https://127.0.0.1:1"),
        ({"--upstream": "http://x; }"}, "not the address of an authority: http://x; }"),
        ({"--port": "-1"}, "not a port: -1"),
        ({"--more": "x"}, "unknown option: --more (see serve-tls --help)"),
        ({"--cert": str(key)}, f"nginx did not start; see {tmp_path}/tls/nginx.log"),
    ]
    for changes, message in cases:
        words = [word for pair in {**good, **changes}.items() for word in pair]
        assert run("serve-tls", "--data", tmp_path / "tls", *words) == (1, "", f"serve-tls: {message}\n"), changes


def test_a_second_front_on_the_same_data_refuses_to_start(front: Front) -> None:
    folder = front.certificate.parent
    files = ("--cert", front.certificate, "--key", folder / "key.pem", "--data", folder / "tls")
    printed = run("serve-tls", *files, "--upstream", "http://127.0.0.1:1")
    assert printed == (1, "", f"serve-tls: another server runs on {folder}/tls\n")
    assert "***BEGIN***" in front.channel("discover").text


@pytest.mark.parametrize(("program", "package"), [("nginx", "nginx"), ("php", "php-cli")])
def test_a_program_that_is_not_installed_is_named(tmp_path: Path, program: str, package: str) -> None:
    certificate, key = make_certificate(tmp_path)
    files = ("--cert", certificate, "--key", key, "--data", tmp_path / "tls")
    environment = {"PATH": path_without(program, tmp_path / "bin")}
    printed = run("serve-tls", *files, "--upstream", "http://127.0.0.1:1", environment=environment)
    assert printed == (1, "", f"serve-tls: {program} is not installed (Debian package {package})\n")


def test_nginx_is_found_where_an_ordinary_users_path_does_not_lead(authority: Authority, tmp_path: Path) -> None:
    certificate, key = make_certificate(tmp_path)
    files = ("--cert", certificate, "--key", key, "--data", tmp_path / "tls")
    command = ("env", "PATH=/usr/bin:/bin", AUTHORITY / "serve-tls", *files, "--upstream", authority.url)
    process, _ = start(*command)
    assert stop(process) == (0, "", "")
