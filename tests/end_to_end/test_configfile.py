"""The action configfile: a template fetched, rewritten, and printed or written."""

from __future__ import annotations

import re
import stat
from pathlib import Path
from typing import Optional, Sequence

import pytest

from harness.answers import config_answer, data_answer, empty_answer, error_answer
from harness.authority import Authority
from harness.config_model import Config, provisioned
from harness.messages import (
    NO_RECORDS,
    NO_REGISTRY,
    NOT_PARSED,
    REGISTRY_DEFAULTS,
    REGISTRY_MISSING,
    call_failed,
    completed,
    error_returned,
    executable_path,
    failed,
    written_to,
)
from harness.passwords import MASK
from harness.raw_server import RawServer, Request, http_answer
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.templates import AGENT_TEMPLATE, agent_provisioned

ACCOUNT = ("--login", "admin", "--passwd", "secret")
BASE = "/opt/agent"
PAGE_BYTES = 4096
NOT_OPENED = "Could not open TZRegister"


@pytest.fixture
def agent(host: Host) -> Host:
    """A machine on which the agent is installed."""
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", BASE)
    return host


def fetch(host: Host, template: str, *more: str, component_type: str = "Agent") -> tuple[Result, Request]:
    """Runs configfile against a server that hands this template out."""
    with RawServer([http_answer(config_answer(template))]) as server:
        result = configfile(host, server.url, *more, component_type=component_type)
    return result, server.only_request()


def configfile(host: Host, url: str, *more: str, component_type: str = "Agent") -> Result:
    """Runs configfile with a login and a password."""
    return host.run("--action", "configfile", "--type", component_type, "--url", url, *ACCOUNT, *more)


def printed(text: bytes, notice: bytes = b"", warnings: bytes = b"") -> Result:
    """A run that succeeded and printed this configuration file."""
    return Result(0, notice + text + b"\n" + written_to(), warnings + completed("configfile"))


def refused(description: str, stderr: bytes = b"", stdout: bytes = b"") -> Result:
    """A run that failed with this description."""
    return Result(EXIT_FAILURE, stdout, stderr + failed("configfile", description))


@pytest.mark.parametrize(
    "component_type, more, template_id",
    [
        ("Agent", (), "1"),
        ("Agent", ("--storage", "/s"), "1"),
        ("Agent", ("--server", "--storage", "/s"), "2"),
        ("ContentRouter", ("--storage", "/s"), "3"),
        ("ContentRouter", ("--server", "--storage", "/s"), "3"),
        ("StoragePoolAuthority", (), "6"),
        ("StoragePoolAuthority", ("--server",), "6"),
    ],
)
def test_the_type_chooses_the_template_asked_for(
    agent: Host, component_type: str, more: Sequence[str], template_id: str
) -> None:
    result, request = fetch(agent, "[a]\n", *more, component_type=component_type)
    assert result.status == 0
    assert request.request_line == "POST /ws_configfile.php HTTP/1.1"
    assert request.parts() == [
        ("action", "create"),
        ("agentid", "0"),
        ("configfiletemplateid", template_id),
        ("login", "admin"),
        ("passwd", "secret"),
    ]


@pytest.mark.parametrize(
    "given, sent",
    [
        ("7", "7"),
        ("007", "7"),
        ("9223372036854775807", "9223372036854775807"),
        ("18446744073709551615", "-1"),
    ],
)
def test_the_agent_id_travels_as_a_signed_number(agent: Host, given: str, sent: str) -> None:
    _, request = fetch(agent, "[a]\n", "--agentid", given)
    assert request.parts()[1] == ("agentid", sent)


def test_the_key_directory_travels_when_given(agent: Host) -> None:
    _, request = fetch(agent, "[a]\n", "--keydir", "/k")
    assert [name for name, _ in request.parts()] == [
        "action",
        "agentid",
        "configfiletemplateid",
        "keydir",
        "login",
        "passwd",
    ]


@pytest.mark.parametrize("more", [(), ("--storage", "/not/consulted"), ("--file", "/not/written")])
def test_without_todisk_the_rewritten_template_is_printed(agent: Host, more: Sequence[str]) -> None:
    result, _ = fetch(agent, AGENT_TEMPLATE, *more)
    assert result == printed(agent_provisioned(BASE))


def test_with_todisk_the_registry_names_the_file(agent: Host) -> None:
    result, _ = fetch(agent, AGENT_TEMPLATE, "--todisk")
    assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("configfile"))
    assert (agent.etc_quorvex / "Agent.cfg").read_bytes() == agent_provisioned(BASE)


def test_with_todisk_a_file_option_names_the_file(agent: Host) -> None:
    path = agent.work / "own.cfg"
    result, _ = fetch(agent, AGENT_TEMPLATE, "--todisk", "--file", str(path))
    assert result == Result(0, written_to(path), completed("configfile"))
    assert path.read_bytes() == agent_provisioned(BASE)
    assert list(agent.etc_quorvex.iterdir()) == []


@pytest.mark.parametrize("mask", [0o000, 0o022, 0o077, 0o277, 0o777])
def test_a_new_file_belongs_to_its_owner_alone(agent: Host, mask: int) -> None:
    path = agent.work / "own.cfg"
    with RawServer([http_answer(config_answer("[a]\n"))]) as server:
        arguments = ("--type", "Agent", "--url", server.url, "--todisk", "--file", str(path))
        agent.run("--action", "configfile", *arguments, *ACCOUNT, umask=mask)
    assert stat.S_IMODE(path.stat().st_mode) == 0o600 & ~mask


@pytest.mark.parametrize("mode", [0o644, 0o600, 0o666])
def test_an_existing_file_is_replaced_and_keeps_its_mode(agent: Host, mode: int) -> None:
    path = agent.work / "own.cfg"
    path.write_bytes(b"old text\n" * 1000)
    path.chmod(mode)
    fetch(agent, AGENT_TEMPLATE, "--todisk", "--file", str(path))
    assert path.read_bytes() == agent_provisioned(BASE)
    assert stat.S_IMODE(path.stat().st_mode) == mode


@pytest.mark.parametrize("name", ["missing/own.cfg", "directory", "locked/own.cfg", "read-only.cfg", ""])
def test_a_file_that_cannot_be_opened_fails_the_run(agent: Host, name: str) -> None:
    (agent.work / "directory").mkdir()
    (agent.work / "locked").mkdir(mode=0o500)
    (agent.work / "read-only.cfg").write_bytes(b"old\n")
    (agent.work / "read-only.cfg").chmod(0o400)
    path = f"{agent.work}/{name}"
    result, _ = fetch(agent, AGENT_TEMPLATE, "--todisk", "--file", path)
    assert result == refused(f"Failed to write configuration file: {path}\n")
    assert (agent.work / "read-only.cfg").read_bytes() == b"old\n"


def test_a_full_disk_fails_the_run(agent: Host) -> None:
    agent.add_small_disk("/small", PAGE_BYTES)
    template = "[a]\n" + "".join(f"key{number}=value\n" for number in range(PAGE_BYTES))
    result, _ = fetch(agent, template, "--todisk", "--file", "/small/a")
    assert result == refused("Failed to write configuration file: /small/a\n")


def test_an_empty_file_name_prints(agent: Host) -> None:
    result, _ = fetch(agent, AGENT_TEMPLATE, "--todisk", "--file", "")
    assert result == printed(agent_provisioned(BASE))


@pytest.mark.parametrize(
    "program, base",
    [
        ("/opt/quorvex/bin/tzregister", "/opt/quorvex"),
        ("/opt/x/tool", "/opt/x/tool"),
        ("/opt/binaries/tool", "/opt"),
        ("/data/bin/sub/bin/tool", "/data/bin/sub"),
        ("/data/bin/sub/tool", "/data"),
        ("/binaries/tool", ""),
    ],
)
def test_without_a_registry_the_programs_own_path_is_the_base(tmp_path: Path, program: str, base: str) -> None:
    host = Host(tmp_path / "host", program)
    result, _ = fetch(host, "[paths]\nvar=var\n")
    expected = f"[paths]\nvar={base}{'/' if base else ''}var\n".encode()
    assert result == printed(expected, executable_path(base), NO_REGISTRY)


def test_without_a_registry_an_installed_default_product_is_the_base(host: Host) -> None:
    host.install_default_product()
    result, _ = fetch(host, AGENT_TEMPLATE, "--todisk", "--productname", "Other")
    assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), NO_REGISTRY + completed("configfile"))
    assert (host.etc_quorvex / "Agent.cfg").read_bytes() == agent_provisioned("/usr/zenta/vrmo/qxag")


BROKEN_REGISTRIES = {
    "option before any section": (b"key=value\n", b"Found an invalid line: key=value\n"),
    "text behind a header": (b"[Agent] x\npath=/a\n", b"Found invalid line: [Agent] x\n"),
    "no key": (b"[Agent]\n=value\n", b"Found an invalid key: =value\n"),
    "no equals sign": (b"[Agent]\nnovalue\n", b""),
    "empty section name": (b"[]\n", b""),
    "unclosed header": (b"[Agent\n", b""),
    "error behind a good section": (b"[Agent]\nconfigfilepath=/c\npath=/p\nnovalue\n", b""),
}


@pytest.mark.parametrize("text, message", BROKEN_REGISTRIES.values(), ids=BROKEN_REGISTRIES.keys())
def test_a_broken_registry_gives_the_defaults(host: Host, text: bytes, message: bytes) -> None:
    host.install_registry(text)
    host.install_default_product()
    result, _ = fetch(host, AGENT_TEMPLATE)
    assert result == printed(agent_provisioned("/usr/zenta/vrmo/qxag"), warnings=message + REGISTRY_DEFAULTS)


def test_a_registry_that_may_not_be_read_gives_the_defaults(agent: Host) -> None:
    agent.install_default_product()
    agent.lock_registry()
    result, _ = fetch(agent, AGENT_TEMPLATE)
    assert result == printed(agent_provisioned("/usr/zenta/vrmo/qxag"), warnings=REGISTRY_MISSING + REGISTRY_DEFAULTS)


def test_a_directory_as_registry_gives_the_defaults(host: Host) -> None:
    host.make_registry_a_directory()
    host.install_default_product()
    result, _ = fetch(host, AGENT_TEMPLATE)
    assert result == printed(agent_provisioned("/usr/zenta/vrmo/qxag"), warnings=REGISTRY_DEFAULTS)


@pytest.mark.parametrize(
    "registry",
    [
        b"[Router]\nconfigfilepath=/c\npath=/p\n",
        b"[Agent]\npath=/p\n",
        b"[Agent]\nconfigfilepath=/c\n",
        b"",
    ],
    ids=["no section", "no configfilepath", "no path", "empty"],
)
def test_a_registry_that_lacks_the_component_fails_before_the_options_are_looked_at(
    host: Host, registry: bytes
) -> None:
    host.install_registry(registry)
    result = host.run("--action", "configfile", "--type", "Agent")
    assert result == refused(NOT_OPENED)


@pytest.mark.parametrize("name", ["Router", "router", "ROUTER"])
def test_the_product_name_chooses_the_registrys_section(agent: Host, name: str) -> None:
    agent.register_component("Router", "/etc/quorvex/Router.cfg", "/opt/router")
    result, _ = fetch(agent, AGENT_TEMPLATE, "--todisk", "--productname", name)
    assert result.stdout == written_to("/etc/quorvex/Router.cfg")
    assert (agent.etc_quorvex / "Router.cfg").read_bytes() == agent_provisioned("/opt/router")


def test_an_empty_product_name_is_the_agent(agent: Host) -> None:
    result, _ = fetch(agent, AGENT_TEMPLATE, "--productname", "")
    assert result == printed(agent_provisioned(BASE))


@pytest.mark.parametrize("component_type, more", [("Agent", ("--server",)), ("ContentRouter", ())])
def test_a_server_needs_a_storage_path(host: Host, component_type: str, more: Sequence[str]) -> None:
    with RawServer() as server:
        result = configfile(host, server.url, *more, component_type=component_type)
    assert result == refused("Could not find storage in parameter", NO_REGISTRY, executable_path("/opt/quorvex"))
    assert server.connections == 0


def test_an_address_is_needed(host: Host) -> None:
    result = host.run("--action", "configfile", "--type", "ContentRouter", *ACCOUNT)
    assert result == refused("url must exist in parameter", NO_REGISTRY, executable_path("/opt/quorvex"))


@pytest.mark.parametrize("storage, base", [("/data", "/data"), ("/data/", "/data"), ("rel", "rel"), ("/a b", "/a b")])
def test_a_servers_paths_lie_under_its_storage_path(agent: Host, storage: str, base: str) -> None:
    result, _ = fetch(agent, AGENT_TEMPLATE, "--server", "--storage", storage)
    assert result == printed(agent_provisioned(base))


def test_the_authoritys_own_file_ignores_a_storage_path(agent: Host) -> None:
    result, _ = fetch(agent, AGENT_TEMPLATE, "--storage", "/data", component_type="StoragePoolAuthority")
    assert result == printed(agent_provisioned(BASE))


ROUTER_TEMPLATE = """\
[paths]
var=var
[storagedaemon]
path=p
Storage=s
ProcessedPath=/abs
[Spooler]
Path=spool
other=p
[SSL]
CertFileName=ssl/cert.pem
"""

ROUTER_PROVISIONED = """\
[paths]
var=var
[storagedaemon]
path={twice}/p
ProcessedPath=/abs
Storage={base}/s
[Spooler]
other=p
Path={base}/spool
[SSL]
CertFileName={base}/ssl/cert.pem
[ContentRouter]
[Logging]
"""


@pytest.mark.parametrize("base, twice", [("/data", "/data"), ("st", "st/st")])
def test_a_content_routers_own_paths_are_rewritten(agent: Host, base: str, twice: str) -> None:
    result, _ = fetch(agent, ROUTER_TEMPLATE, "--storage", base, component_type="ContentRouter")
    assert result == printed(ROUTER_PROVISIONED.format(base=base, twice=twice).encode())


@pytest.mark.parametrize("template", ["", "\n \t\r\n", "# only a comment\n"])
def test_a_section_looked_for_appears_in_an_empty_template(agent: Host, template: str) -> None:
    result, _ = fetch(agent, template)
    assert result == printed(b"[paths]\n")


@pytest.mark.parametrize("agent_type", ["0", "1", "3", "99", None])
def test_without_a_registration_the_account_stays_the_templates(agent: Host, agent_type: Optional[str]) -> None:
    more = ("--agentType", agent_type) if agent_type else ()
    result, _ = fetch(agent, AGENT_TEMPLATE, *more)
    assert result == printed(agent_provisioned(BASE))


def test_agent_type_two_masks_the_account(agent: Host) -> None:
    result, _ = fetch(agent, AGENT_TEMPLATE, "--agentType", "2")
    assert result == printed(agent_provisioned(BASE, ("TWLX_AGENT", MASK)))


def test_an_account_section_that_the_template_lacks_stands_last(agent: Host) -> None:
    result, _ = fetch(agent, "[paths]\n[z]\n", "--agentType", "2")
    assert result == printed(f"[paths]\n[z]\n[systemaccount]\nlogin=TWLX_AGENT\npasswd={MASK}\n".encode())


INVALID_TEMPLATES = {
    "option before any section": ("key=value\n", b"Found an invalid line: key=value\n"),
    "text behind a header": ("[a] x\n", b"Found invalid line: [a] x\n"),
    "no key": ("[a]\n=value\n", b"Found an invalid key: =value\n"),
    "no equals sign": ("[a]\nnovalue\n", b""),
    "empty section name": ("[]\n", b""),
}


@pytest.mark.parametrize("template, message", INVALID_TEMPLATES.values(), ids=INVALID_TEMPLATES.keys())
def test_a_template_that_does_not_parse_writes_nothing(agent: Host, template: str, message: bytes) -> None:
    result, _ = fetch(agent, template, "--todisk")
    assert result == refused("Failed to load from input stream ", message)
    assert list(agent.etc_quorvex.iterdir()) == []


BAD_ANSWERS = {
    "no record": (empty_answer(), failed("configfile", NO_RECORDS)),
    "no column": (
        data_answer([("other", "S")], [["x"]]),
        failed("configfile", "Missing required field: returnvalue"),
    ),
    "column of unknown type": (
        data_answer([("returnvalue", "X")], [["x"]]),
        failed("configfile", "Missing required field: returnvalue"),
    ),
    "record without line end": (
        data_answer([("returnvalue", "S")], [["[a]"]], end=b"")[:-1],
        failed("configfile", NO_RECORDS),
    ),
    "error": (
        error_answer("no such agent"),
        call_failed("configfile", error_returned("no such agent")),
    ),
    "no answer": (b"", call_failed("configfile", NOT_PARSED)),
}


@pytest.mark.parametrize("answer, stderr", BAD_ANSWERS.values(), ids=BAD_ANSWERS.keys())
def test_an_answer_without_a_template_writes_nothing(agent: Host, answer: bytes, stderr: bytes) -> None:
    with RawServer([http_answer(answer)]) as server:
        result = configfile(agent, server.url, "--todisk")
    assert result == Result(EXIT_FAILURE, b"", stderr)
    assert list(agent.etc_quorvex.iterdir()) == []


def test_escapes_are_undone_and_unknown_ones_stay(agent: Host) -> None:
    raw = rb"[a]\nbar=x\x7cy\r\ntab=x\ty\nslash=\\n\nunknown=\q\x4g\X41\nhex=\x41\x4a\nend=\x4" + b"\n"
    answer = b"***BEGIN***\n1\nreturnvalue\nS\n" + raw + b"***DONE***\n"
    with RawServer([http_answer(answer)]) as server:
        result = configfile(agent, server.url)
    text = b"[a]\nbar=x|y\r\nend=\\x4\nhex=AJ\nslash=\\n\ntab=x\ty\nunknown=\\q\\x4g\\X41\n[paths]\n"
    assert result == printed(text)


def test_mkdir_makes_every_relative_directory(agent: Host) -> None:
    base = agent.work / "new" / "base"
    template = "[paths]\nvar=var/deep\nlog=log\ntemp=\npid=C:/pid\nother=other\n"
    result, _ = fetch(agent, template, "--server", "--mkdir", "--storage", str(base))
    assert result.status == 0
    assert sorted(str(path.relative_to(base)) for path in base.rglob("*")) == ["log", "var", "var/deep"]


def test_without_mkdir_no_directory_is_made(agent: Host) -> None:
    fetch(agent, AGENT_TEMPLATE, "--server", "--storage", str(agent.work / "base"))
    assert list(agent.work.iterdir()) == []


@pytest.mark.parametrize("obstacle", ["file", "locked"])
def test_a_directory_that_cannot_be_made_ends_the_run(agent: Host, obstacle: str) -> None:
    (agent.work / "file").write_bytes(b"")
    (agent.work / "locked").mkdir(mode=0o500)
    base = str(agent.work / obstacle)
    result, _ = fetch(agent, AGENT_TEMPLATE, "--server", "--mkdir", "--todisk", "--storage", base)
    assert (result.status, result.stdout) == (EXIT_FAILURE, b"")
    report = re.fullmatch(rb"Failed to perform action configfile\. Error: (.*)\n\n", result.stderr)
    assert report is not None
    description = report[1][: len(report[1]) // 2]
    assert report[1] == description * 2
    assert description.startswith(b"boost::filesystem::create_director")
    assert f'"{base}'.encode() in description
    assert list(agent.etc_quorvex.iterdir()) == []


def configfile_into(agent: Host, shell: str, *more: str, template: str = AGENT_TEMPLATE) -> Result:
    """Runs configfile with the standard output that the script gives it."""
    with RawServer([http_answer(config_answer(template))]) as server:
        arguments = ("--type", "Agent", "--url", server.url, *more, *ACCOUNT)
        return agent.run("--action", "configfile", *arguments, shell=shell)


@pytest.mark.parametrize("shell", ['"$@" >/dev/full', '"$@" >&-'], ids=["full", "closed"])
def test_an_unusable_standard_output_does_not_harm_the_file(agent: Host, shell: str) -> None:
    result = configfile_into(agent, shell, "--todisk")
    assert result == Result(0, b"", completed("configfile"))
    assert (agent.etc_quorvex / "Agent.cfg").read_bytes() == agent_provisioned(BASE)


@pytest.mark.parametrize("shell", ['"$@" >/dev/full', '"$@" >&-'], ids=["full", "closed"])
def test_a_file_that_standard_output_cannot_take_fails_the_run(agent: Host, shell: str) -> None:
    assert configfile_into(agent, shell) == refused("Failed to write configuration file: \n")


def test_a_file_that_standard_output_takes_in_part_fails_the_run(agent: Host) -> None:
    agent.add_small_disk("/small", 2 * PAGE_BYTES)
    template = AGENT_TEMPLATE + "[large]\n" + "".join(f"key{number:04}=value\n" for number in range(1000))
    result = configfile_into(agent, '"$@" >/small/out', template=template)
    assert result == refused("Failed to write configuration file: \n")


@pytest.mark.parametrize(
    "component_type, template_id, more",
    [
        ("Agent", 1, ()),
        ("Agent", 2, ("--server", "--storage", "/data")),
        ("ContentRouter", 3, ("--storage", "/data")),
        ("StoragePoolAuthority", 6, ()),
    ],
)
def test_the_authoritys_templates_are_provisioned(
    agent: Host, authority: Authority, component_type: str, template_id: int, more: Sequence[str]
) -> None:
    template = authority.template(template_id)
    arguments = ("--type", component_type, "--url", authority.url, *authority.account, *more, "--todisk")
    result = agent.run("--action", "configfile", *arguments)
    assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("configfile"))
    written = (agent.etc_quorvex / "Agent.cfg").read_bytes().decode()
    assert written == provisioned(template, template_id, "/data" if more else BASE)
    assert Config(written).dump() == written
