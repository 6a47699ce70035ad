"""The worked examples of the pages under docs/ come out as they are shown."""

from __future__ import annotations

import re
import shlex
import shutil
from pathlib import Path
from typing import Sequence

import pytest

from harness.answers import config_answer
from harness.authority import Authority
from harness.messages import completed
from harness.raw_server import RawServer, http_answer
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.tls_files import CertificateAuthority

_ROOT = Path(__file__).resolve().parents[2]
_DOCS = _ROOT / "docs"
_ALL_ACTIONS_SECONDS = 240.0


def examples(page: str) -> dict[str, str]:
    """The page's fenced blocks by the word behind their language."""
    blocks = re.findall(r"^```\w+ ([\w-]+)\n(.*?)^```$", (_DOCS / page).read_text(), re.DOTALL | re.MULTILINE)
    return dict(blocks)


def arguments(command: str, **replaced: str) -> Sequence[str]:
    """The arguments of a command line, its placeholders replaced."""
    for placeholder, value in replaced.items():
        command = command.replace(placeholder, value)
    program, *rest = shlex.split(command)
    assert program == "tzregister"
    return rest


@pytest.fixture
def registered(host: Host) -> Host:
    """A machine whose registry knows the agent, so that no notices appear."""
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", "/opt/quorvex")
    return host


def test_the_table_of_the_answer_format(registered: Host) -> None:
    shown = examples("answer-format.md")
    with RawServer([http_answer(shown["answer-table"])]) as server:
        result = registered.run(*arguments(shown["command-table"], URL=server.url))
    assert result == Result(0, shown["stdout-table"].encode(), completed("configfile"))


def test_the_error_block_of_the_answer_format(host: Host) -> None:
    shown = examples("answer-format.md")
    with RawServer([http_answer(shown["answer-error"])]) as server:
        result = host.run(*arguments(shown["command-error"], URL=server.url))
    assert result == Result(EXIT_FAILURE, b"", shown["stderr-error"].encode())


def test_the_template_of_the_configuration_format(registered: Host) -> None:
    shown = examples("configuration-format.md")
    with RawServer([http_answer(config_answer(shown["template"]))]) as server:
        result = registered.run(*arguments(shown["command"], URL=server.url))
    assert result == Result(0, shown["stdout"].encode(), completed("configfile"))


def test_the_exchange_of_the_channel(registered: Host, tmp_path: Path) -> None:
    shown = examples("channel.md")
    ca = CertificateAuthority(tmp_path / "ca")
    (registered.etc_quorvex / "certs").mkdir()
    shutil.copy(ca.file, registered.etc_quorvex / "certs" / "127.0.0.1.pem")
    head, _, text = shown["reply"].partition("\n\n")
    reply = head.replace("\n", "\r\n").encode() + b"\r\n\r\n" + text.encode()
    with RawServer([reply], tls=ca.server().context()) as server:
        port = str(server.port)
        result = registered.run(*arguments(shown["command"], PORT=port))
    assert result == Result(0, shown["stdout"].encode(), completed("configfile"))
    head, _, body = shown["request"].replace("PORT", port).partition("\n\n")
    request = server.only_request()
    assert request.head.decode() == head.replace("\n", "\r\n") + "\r\n\r\n"
    assert request.body.decode() == body.rstrip("\n")


def test_the_commands_of_the_readme_work_one_after_the_other(host: Host, authority: Authority) -> None:
    section = (_ROOT / "README.md").read_text().partition("\n## Actions\n")[2].partition("\n## ")[0]
    prepare, *commands = re.findall(r"^```sh\n(.*?)^```$", section, re.DOTALL | re.MULTILINE)
    assert len(commands) == 6
    shutil.copy(authority.password_file, host.work / "admin.passwd")
    host.let_prepare()
    environment = {"URL": authority.url, "PATH": f"{Path(host.program).parent}:/usr/bin:/bin"}
    script = "set -e\n" + prepare + "".join(commands)
    result = host.run(shell=script, environment=environment, time_limit=_ALL_ACTIONS_SECONDS)
    actions = ("discover", "register", "configfile", "configfile", "routingtables", "createds")
    assert result.stderr == b"".join(map(completed, (*actions, *["certificate"] * 3)))
    assert result.status == 0
    written = {path.name for path in (*host.work.iterdir(), *host.etc_quorvex.iterdir())}
    assert written >= {"Agent.cfg", "cr.cfg", "pool.recommended", "pool.current", "agent.cert", "agent.key"}
    assert "home" in authority.show("dataselections")
