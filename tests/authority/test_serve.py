"""The script that runs the authority."""

from __future__ import annotations

import os
import signal
import socket
import stat
from pathlib import Path
from urllib.parse import urlsplit

import pytest

from harness.answers import records
from harness.authority import Authority
from harness.programs import AUTHORITY, TIMEOUT_S, opened_by_children, path_without, run, start, stop, wait_until_gone


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


def test_writers_of_the_database_hold_each_other_up_for_one_flush(authority: Authority) -> None:
    assert authority.rows("PRAGMA journal_mode") == [("wal",)]


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


def test_a_second_server_on_the_same_data_refuses_to_start(authority: Authority, tmp_path: Path) -> None:
    (authority.data / "server.log").write_text("of the first\n")
    (tmp_path / "alias").symlink_to(authority.data)
    for data in (authority.data, tmp_path / "alias"):
        status, printed, errors = run("serve", "--data", data, "--login", "second")
        assert (status, printed) == (1, "")
        assert errors == f"serve: another server runs on {data.resolve()}\n"
    assert authority.rows("SELECT login FROM accounts") == [("admin",)]
    assert (authority.data / "server.log").read_text() == "of the first\n"


def test_data_are_free_again_as_soon_as_their_server_was_killed(tmp_path: Path) -> None:
    first, url = start(AUTHORITY / "serve", "--data", tmp_path / "spa")
    # What it leaves behind for a moment must not hold the data.
    assert tmp_path / "spa" not in opened_by_children(first)
    first.kill()
    first.communicate(timeout=TIMEOUT_S)
    second, _ = start(AUTHORITY / "serve", "--data", tmp_path / "spa")
    assert stop(second) == (0, "", "")
    wait_until_gone(url)


@pytest.mark.parametrize("script", ["serve", "show"])
def test_what_is_not_installed_is_named(tmp_path: Path, script: str) -> None:
    without_php = {"PATH": path_without("php", tmp_path / "bin")}
    message = f"{script}: php is not installed (Debian package php-cli)\n"
    assert run(script, "--data", tmp_path / "spa", environment=without_php) == (1, "", message)
    # Debian's extensions are loaded by the files of this directory.
    without_extensions = {"PATH": os.environ["PATH"], "PHP_INI_SCAN_DIR": str(tmp_path)}
    message = f"{script}: PHP has no SQLite (Debian package php-sqlite3)\n"
    assert run(script, "--data", tmp_path / "spa", environment=without_extensions) == (1, "", message)
