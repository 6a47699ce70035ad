"""The script that puts TLS in front of an authority."""

from __future__ import annotations

import signal
from pathlib import Path

from harness.authority import Authority, make_certificate
from harness.programs import AUTHORITY, TIMEOUT_S, run, start, wait_until_gone


def test_the_front_ends_with_its_script(authority: Authority, tmp_path: Path) -> None:
    certificate, key = make_certificate(tmp_path)
    files = ("--cert", certificate, "--key", key)
    for number, status in [(signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGKILL, -9)]:
        data = tmp_path / f"tls{number}"
        process, url = start(AUTHORITY / "serve-tls", *files, "--upstream", authority.url, "--data", data)
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
