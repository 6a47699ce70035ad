"""The action createds: a data selection for a registered agent."""

from __future__ import annotations

from typing import Optional, Sequence

import pytest

from harness.answers import data_answer, empty_answer, error_answer
from harness.authority import Authority
from harness.credentials import CredentialFile
from harness.messages import NO_REGISTRY, NOT_PARSED, call_failed, completed, error_returned, executable_path, failed
from harness.passwords import KEY_FILE, encrypt
from harness.raw_server import RawServer, Request, http_answer
from harness.round_trip import ACCOUNTS, provision
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.templates import stored_option

KEY = b"the host's key file"
NO_RULES = b"Warning: No dsrules parameter given. Continuing without.\n"
SUCCESS = Result(0, b"", completed("createds"))
NAME = ("--dsname", "home", "--dstypeid", "4")
RULED = (*NAME, "--dsrules", "include /home\nexclude *.tmp|*~")


def create(host: Host, *options: str) -> Result:
    """Runs the action createds."""
    return host.run("--action", "createds", "--type", "Agent", *options)


def refused(description: str, stderr: bytes = b"") -> Result:
    """A run that failed with this description."""
    return Result(EXIT_FAILURE, b"", stderr + failed("createds", description))


@pytest.fixture
def credentials(host: Host) -> CredentialFile:
    """A credential file whose key directory holds no key file, so its password is plain."""
    return CredentialFile(host.work / "Agent.cfg", keydir=str(host.work / "keys"))


def exchange(
    host: Host, file: CredentialFile, *options: str, answer: bytes = empty_answer()
) -> tuple[Result, Request]:
    """Points the credential file to a server with this answer and runs the action."""
    with RawServer([http_answer(answer)]) as server:
        file.url = server.url
        file.write()
        result = create(host, "--configfile", str(file.path), *options)
    return result, server.only_request()


def form(keydir: object, **changes: str) -> list[tuple[str, str]]:
    """The parts of the request, in ascending order."""
    fields = {
        "action": "createDS",
        "agentid": "42",
        "dataselection": RULED[-1],
        "dstypeid": "4",
        "keydir": str(keydir),
        "login": "agent_42",
        "name": "home",
        "passwd": "s3cret",
        **changes,
    }
    return sorted(fields.items())


def test_name_type_and_rules_travel_under_their_own_names(host: Host, credentials: CredentialFile) -> None:
    result, request = exchange(host, credentials, *RULED)
    assert result == SUCCESS
    assert request.request_line == "POST /ws_dataselection.php HTTP/1.1"
    assert request.parts() == form(credentials.keydir)


@pytest.mark.parametrize("rules", [(), ("--dsrules", "")])
def test_without_rules_the_run_goes_on_with_a_warning(
    host: Host, credentials: CredentialFile, rules: Sequence[str]
) -> None:
    result, request = exchange(host, credentials, *NAME, *rules)
    assert result == Result(0, b"", NO_RULES + completed("createds"))
    assert request.parts() == form(credentials.keydir, dataselection="")


@pytest.mark.parametrize("name", ["a b", "ä|\\", 'q"', "x" * 5000, "-"])
def test_any_name_travels_unchanged(host: Host, credentials: CredentialFile, name: str) -> None:
    result, request = exchange(host, credentials, *RULED[2:], "--dsname", name)
    assert result == SUCCESS
    assert request.parts() == form(credentials.keydir, name=name)


@pytest.mark.parametrize(
    "given, sent",
    [("7", "7"), ("0", "0"), ("007", "7"), ("18446744073709551615", "18446744073709551615")],
)
def test_an_agent_id_option_goes_before_the_file_and_travels_unsigned(
    host: Host, credentials: CredentialFile, given: str, sent: str
) -> None:
    _, request = exchange(host, credentials, *RULED, "--agentid", given)
    assert request.parts() == form(credentials.keydir, agentid=sent)


@pytest.mark.parametrize("given, sent", [("0", "0"), ("007", "7"), ("9223372036854775807", "9223372036854775807")])
def test_a_type_travels_in_decimal(host: Host, credentials: CredentialFile, given: str, sent: str) -> None:
    _, request = exchange(host, credentials, "--dsname", "home", "--dsrules", RULED[-1], "--dstypeid", given)
    assert request.parts() == form(credentials.keydir, dstypeid=sent)


@pytest.mark.parametrize(
    "given, text", [("9223372036854775808", "-9223372036854775808"), ("18446744073709551615", "-1")]
)
def test_a_type_beyond_the_signed_numbers_is_refused_before_any_request(
    host: Host, credentials: CredentialFile, given: str, text: str
) -> None:
    with RawServer() as server:
        credentials.url = server.url
        credentials.write()
        result = create(host, "--configfile", str(credentials.path), "--dsname", "home", "--dstypeid", given)
    assert result == refused(f"String is not a number: {text}")
    assert server.connections == 0


@pytest.mark.parametrize("agent_id, sent", [("7", "7"), ("", ""), (None, ""), ("text", "text")])
def test_without_an_option_the_files_agent_id_travels(
    host: Host, credentials: CredentialFile, agent_id: Optional[str], sent: str
) -> None:
    credentials.agentid = agent_id
    result, request = exchange(host, credentials, *RULED)
    assert result == SUCCESS
    assert request.parts() == form(credentials.keydir, agentid=sent)


def test_account_options_go_before_the_file_but_its_key_directory_stays(
    host: Host, credentials: CredentialFile
) -> None:
    options = ("--login", "other", "--passwd", "word", "--keydir", "/other", "--url", "http://127.0.0.1:9")
    _, request = exchange(host, credentials, *RULED, *options)
    assert request.parts() == form(credentials.keydir, login="other", passwd="word")


def test_an_encrypted_password_travels_plain(host: Host, credentials: CredentialFile) -> None:
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    credentials.passwd = encrypt(KEY, b"plain")
    result, request = exchange(host, credentials, *RULED)
    assert result == SUCCESS
    assert request.parts() == form(credentials.keydir, passwd="plain")


def test_an_empty_name_is_refused_before_the_warnings(host: Host, credentials: CredentialFile) -> None:
    credentials.write()
    result = create(host, "--configfile", str(credentials.path), "--dsname", "", "--dstypeid", "4")
    assert result == refused("Parameter dsname is empty. Please provide valid input")


def test_an_unusable_credential_file_is_told_before_an_empty_name(host: Host) -> None:
    result = create(host, "--configfile", "/nowhere", "--dsname", "", "--dstypeid", "4")
    assert result == refused("Failed to load from file /nowhere\n", b"Failed to open input file:/nowhere\n")


@pytest.mark.parametrize("missing", ["url", "login", "passwd", "keydir"])
def test_each_missing_option_of_the_credential_file_is_named(
    host: Host, credentials: CredentialFile, missing: str
) -> None:
    setattr(credentials, missing, None)
    credentials.write()
    result = create(host, "--configfile", str(credentials.path), *RULED)
    assert result == refused(f"Failed to load {missing} from file\n")


def test_a_tampered_password_sends_nothing(host: Host, credentials: CredentialFile) -> None:
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    with RawServer() as server:
        credentials.url, credentials.passwd = server.url, encrypt(b"another key", b"s3cret")
        credentials.write()
        result = create(host, "--configfile", str(credentials.path), *RULED)
    assert result == refused("Failed to decrypt password for user agent_42")
    assert server.connections == 0


@pytest.mark.parametrize("product", [(), ("--productname", "Other")])
def test_the_registry_names_the_credential_file(
    host: Host, credentials: CredentialFile, product: Sequence[str]
) -> None:
    host.register_component(product[1] if product else "Agent", str(credentials.path), "/opt/agent")
    with RawServer([http_answer(empty_answer())]) as server:
        credentials.url = server.url
        credentials.write()
        assert create(host, *RULED, *product) == SUCCESS


def test_a_registry_that_lacks_the_product_fails(host: Host) -> None:
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", "/opt/agent")
    assert create(host, *RULED, "--productname", "Other") == refused("Could not open TZRegister")


def test_without_a_registry_the_default_credential_file_is_read(host: Host) -> None:
    message = NO_REGISTRY + b"Failed to open input file:/etc/quorvex/Agent.cfg\n"
    description = "Failed to load from file /etc/quorvex/Agent.cfg\n"
    expected = message + failed("createds", description)
    assert create(host, *RULED) == Result(EXIT_FAILURE, executable_path("/opt/quorvex"), expected)


@pytest.mark.parametrize(
    "answer, expected",
    [
        (data_answer([("dataselectionid", "I")], [["1"], ["2"]]), SUCCESS),
        (
            error_answer("no such agent"),
            Result(EXIT_FAILURE, b"", call_failed("createds", error_returned("no such agent"))),
        ),
        (b"", Result(EXIT_FAILURE, b"", call_failed("createds", NOT_PARSED))),
    ],
    ids=["records", "error", "empty"],
)
def test_the_answer_decides(host: Host, credentials: CredentialFile, answer: bytes, expected: Result) -> None:
    result, _ = exchange(host, credentials, *RULED, answer=answer)
    assert result == expected


@pytest.mark.parametrize("agent_type, has_key, account", ACCOUNTS)
def test_the_account_that_was_provisioned_is_the_one_that_travels(
    host: Host, agent_type: Optional[str], has_key: bool, account: tuple[str, str]
) -> None:
    with RawServer() as server:
        keys = provision(host, server, agent_type, has_key, empty_answer())
        assert create(host, *RULED) == SUCCESS
    assert server.requests[-1].parts() == form(keys, login=account[0], passwd=account[1])


def test_the_authority_keeps_the_selection_of_a_registered_agent(host: Host, authority: Authority) -> None:
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(host.work))
    options = ("--hostname", "web01", "--agentType", "0", "--url", authority.url, "--todisk")
    assert host.run("--action", "register", "--type", "Agent", *options, *authority.account).status == 0
    agent_id = stored_option(host.etc_quorvex / "Agent.cfg", "agentid").decode()
    assert create(host, *RULED, "--agentid", agent_id) == SUCCESS
    shown = authority.show("dataselections")
    assert "home" in shown and "include /home" in shown
    assert create(host, *RULED, "--agentid", "99").status == EXIT_FAILURE
