"""What docs/security.md says that a hostile server or another user can do, shown to be so."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path
from typing import Callable

import pytest

from harness.answers import agent_answer, config_answer, empty_answer, error_answer, routing_answer
from harness.messages import call_failed, completed, error_returned
from harness.raw_server import RawServer, http_answer
from harness.registered_host import OLD_PEM, RegisteredHost
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.tls_files import CertificateAuthority


def test_a_template_may_name_directories_outside(host: Host) -> None:
    machine = RegisteredHost(host)
    template = "[paths]\nlog=../../outside/log\n"
    with RawServer([http_answer(config_answer(template))]) as server:
        result, _ = machine.run("configfile", server.url)
        assert not (host.work / "outside").exists()
        assert result.status == 0
    with RawServer([http_answer(config_answer("[paths]\nlog=../outside/log\n"))]) as server:
        assert host.run(*machine.arguments("configfile", server.url), "--mkdir").status == 0
    assert (host.work / "outside" / "log").is_dir()


def test_a_login_with_line_ends_brings_lines_into_the_file(host: Host) -> None:
    machine = RegisteredHost(host)
    login = "agent_42\n[spa]\nurl=http://elsewhere.example"
    answers = [agent_answer(login=login), config_answer("[paths]\nkeydir=keys\n")]
    with RawServer([http_answer(answer) for answer in answers]) as server:
        result, changes = machine.run("register", server.url)
    assert result.status == 0
    assert b"\nlogin=agent_42\n[spa]\nurl=http://elsewhere.example\n" in changes["Agent.cfg"]


def test_a_description_reaches_the_terminal_as_it_is(host: Host) -> None:
    machine = RegisteredHost(host)
    text = "\x1b[2J\x1b]0;owned\x07"
    with RawServer([http_answer(error_answer(text))]) as server:
        result, changes = machine.run("discover", server.url)
    assert result == Result(EXIT_FAILURE, b"", call_failed("discover", error_returned(text)))
    assert changes == {}


def test_an_output_that_is_a_link_is_followed(host: Host) -> None:
    machine = RegisteredHost(host)
    target = host.work / "target"
    shutil.move(machine.config, target)
    machine.config.symlink_to(target)
    with RawServer([http_answer(config_answer("[a]\n"))]) as server:
        assert machine.run("configfile", server.url)[0].status == 0
    assert machine.config.is_symlink()
    assert target.read_bytes() == b"[a]\n[paths]\n"


def test_an_output_that_is_a_pipe_is_written_to(host: Host) -> None:
    machine = RegisteredHost(host)
    machine.config.unlink()
    os.mkfifo(machine.config)
    with subprocess.Popen(["cat", str(machine.config)], stdout=subprocess.PIPE) as reader:
        with RawServer([http_answer(config_answer("[a]\n"))]) as server:
            assert host.run(*machine.arguments("configfile", server.url)).status == 0
        assert reader.stdout is not None and reader.stdout.read() == b"[a]\n[paths]\n"


def test_one_pipe_may_take_both_tables(host: Host) -> None:
    machine = RegisteredHost(host)
    os.mkfifo(host.work / "pipe")
    machine.tables = (host.work / "pipe", host.work / "pipe")
    with subprocess.Popen(["cat", str(host.work / "pipe")], stdout=subprocess.PIPE) as reader:
        with RawServer([http_answer(routing_answer("first", "second"))]) as server:
            assert host.run(*machine.arguments("routingtables", server.url)).status == 0
        assert reader.stdout is not None and reader.stdout.read() == b"firstsecond"


@pytest.mark.parametrize("link", [os.link, os.symlink], ids=["hard", "symbolic"])
def test_key_and_certificate_never_share_a_file(host: Host, link: Callable[[Path, Path], None]) -> None:
    machine = RegisteredHost(host)
    certificate, key = machine.keys / "Agent.cert", machine.keys / "Agent.key"
    key.unlink()
    link(certificate, key)
    arguments = machine.arguments("certificate", "")
    before = machine.files()
    result = host.run(*arguments)
    assert result.status == EXIT_FAILURE and b"Could not create certificates." in result.stderr
    assert machine.changes(before) == {} and certificate.read_bytes() == OLD_PEM


def test_an_existing_key_file_keeps_the_mode_that_it_has(host: Host) -> None:
    machine = RegisteredHost(host)
    key = machine.keys / "Agent.key"
    key.chmod(0o644)
    assert host.run(*machine.arguments("certificate", "")).status == 0
    assert key.stat().st_mode & 0o777 == 0o644


def test_who_sets_the_environment_gets_the_session_keys(host: Host, tmp_path: Path) -> None:
    machine = RegisteredHost(host)
    keys = host.work / "session-keys"
    server_files = CertificateAuthority(tmp_path / "ca").server()
    with RawServer([http_answer(empty_answer())], tls=server_files.context()) as server:
        arguments = machine.arguments("discover", server.url)
        result = host.run(*arguments, environment={"SSLKEYLOGFILE": str(keys)})
    assert result == Result(0, b"", completed("discover"))
    assert b"CLIENT_TRAFFIC_SECRET_0" in keys.read_bytes()
