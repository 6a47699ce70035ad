"""The worked examples of the pages under docs/ come out as they are shown."""

from __future__ import annotations

import re
import shlex
import shutil
import subprocess
from pathlib import Path
from typing import Sequence

import pytest

from harness.answers import config_answer
from harness.authority import Authority
from harness.messages import completed
from harness.pages import DOCS, ROOT, examples, section
from harness.raw_server import RawServer, http_answer
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.tls_files import CertificateAuthority

_ALL_ACTIONS_SECONDS = 240.0


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
    actions_section = section((ROOT / "README.md").read_text(), "Actions")
    prepare, *commands = re.findall(r"^```sh\n(.*?)^```$", actions_section, re.DOTALL | re.MULTILINE)
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


COLLECTION = "deploy/ansible/README.md"
OTHER_PAGES = ("README.md", "CONTRIBUTING.md", "authority/README.md", COLLECTION, "tests/end_to_end/README.md")
PAGES = sorted([*(ROOT / name for name in OTHER_PAGES), *DOCS.glob("*.md")])
LEAVES = {"frontend/register_exception", "frontend/string_check"}
FOLDERS = ("config", "frontend", "registration", "support", "webservice")


def anchor(heading: str) -> str:
    """The name under which a heading can be linked to."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def anchors(page: Path) -> set[str]:
    """The headings of a page that can be linked to."""
    return {anchor(heading) for heading in re.findall(r"^#+ (.*)$", page.read_text(), re.MULTILINE)}


@pytest.mark.parametrize("page", PAGES, ids=[str(page.relative_to(ROOT)) for page in PAGES])
def test_every_link_leads_somewhere(page: Path) -> None:
    for target, fragment in re.findall(r"\]\((?!\w+:)([^)#]*)(?:#([^)]*))?\)", page.read_text()):
        file = page.parent / target if target else page
        assert file.exists(), target
        assert not fragment or fragment in anchors(file), f"{target}#{fragment}"


def test_the_index_lists_every_page() -> None:
    index = (DOCS / "README.md").read_text()
    missing = [page.name for page in DOCS.glob("*.md") if page.name != "README.md" and f"({page.name})" not in index]
    assert missing == []


@pytest.mark.parametrize("page", ["docs/architecture.md", "CONTRIBUTING.md"])
def test_the_files_and_functions_that_a_page_names_are_there(page: str) -> None:
    text = (ROOT / page).read_text()
    files = re.findall(r"`((?:\w+/)*[\w-]+\.(?:cc|h|py|dot|md))`", text)
    assert files and [name for name in files if not found_in_tree(name)] == []
    sources = "".join(source.read_text() for folder in FOLDERS for source in (ROOT / folder).glob("*.*"))
    names = re.findall(r"`(?:\w+::)*([A-Za-z]\w*)`", text)
    assert [name for name in names if not re.search(rf"\b{name}\b", sources) and name not in OTHER_WORDS] == []


# Words in code type that are no names of the sources.
OTHER_WORDS = {"http", "kUpper", "tzregister_core"}


def found_in_tree(name: str) -> bool:
    """Whether a file of this path, or of this bare name, is in the tree."""
    places = [name, f"tests/end_to_end/{name}", f"docs/{name}"]
    return any((ROOT / place).exists() for place in places)


def folder_of(unit: str) -> str:
    """The box of the picture to which a source file without its ending belongs."""
    return "leaves" if unit in LEAVES else unit.partition("/")[0]


def include_arrows() -> set[tuple[str, str]]:
    """Which box of the picture includes headers of which other one."""
    arrows = set()
    for folder in FOLDERS:
        for source in (ROOT / folder).glob("*.*"):
            start = folder_of(f"{folder}/{source.stem}")
            for header in re.findall(r'^#include "(\w+/\w+)\.h"', source.read_text(), re.MULTILINE):
                arrows.add((start, folder_of(header)))
    return {arrow for arrow in arrows if arrow[0] != arrow[1] and arrow != ("frontend", "leaves")}


def test_the_arrows_of_the_picture_are_those_of_the_sources() -> None:
    drawn = re.findall(r"^  (\w+) -> (\w+);$", (DOCS / "architecture.dot").read_text(), re.MULTILINE)
    assert set(drawn) == include_arrows()


def test_the_picture_is_drawn_from_its_text_as_it_stands() -> None:
    command = [str(ROOT / "scripts" / "render-docs"), "--check"]
    assert subprocess.run(command, stderr=subprocess.PIPE, text=True, check=False).stderr == ""
