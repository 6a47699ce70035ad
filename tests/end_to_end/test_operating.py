"""docs/operating.md and the README's tables say what the program does."""

from __future__ import annotations

import re
import shutil
import ssl
from pathlib import Path

import pytest

from harness.answers import agent_answer, config_answer, data_answer
from harness.authority import Authority
from harness.credentials import CredentialFile
from harness.messages import COMPONENT_TYPES, completed, failed
from harness.pages import DOCS, ROOT, examples, section, table
from harness.passwords import KEY_FILE
from harness.raw_server import RawServer, http_answer
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.templates import stored_option

PAGE = (DOCS / "operating.md").read_text()
AGENT_CFG = "/etc/quorvex/Agent.cfg"
ACCOUNT = ("--login", "admin", "--passwd", "secret")
REGISTER = ("--action", "register", "--type", "Agent", "--agentType", "0")


def described_options() -> list[tuple[str, bool]]:
    """The options of the page's table in its order, each with whether it takes a value."""
    rows = table(section(PAGE, "Options"))
    assert {value for _, value, *_ in rows} == {"none", "text", "number"}
    return [(option.replace("`", ""), value != "none") for option, value, *_ in rows]


def real_options(host: Host) -> list[tuple[str, bool]]:
    """The options of --help in their order, each with whether it takes a value."""
    text = host.run("--help").stderr.decode()
    rows = re.findall(r"^  (?:(-\w) \[ )?(--\w+)(?: \])?( arg)?(?:\s|$)", text, re.MULTILINE)
    return [(f"{name}, {short}" if short else name, bool(value)) for short, name, value in rows]


def test_the_table_lists_exactly_the_programs_options(host: Host) -> None:
    options = real_options(host)
    assert options and described_options() == options


@pytest.mark.parametrize("option, kind", [(row[0], row[1]) for row in table(section(PAGE, "Options"))])
def test_an_option_takes_the_value_that_the_table_says(host: Host, option: str, kind: str) -> None:
    name = option.split(",")[0].strip("`")
    refusal = {
        "none": f"option '{name}' does not take any arguments",
        "text": "at least and only one --action is expected ",
        "number": f"the argument ('x') for option '{name}' is invalid",
    }[kind]
    if name == "--action":
        refusal = "--type is missing"
    expected = refusal if kind == "text" else f"Exception is caught {refusal}"
    assert host.run(f"{name}=x") == Result(EXIT_FAILURE, b"", f"{expected}\n".encode())


def allowed_actions(host: Host, component_type: str) -> set[str]:
    """The actions that the program says a type has."""
    refusal = host.run("--action", "none", "--type", component_type).stderr.decode()
    found = re.search(r"^Valid actions are: (.*)$", refusal, re.MULTILINE)
    assert found, refusal
    return set(found[1].split())


def test_the_readme_pairs_types_and_actions_as_the_program_does(host: Host) -> None:
    rows = table(section((ROOT / "README.md").read_text(), "Actions"))
    documented = {
        name: set(actions.split(", "))
        for types, actions in rows
        if types != "none"
        for name in re.findall(r"`(\w+)`", types)
    }
    allowed = {name: allowed_actions(host, name) for name in COMPONENT_TYPES}
    assert documented == {name: actions for name, actions in allowed.items() if actions}


def test_the_page_names_the_actions_that_there_are(host: Host) -> None:
    row = next(row for row in table(section(PAGE, "Options")) if row[0] == "`--action`")
    allowed = {action for name in COMPONENT_TYPES for action in allowed_actions(host, name)}
    assert set(re.findall(r"`(\w+)`", row[2])) == allowed


@pytest.fixture
def agent(host: Host) -> Host:
    """A machine that is prepared for its registration."""
    host.register_component("Agent", AGENT_CFG, str(host.work))
    (host.work / "keys").mkdir(0o700)
    (host.work / "keys" / KEY_FILE).write_bytes(b"the host's key file")
    return host


def run_example(host: Host, authority: Authority, name: str) -> Result:
    """Runs a command of the page as it stands, against the authority."""
    shutil.copy(authority.password_file, host.work / "admin.passwd")
    environment = {"URL": authority.url, "PATH": f"{Path(host.program).parent}:/usr/bin:/bin"}
    return host.run(shell=examples("operating.md")[name], environment=environment)


def register(host: Host, authority: Authority, *arguments: str) -> Result:
    """Registers the machine and writes its configuration file."""
    account = ("--url", authority.url, *authority.account)
    return host.run(*REGISTER, "--hostname", "agent-host", *account, "--todisk", *arguments)


def test_a_registration_that_went_wrong_is_made_good_with_the_same_id(agent: Host, authority: Authority) -> None:
    lost = register(agent, authority, "--file", "/nowhere/Agent.cfg")
    description = "Failed to write configuration file: /nowhere/Agent.cfg\n"
    assert lost == Result(EXIT_FAILURE, b"", failed("register", description))
    assert "agent-host" in authority.show("agents"), "the authority has registered the host already"
    assert run_example(agent, authority, "register-again").stderr == completed("register")
    assert authority.show("agents").count("agent-host") == 1
    selection = ("--action", "createds", "--type", "Agent", "--dsname", "n", "--dstypeid", "1", "--dsrules", "r")
    assert agent.run(*selection).stderr == completed("createds")


def test_a_configuration_file_fetched_aside_leaves_the_registered_one(agent: Host, authority: Authority) -> None:
    register(agent, authority)
    registered = agent.etc_quorvex / "Agent.cfg"
    before = registered.read_bytes()
    assert run_example(agent, authority, "configfile-aside").stderr == completed("configfile")
    assert registered.read_bytes() == before
    assert stored_option(agent.etc_quorvex / "Agent.cfg.new", "passwd") == b""


def test_configfile_over_the_registered_file_loses_its_password(agent: Host, authority: Authority) -> None:
    register(agent, authority)
    assert stored_option(agent.etc_quorvex / "Agent.cfg", "passwd").startswith(b"qx1.")
    configfile = ("--action", "configfile", "--type", "Agent", "--agentid", "1", "--todisk")
    agent.run(*configfile, "--url", authority.url, *authority.account)
    assert stored_option(agent.etc_quorvex / "Agent.cfg", "passwd") == b""


def test_the_longest_password_that_can_be_stored_has_720_bytes(agent: Host) -> None:
    answers = [agent_answer(password="p" * 720), config_answer("[paths]\nkeydir=keys\n")]
    with RawServer([http_answer(answer) for answer in answers]) as server:
        arguments = (*REGISTER, "--hostname", "h", "--url", server.url, *ACCOUNT, "--todisk")
        assert agent.run(*arguments).stderr == completed("register")
    assert stored_option(agent.etc_quorvex / "Agent.cfg", "passwd").startswith(b"qx1.")


def test_the_server_flag_registers_the_host_as_without_it(agent: Host) -> None:
    sent = []
    for flags in ((), ("--server", "--storage", str(agent.work))):
        answers = [agent_answer(), config_answer("[paths]\nkeydir=keys\n")]
        with RawServer([http_answer(answer) for answer in answers]) as server:
            agent.run(*REGISTER, "--hostname", "h", "--url", server.url, *ACCOUNT, *flags)
        sent.append([dict(request.parts()) for request in server.requests])
    plain, with_flag = sent
    assert plain[0] == with_flag[0]
    assert (plain[1]["configfiletemplateid"], with_flag[1]["configfiletemplateid"]) == ("1", "2")


@pytest.mark.parametrize(
    "arguments, action, field, value",
    [
        ((*REGISTER, "--hostname", "h"), "register", "agentid", "-1"),
        (("--action", "configfile", "--type", "Agent"), "create", "agentid", "-1"),
        (
            ("--action", "createds", "--type", "Agent", "--dsname", "n", "--dstypeid", "1"),
            "createDS",
            "agentid",
            "18446744073709551615",
        ),
        (("--action", "routingtables", "--type", "Agent", "--storagepoolid", "1"), "getRoutingTables", "id", None),
    ],
)
def test_a_number_with_a_minus_sign_wraps_around(
    agent: Host, arguments: tuple[str, ...], action: str, field: str, value: str
) -> None:
    with RawServer([http_answer(data_answer([("x", "S")], [["x"]]))] * 2) as server:
        CredentialFile(agent.etc_quorvex / "Agent.cfg", url=server.url).write()
        agent.run(*arguments, "--agentid", "-1", "--url", server.url, *ACCOUNT)
    parts = dict(server.requests[0].parts())
    assert (parts["action"], parts.get(field)) == (action, value)


def test_mkdir_makes_directories_of_a_content_routers_certificate_files(host: Host) -> None:
    template = config_answer("[SSL]\nCertFileName=keys/cr.cert\n")
    with RawServer([http_answer(template)]) as server:
        arguments = ("--action", "configfile", "--type", "ContentRouter", "--storage", str(host.work), "--mkdir")
        host.run(*arguments, "--url", server.url, *ACCOUNT)
    assert (host.work / "keys" / "cr.cert").is_dir()


def test_the_certificate_is_refused_at_the_default_security_level(host: Host) -> None:
    host.run("--action", "certificate", "--type", "Agent", "--file", "agent.cert", "--file2", "agent.key")
    _, found, ciphers = examples("operating.md")["certificate-level"].rstrip().partition(" -cipher ")
    assert found
    files = (host.work / "agent.cert", host.work / "agent.key")
    settings = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    with pytest.raises(ssl.SSLError, match="(?i)ee.key.too.small"):
        settings.load_cert_chain(*files)
    settings.set_ciphers(ciphers)
    settings.load_cert_chain(*files)
