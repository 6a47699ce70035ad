"""The action register: the tool's main job, from the first call to the file on disk."""

from __future__ import annotations

import stat
from pathlib import Path
from typing import Optional, Sequence

import pytest

from harness.answers import agent_answer, config_answer, data_answer, empty_answer, error_answer
from harness.authority import LOGIN, Authority
from harness.config_model import provisioned
from harness.messages import (
    NETWORK_ERROR,
    NO_RECORDS,
    NO_REGISTRY,
    NOT_PARSED,
    call_failed,
    completed,
    error_returned,
    executable_path,
    failed,
    written_to,
)
from harness.passwords import KEY_FILE, MASK, decrypt
from harness.raw_server import RawServer, http_answer
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.templates import AGENT_TEMPLATE, agent_provisioned, stored_option

ACCOUNT = ("--login", "admin", "--passwd", "secret")
KEY = b"any content that is not empty\0\n"
FIRST_AGENT_ID = "1"


@pytest.fixture
def agent(host: Host) -> Host:
    """A machine with an installed agent that has its key file."""
    base = host.work / "agent"
    (base / "keys").mkdir(parents=True)
    (base / "keys" / KEY_FILE).write_bytes(KEY)
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(base))
    return host


def register(
    host: Host, url: str, *more: str, agent_type: Optional[str] = "0", account: Sequence[str] = ACCOUNT
) -> Result:
    """Runs register for the host name "web01"."""
    kind = ("--agentType", agent_type) if agent_type is not None else ()
    arguments = ("--type", "Agent", "--hostname", "web01", "--url", url)
    return host.run("--action", "register", *arguments, *kind, *account, *more)


def replies(registration: bytes = agent_answer(), template: str = AGENT_TEMPLATE) -> list[bytes]:
    """The server's part of a whole registration."""
    return [http_answer(registration), http_answer(config_answer(template))]


def written(host: Host) -> Path:
    """The agent's configuration file on this machine."""
    return host.etc_quorvex / "Agent.cfg"


def first_form(
    agent_id: str = "0",
    host_name: Optional[str] = "web01",
    agent_type: str = "0",
    keydir: Sequence[tuple[str, str]] = (),
) -> list[tuple[str, str]]:
    """The parts of the registration, in ascending byte order of their names."""
    name = [("hostName", host_name)] if host_name is not None else []
    return [
        ("action", "register"),
        ("agentVersion", "6.6.0.12345"),
        ("agentid", agent_id),
        *name,
        ("isServerAgent", "0"),
        *keydir,
        ("login", "admin"),
        ("macAddress", "000000000000"),
        ("osType", "20"),
        ("osextensions", ""),
        ("osvariantid", "0"),
        ("passwd", "secret"),
        ("type", agent_type),
        ("version", "6.6.0.12345"),
    ]


def second_form(agent_id: str, template_id: str = "1") -> list[tuple[str, str]]:
    """The parts of the request for the configuration file."""
    return [
        ("action", "create"),
        ("agentid", agent_id),
        ("configfiletemplateid", template_id),
        ("login", "admin"),
        ("passwd", "secret"),
    ]


def test_two_forms_are_posted_and_the_file_is_provisioned(agent: Host) -> None:
    with RawServer(replies()) as server:
        result = register(agent, server.url, "--todisk")
    assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("register"))
    lines = [request.request_line for request in server.requests]
    assert lines == ["POST /ws_agent.php HTTP/1.1", "POST /ws_configfile.php HTTP/1.1"]
    assert [request.parts() for request in server.requests] == [first_form(), second_form("42")]
    stored = stored_option(written(agent), "passwd")
    assert decrypt(KEY, stored) == b"s3cret"
    expected = agent_provisioned(agent.work / "agent", ("agent_42", stored.decode()))
    assert written(agent).read_bytes() == expected
    assert stat.S_IMODE(written(agent).stat().st_mode) == 0o600


def test_without_todisk_the_file_is_printed(agent: Host) -> None:
    with RawServer(replies()) as server:
        result = register(agent, server.url, "--file", str(agent.work / "unused"))
    assert (result.status, result.stderr) == (0, completed("register"))
    text, rest = result.stdout[: -len(b"\n" + written_to())], result.stdout[-len(b"\n" + written_to()) :]
    assert rest == b"\n" + written_to()
    (agent.work / "printed").write_bytes(text)
    stored = stored_option(agent.work / "printed", "passwd")
    assert decrypt(KEY, stored) == b"s3cret"
    assert text == agent_provisioned(agent.work / "agent", ("agent_42", stored.decode()))
    assert not written(agent).exists() and not (agent.work / "unused").exists()


@pytest.mark.parametrize("mask", [0o000, 0o022, 0o777])
def test_a_new_file_belongs_to_its_owner_alone(agent: Host, mask: int) -> None:
    with RawServer(replies()) as server:
        arguments = ("--type", "Agent", "--hostname", "web01", "--agentType", "0", "--url", server.url, "--todisk")
        result = agent.run("--action", "register", *arguments, *ACCOUNT, umask=mask)
    assert result.status == 0
    assert stat.S_IMODE(written(agent).stat().st_mode) == 0o600 & ~mask


def test_an_existing_file_is_replaced_and_keeps_its_mode(agent: Host) -> None:
    written(agent).write_bytes(b"old text\n" * 1000)
    written(agent).chmod(0o640)
    with RawServer(replies()) as server:
        register(agent, server.url, "--todisk")
    stored = stored_option(written(agent), "passwd")
    assert written(agent).read_bytes() == agent_provisioned(agent.work / "agent", ("agent_42", stored.decode()))
    assert stat.S_IMODE(written(agent).stat().st_mode) == 0o640


def test_two_registrations_store_the_same_password_differently(agent: Host) -> None:
    stored = []
    for _ in range(2):
        with RawServer(replies()) as server:
            register(agent, server.url, "--todisk")
        stored.append(stored_option(written(agent), "passwd"))
    assert stored[0] != stored[1]
    assert decrypt(KEY, stored[0]) == decrypt(KEY, stored[1])


@pytest.mark.parametrize("agent_type, sent", [("1", "1"), ("3", "3"), ("007", "7"), ("99", "99")])
def test_other_agent_types_keep_the_templates_account(agent: Host, agent_type: str, sent: str) -> None:
    with RawServer(replies()) as server:
        result = register(agent, server.url, "--todisk", agent_type=agent_type)
    assert result.status == 0
    assert server.requests[0].parts() == first_form(agent_type=sent)
    assert written(agent).read_bytes() == agent_provisioned(agent.work / "agent")


def test_agent_type_two_masks_the_account(agent: Host) -> None:
    (agent.work / "agent" / "keys" / KEY_FILE).unlink()
    with RawServer(replies()) as server:
        result = register(agent, server.url, "--todisk", agent_type="2")
    assert result.status == 0
    assert server.requests[0].parts() == first_form(agent_type="2")
    assert written(agent).read_bytes() == agent_provisioned(agent.work / "agent", ("TWLX_AGENT", MASK))


def test_without_an_agent_type_nothing_is_registered(agent: Host) -> None:
    with RawServer() as server:
        result = register(agent, server.url, agent_type=None)
    assert result == refused("Registering component type Agent is not supported.")
    assert server.connections == 0


def refused(description: str, stderr: bytes = b"", stdout: bytes = b"") -> Result:
    """A run that failed with this description."""
    return Result(EXIT_FAILURE, stdout, stderr + failed("register", description))


@pytest.mark.parametrize(
    "given, sent",
    [("0", "0"), ("5", "5"), ("18446744073709551615", "-1"), ("9223372036854775808", "-9223372036854775808")],
)
def test_an_agent_id_given_travels_as_a_signed_number(agent: Host, given: str, sent: str) -> None:
    with RawServer(replies()) as server:
        register(agent, server.url, "--agentid", given)
    assert server.requests[0].parts() == first_form(agent_id=sent)


def test_the_key_directory_travels_when_given(agent: Host) -> None:
    with RawServer(replies()) as server:
        register(agent, server.url, "--keydir", "/k")
    assert server.requests[0].parts() == first_form(keydir=[("keydir", "/k")])


def test_an_empty_host_name_is_this_hosts_own(agent: Host) -> None:
    agent.set_name("own-name.example")
    with RawServer(replies()) as server:
        arguments = ("--type", "Agent", "--hostname", "", "--agentType", "0", "--url", server.url)
        agent.run("--action", "register", *arguments, *ACCOUNT)
    assert server.requests[0].parts() == first_form(host_name="own-name.example")


@pytest.mark.parametrize("answered, asked", [("1", "1"), ("-3", "-3"), ("0042", "42"), ("9223372036854775807",) * 2])
def test_the_configuration_file_is_asked_for_under_the_new_id(agent: Host, answered: str, asked: str) -> None:
    with RawServer(replies(agent_answer(agent_id=answered))) as server:
        assert register(agent, server.url).status == 0
    assert server.requests[1].parts() == second_form(asked)


@pytest.mark.parametrize("agent_id", ["12x", "x", "", "1.5", "12 ", "0x12", "9223372036854775808", "1\n2"])
def test_an_agent_id_that_is_no_number_ends_the_run(agent: Host, agent_id: str) -> None:
    with RawServer(replies(agent_answer(agent_id=agent_id))) as server:
        result = register(agent, server.url, "--todisk")
    assert result == refused(f"Conversion from string failed for string {agent_id}")
    assert len(server.requests) == 1 and not written(agent).exists()


COLUMNS = {"agentid": "42", "login": "agent_42", "password": "s3cret"}


@pytest.mark.parametrize("missing", COLUMNS)
@pytest.mark.parametrize("how", ["absent", "of unknown type"])
def test_a_column_that_is_missing_is_named(agent: Host, missing: str, how: str) -> None:
    names = [name for name in COLUMNS if name != missing or how == "of unknown type"]
    columns = [(name, "S" if name != missing else "X") for name in names]
    answer = data_answer(columns, [[COLUMNS[name] for name in names]])
    with RawServer(replies(answer)) as server:
        result = register(agent, server.url, "--todisk")
    assert result == refused(f"Missing required field: {missing}")
    assert len(server.requests) == 1


def test_a_record_that_ends_early_lacks_its_last_column(agent: Host) -> None:
    answer = agent_answer().replace(b"|s3cret", b"")
    with RawServer(replies(answer)) as server:
        assert register(agent, server.url) == refused("Missing required field: password")


def test_only_the_first_record_counts(agent: Host) -> None:
    columns = [("password", "C"), ("agentid", "Integer"), ("skipped", "X"), ("login", "String")]
    answer = data_answer(columns, [["one", "1", "x", "first"], ["two", "2", "x", "second"]], marker="***START***")
    with RawServer(replies(answer)) as server:
        assert register(agent, server.url, "--todisk").status == 0
    assert stored_option(written(agent), "login") == b"first"
    assert decrypt(KEY, stored_option(written(agent), "passwd")) == b"one"


@pytest.mark.parametrize("password", ["p|a\\s=s;w[o]r#d", "\ttab and blank ", "line\nbreak\r", "ü€", "x" * 600])
def test_any_password_is_stored_on_one_line(agent: Host, password: str) -> None:
    with RawServer(replies(agent_answer(password=password))) as server:
        assert register(agent, server.url, "--todisk").status == 0
    assert decrypt(KEY, stored_option(written(agent), "passwd")) == password.encode()


@pytest.mark.parametrize("login, password", [("", "s3cret"), ("agent_42", ""), ("", "")])
def test_an_empty_account_leaves_the_templates_and_the_key_file_alone(agent: Host, login: str, password: str) -> None:
    (agent.work / "agent" / "keys" / KEY_FILE).unlink()
    with RawServer(replies(agent_answer(login=login, password=password))) as server:
        assert register(agent, server.url, "--todisk").status == 0
    assert written(agent).read_bytes() == agent_provisioned(agent.work / "agent")


UNUSABLE_KEY_FILES = ("missing", "empty", "locked", "directory")


@pytest.mark.parametrize("how", UNUSABLE_KEY_FILES)
def test_a_key_file_that_cannot_be_used_ends_the_run(agent: Host, how: str) -> None:
    key = agent.work / "agent" / "keys" / KEY_FILE
    if how == "empty":
        key.write_bytes(b"")
    elif how == "locked":
        key.chmod(0)
    else:
        key.unlink()
    if how == "directory":
        key.mkdir()
    with RawServer(replies()) as server:
        result = register(agent, server.url, "--todisk")
    assert result == refused("Failed to encrypt password from file\n")
    assert not written(agent).exists()


def test_a_password_too_long_to_store_ends_the_run(agent: Host) -> None:
    with RawServer(replies(agent_answer(password="x" * 1000))) as server:
        assert register(agent, server.url) == refused("Failed to encrypt password from file\n")


@pytest.mark.parametrize("template", ["[paths]\nvar=var\n", "[other]\nkeydir=keys\n", ""])
def test_a_template_without_a_key_directory_ends_the_run(agent: Host, template: str) -> None:
    with RawServer(replies(template=template)) as server:
        assert register(agent, server.url) == refused("Failed to load keydir from file\n")


def test_the_key_directory_may_be_absolute(agent: Host) -> None:
    own = agent.work / "own keys"
    own.mkdir()
    (own / KEY_FILE).write_bytes(b"another key")
    with RawServer(replies(template=f"[paths]\nkeydir={own}\n")) as server:
        assert register(agent, server.url, "--todisk").status == 0
    assert decrypt(b"another key", stored_option(written(agent), "passwd")) == b"s3cret"


FAILED_CALLS = {
    "error": (http_answer(error_answer("host is known")), [error_returned("host is known")]),
    "not parsed": (http_answer("<html></html>"), [NOT_PARSED]),
    "closed": (b"", [NETWORK_ERROR]),
}


@pytest.mark.parametrize("reply, messages", FAILED_CALLS.values(), ids=FAILED_CALLS.keys())
def test_a_failed_registration_asks_for_nothing_more(agent: Host, reply: bytes, messages: list[bytes]) -> None:
    with RawServer([reply, *replies()]) as server:
        result = register(agent, server.url, "--todisk")
    assert result == Result(EXIT_FAILURE, b"", call_failed("register", *messages))
    assert server.connections == 1


@pytest.mark.parametrize("reply, messages", FAILED_CALLS.values(), ids=FAILED_CALLS.keys())
def test_a_configuration_file_that_cannot_be_had_fails_the_action(
    agent: Host, reply: bytes, messages: list[bytes]
) -> None:
    with RawServer([http_answer(agent_answer()), reply]) as server:
        result = register(agent, server.url, "--todisk")
    assert result == Result(EXIT_FAILURE, b"", call_failed("register", *messages))
    assert not written(agent).exists()


def test_an_answer_without_records_ends_the_run(agent: Host) -> None:
    with RawServer([http_answer(empty_answer())]) as server:
        assert register(agent, server.url) == refused(NO_RECORDS)


def test_a_missing_storage_path_is_found_after_the_registration(host: Host) -> None:
    with RawServer(replies()) as server:
        result = register(host, server.url, "--server")
    assert result == refused("Could not find storage in parameter", NO_REGISTRY, executable_path("/opt/quorvex"))
    assert [request.parts() for request in server.requests] == [first_form()]


def test_a_file_that_cannot_be_opened_fails_after_both_calls(agent: Host) -> None:
    path = agent.work / "missing" / "Agent.cfg"
    with RawServer(replies()) as server:
        result = register(agent, server.url, "--todisk", "--file", str(path))
    assert result == refused(f"Failed to write configuration file: {path}\n")
    assert len(server.requests) == 2


def test_a_closed_standard_output_does_not_reach_the_file(agent: Host) -> None:
    with RawServer(replies()) as server:
        arguments = ("--type", "Agent", "--hostname", "web01", "--agentType", "0", "--url", server.url, "--todisk")
        agent.run("--action", "register", *arguments, *ACCOUNT, shell='"$@" >&-')
    stored = stored_option(written(agent), "passwd")
    assert written(agent).read_bytes() == agent_provisioned(agent.work / "agent", ("agent_42", stored.decode()))
    assert [request.parts() for request in server.requests] == [first_form(), second_form("42")]


def register_with(host: Host, authority: Authority, *more: str, agent_type: str = "0") -> Result:
    """Runs register against the authority with the administrator's account."""
    return register(host, authority.url, *more, "--todisk", agent_type=agent_type, account=authority.account)


def test_the_authority_knows_the_host_that_registered(agent: Host, authority: Authority) -> None:
    result = register_with(agent, authority)
    assert result == Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("register"))
    assert "web01" in authority.show("agents")
    login = stored_option(written(agent), "login").decode()
    assert login in authority.show("accounts")
    stored = stored_option(written(agent), "passwd").decode()
    template = authority.template(1, agent_id=int(FIRST_AGENT_ID))
    expected = provisioned(template, 1, str(agent.work / "agent"), (login, stored))
    assert written(agent).read_text() == expected
    assert stored_option(written(agent), "agentid").decode() == FIRST_AGENT_ID


def test_the_account_received_opens_the_authority(agent: Host, authority: Authority) -> None:
    register_with(agent, authority)
    login = stored_option(written(agent), "login").decode()
    password = decrypt(KEY, stored_option(written(agent), "passwd")).decode()
    result = agent.run("--action", "discover", "--url", authority.url, "--login", login, "--passwd", password)
    assert result == Result(0, b"", completed("discover"))


def test_a_server_agent_gets_its_directories(agent: Host, authority: Authority) -> None:
    base = agent.work / "storage"
    (base / "keys").mkdir(parents=True)
    (base / "keys" / KEY_FILE).write_bytes(KEY)
    result = register_with(agent, authority, "--server", "--mkdir", "--storage", str(base))
    assert result.status == 0
    template = authority.template(2, agent_id=int(FIRST_AGENT_ID))
    login, stored = (stored_option(written(agent), name).decode() for name in ("login", "passwd"))
    assert written(agent).read_text() == provisioned(template, 2, str(base), (login, stored))
    assert all((base / name).is_dir() for name in ("var", "keys", "log", "temp"))


def test_two_hosts_get_two_ids_and_accounts(agent: Host, authority: Authority) -> None:
    register_with(agent, authority)
    first = written(agent).read_bytes()
    arguments = ("--type", "Agent", "--hostname", "web02", "--agentType", "1", "--url", authority.url, "--todisk")
    assert agent.run("--action", "register", *arguments, *authority.account).status == 0
    assert stored_option(written(agent), "agentid").decode() != FIRST_AGENT_ID
    assert written(agent).read_bytes() != first
    assert all(name in authority.show("agents") for name in ("web01", "web02"))


def test_a_wrong_password_is_refused_in_the_authoritys_words(agent: Host, authority: Authority) -> None:
    result = register(agent, authority.url, "--todisk", account=("--login", LOGIN, "--passwd", "wrong"))
    assert (result.status, result.stdout) == (EXIT_FAILURE, b"")
    first, _, rest = result.stderr.partition(b"\n")
    assert first.startswith(b"The webservice returned an error :") and b"***" not in result.stderr
    assert call_failed("register") == rest.lstrip(b"\n")
    assert "web01" not in authority.show("agents")
    assert not written(agent).exists()
