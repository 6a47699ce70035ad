"""The action routingtables: a pool's two tables, fetched with the account of a credential file."""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Optional, Sequence

import pytest

from harness.answers import data_answer, empty_answer, error_answer, routing_answer
from harness.authority import Authority
from harness.credentials import CredentialFile
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
)
from harness.passwords import KEY_FILE, MASK, encrypt
from harness.raw_server import RawServer, Request, http_answer
from harness.round_trip import ACCOUNTS, provision
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.templates import stored_option

KEY = b"the host's key file"
RECOMMENDED = "# recommended\n0000-ffff\tcr01|10082\\x\r\nend"
CURRENT = "# current\n0000-ffff\tcr00\nend\n"
PAGE_BYTES = 4096
AGENT_ID_MISSING = "agentid is missing, it is required for GetRoutingTables."


def fetch(host: Host, configfile: Optional[Path], *more: str, pool: str = "3", agent_id: str = "42") -> Result:
    """Runs routingtables with a credential file."""
    named = ("--configfile", str(configfile)) if configfile is not None else ()
    numbers = ("--storagepoolid", pool, "--agentid", agent_id)
    return host.run("--action", "routingtables", "--type", "Agent", *numbers, *named, *more)


def refused(description: str, stderr: bytes = b"", stdout: bytes = b"") -> Result:
    """A run that failed with this description."""
    return Result(EXIT_FAILURE, stdout, stderr + failed("routingtables", description))


def printed(stdout: bytes = (RECOMMENDED + CURRENT).encode()) -> Result:
    """A run that succeeded and printed this."""
    return Result(0, stdout, completed("routingtables"))


@pytest.fixture
def credentials(host: Host) -> CredentialFile:
    """A credential file whose key directory holds no key file, so its password is plain."""
    return CredentialFile(host.work / "Agent.cfg", keydir=str(host.work / "keys"))


def exchange(
    host: Host, file: CredentialFile, *more: str, answer: bytes = routing_answer(RECOMMENDED, CURRENT), **numbers: str
) -> tuple[Result, Request]:
    """Points the credential file to a server with this answer and runs the action."""
    with RawServer([http_answer(answer)]) as server:
        file.url = server.url
        file.write()
        result = fetch(host, file.path, *more, **numbers)
    return result, server.only_request()


def form(
    keydir: object, passwd: str = "s3cret", login: str = "agent_42", pool: str = "3", agent_id: str = "42"
) -> list[tuple[str, str]]:
    """The parts of the request, in ascending order; no "id" for an agent id that is not positive."""
    identity = [("id", agent_id)] if agent_id else []
    return [
        ("action", "getRoutingTables"),
        *identity,
        ("keydir", str(keydir)),
        ("login", login),
        ("passwd", passwd),
        ("storagepoolId", pool),
    ]


def test_both_tables_are_printed_one_behind_the_other(host: Host, credentials: CredentialFile) -> None:
    result, request = exchange(host, credentials)
    assert result == printed()
    assert request.request_line == "POST /ws_agent.php HTTP/1.1"
    assert request.parts() == form(credentials.keydir)


@pytest.mark.parametrize(
    "pool, pool_sent, agent_id, agent_id_sent",
    [
        ("0", "0", "1", "1"),
        ("9223372036854775808", "-9223372036854775808", "0", ""),
        ("18446744073709551615", "-1", "18446744073709551615", ""),
        ("007", "7", "9223372036854775807", "9223372036854775807"),
    ],
)
def test_numbers_travel_signed_and_an_agent_id_only_when_positive(
    host: Host, credentials: CredentialFile, pool: str, pool_sent: str, agent_id: str, agent_id_sent: str
) -> None:
    result, request = exchange(host, credentials, pool=pool, agent_id=agent_id)
    assert result == printed()
    assert request.parts() == form(credentials.keydir, pool=pool_sent, agent_id=agent_id_sent)


def test_account_options_go_before_the_file_but_its_key_directory_stays(
    host: Host, credentials: CredentialFile
) -> None:
    options = ("--login", "other", "--passwd", "word", "--keydir", "/other", "--url", "http://127.0.0.1:9")
    _, request = exchange(host, credentials, *options)
    assert request.parts() == form(credentials.keydir, "word", "other")


def test_a_password_file_goes_before_the_stored_password(host: Host, credentials: CredentialFile) -> None:
    (host.work / "passwd").write_bytes(b"passwd=from file\n")
    _, request = exchange(host, credentials, "--passwdfile", "passwd")
    assert request.parts() == form(credentials.keydir, "from file")


def test_an_encrypted_password_travels_plain(host: Host, credentials: CredentialFile) -> None:
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    credentials.passwd = encrypt(KEY, "plän | text".encode())
    result, request = exchange(host, credentials)
    assert result == printed()
    assert request.parts() == form(credentials.keydir, "plän | text")


@pytest.mark.parametrize("keydir", ["keys/", "keys"])
def test_the_key_directory_travels_as_it_stands(host: Host, credentials: CredentialFile, keydir: str) -> None:
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    credentials.keydir, credentials.passwd = keydir, encrypt(KEY, b"plain")
    _, request = exchange(host, credentials)
    assert request.parts() == form(keydir, "plain")


def test_the_fixed_login_travels_with_its_stored_password(host: Host, credentials: CredentialFile) -> None:
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    credentials.login, credentials.passwd = "TWLX_AGENT", MASK
    _, request = exchange(host, credentials)
    assert request.parts() == form(credentials.keydir, MASK, "TWLX_AGENT")


TAMPERED: dict[str, Callable[[str], str]] = {
    "plain text": lambda stored: "s3cret",
    "another key's": lambda stored: encrypt(b"another key", b"s3cret"),
    "first letter": lambda stored: "x" + stored[1:],
    "a letter inside": lambda stored: stored[:30] + ("A" if stored[30] != "A" else "B") + stored[31:],
    "cut off": lambda stored: stored[:-1],
    "longer": lambda stored: stored + "A",
    "padded": lambda stored: stored + "=",
    "mark alone": lambda stored: stored[:4],
    "empty": lambda stored: "",
}


@pytest.mark.parametrize("login", ["agent_42", "twlx_agent", "TWLX_AGENT2"])
@pytest.mark.parametrize("how", TAMPERED)
def test_a_tampered_password_sends_nothing(host: Host, credentials: CredentialFile, how: str, login: str) -> None:
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    credentials.login, credentials.passwd = login, TAMPERED[how](encrypt(KEY, b"s3cret"))
    assert_nothing_sent(host, credentials, refused(f"Failed to decrypt password for user {login}"))


def assert_nothing_sent(host: Host, file: CredentialFile, expected: Result) -> None:
    """Runs the action with a credential file that must stop it before any request."""
    with RawServer() as server:
        file.url = file.url and server.url
        file.write()
        assert fetch(host, file.path) == expected
    assert server.connections == 0


@pytest.mark.parametrize("how", ["empty", "locked", "directory"])
def test_a_key_file_that_cannot_be_used_sends_nothing(host: Host, credentials: CredentialFile, how: str) -> None:
    key = host.work / "keys" / KEY_FILE
    key.parent.mkdir()
    if how == "directory":
        key.mkdir()
    else:
        key.write_bytes(KEY if how == "locked" else b"")
        key.chmod(0 if how == "locked" else 0o600)
    credentials.passwd = encrypt(KEY, b"s3cret")
    assert_nothing_sent(host, credentials, refused("Failed to decrypt password for user agent_42"))


@pytest.mark.parametrize("missing", ["url", "login", "passwd", "keydir"])
@pytest.mark.parametrize("alone", [True, False], ids=["alone", "with all that follow"])
def test_each_missing_option_is_named_the_first_one_first(
    host: Host, credentials: CredentialFile, missing: str, alone: bool
) -> None:
    order = ["url", "login", "passwd", "keydir"]
    for name in [missing] if alone else order[order.index(missing) :]:
        setattr(credentials, name, None)
    assert_nothing_sent(host, credentials, refused(f"Failed to load {missing} from file\n"))


def test_an_agent_id_in_the_file_is_not_needed(host: Host, credentials: CredentialFile) -> None:
    credentials.agentid = None
    result, request = exchange(host, credentials)
    assert result == printed()
    assert request.parts() == form(credentials.keydir)


def test_a_credential_file_that_is_missing_is_named(host: Host) -> None:
    path = host.work / "missing.cfg"
    message = f"Failed to open input file:{path}\n".encode()
    assert fetch(host, path) == refused(f"Failed to load from file {path}\n", message)


def test_a_directory_as_credential_file_is_named(host: Host) -> None:
    assert fetch(host, host.work) == refused(f"Failed to load from file {host.work}\n")


def test_a_credential_file_that_may_not_be_read_is_named(host: Host, credentials: CredentialFile) -> None:
    credentials.write()
    credentials.path.chmod(0)
    message = f"Failed to open input file:{credentials.path}\n".encode()
    assert fetch(host, credentials.path) == refused(f"Failed to load from file {credentials.path}\n", message)


def test_a_broken_credential_file_is_named_behind_its_bad_line(host: Host, credentials: CredentialFile) -> None:
    credentials.path.write_text("[spa] url\n")
    expected = refused(f"Failed to load from file {credentials.path}\n", b"Found invalid line: [spa] url\n")
    assert fetch(host, credentials.path) == expected


def test_an_empty_credential_file_lacks_the_address(host: Host, credentials: CredentialFile) -> None:
    credentials.path.write_bytes(b"")
    assert fetch(host, credentials.path) == refused("Failed to load url from file\n")


@pytest.mark.parametrize("configfile", ["/nowhere", ""])
def test_without_an_agent_id_option_nothing_is_read(host: Host, configfile: str) -> None:
    arguments = ("--type", "Agent", "--storagepoolid", "3", "--configfile", configfile)
    assert host.run("--action", "routingtables", *arguments) == refused(AGENT_ID_MISSING)


def test_an_empty_credential_file_name_is_told_in_the_same_words(host: Host) -> None:
    result = host.run(
        "--action", "routingtables", "--type", "Agent", "--storagepoolid", "3", "--agentid", "1", "--configfile", ""
    )
    assert result == refused(AGENT_ID_MISSING)


@pytest.mark.parametrize("product", [(), ("--productname", "Other")])
def test_the_registry_names_the_credential_file(
    host: Host, credentials: CredentialFile, product: Sequence[str]
) -> None:
    host.register_component(product[1] if product else "Agent", str(credentials.path), "/opt/agent")
    with RawServer([http_answer(routing_answer(RECOMMENDED, CURRENT))]) as server:
        credentials.url = server.url
        credentials.write()
        assert fetch(host, None, *product) == printed()


def test_without_a_registry_the_default_credential_file_is_read(host: Host, credentials: CredentialFile) -> None:
    credentials.path = host.etc_quorvex / "Agent.cfg"
    with RawServer([http_answer(routing_answer("r", "c"))]) as server:
        credentials.url = server.url
        credentials.write()
        result = fetch(host, None)
    stdout = executable_path("/opt/quorvex") + b"rc"
    assert result == Result(0, stdout, NO_REGISTRY + completed("routingtables"))


def test_two_named_files_get_one_table_each(host: Host, credentials: CredentialFile) -> None:
    for _ in range(2):
        result, _ = exchange(host, credentials, "--file", "recommended", "--file2", "current")
        assert result == printed(b"")
        assert (host.work / "recommended").read_bytes() == RECOMMENDED.encode()
        assert (host.work / "current").read_bytes() == CURRENT.encode()
        for name in ("recommended", "current"):
            (host.work / name).write_bytes(b"longer than any table\n" * 100)


@pytest.mark.parametrize("shell", ['"$@" >/dev/full', '"$@" >&-'], ids=["full", "closed"])
def test_tables_that_standard_output_cannot_take_fail_the_run(
    host: Host, credentials: CredentialFile, shell: str
) -> None:
    with RawServer([http_answer(routing_answer(RECOMMENDED, CURRENT))]) as server:
        credentials.url = server.url
        credentials.write()
        arguments = ("--storagepoolid", "3", "--agentid", "42", "--configfile", str(credentials.path))
        result = host.run("--action", "routingtables", "--type", "Agent", *arguments, shell=shell)
    assert result == refused("Failed to write file: \n")


@pytest.mark.parametrize("options", [("--file", "", "--file2", "b"), ("--file", "a", "--file2", ""), ("--file2", "b")])
def test_with_one_name_only_both_tables_are_printed(
    host: Host, credentials: CredentialFile, options: Sequence[str]
) -> None:
    result, _ = exchange(host, credentials, *options)
    assert result == printed()
    assert [path.name for path in host.work.iterdir()] == ["Agent.cfg"]


@pytest.mark.parametrize(
    "options, description",
    [
        (("--todisk",), "dirargument is missing\n"),
        (("--todisk", "--file", "a", "--file2", "b"), "dirargument is missing\n"),
        (("--todisk", "--keydir", "/k"), "dirargument is missing\n"),
        (
            ("--file", "a"),
            "Bad combination of arguments given. Please specify one of the following sets of arguments:\n"
            "- no arguments. result will be printed to standard output\n"
            '- "todisk" argument. This requires the rtdir argument (possibly from the configuration file)\n'
            '- "file" and "file2" arguments.\n',
        ),
    ],
)
def test_other_output_options_are_refused_before_any_request(
    host: Host, credentials: CredentialFile, options: Sequence[str], description: str
) -> None:
    credentials.write()
    assert fetch(host, credentials.path, *options) == refused(description)
    assert [path.name for path in host.work.iterdir()] == ["Agent.cfg"]


@pytest.mark.parametrize(
    "first, second, named, left",
    [
        ("missing/a", "b", "missing/a", {"b": b""}),
        ("a", "missing/b", "missing/b", {"a": b""}),
        ("missing/a", "missing/b", "missing/a", {}),
        ("directory", "b", "directory", {"b": b""}),
        ("a", "directory", "directory", {"a": b""}),
        ("locked/a", "b", "locked/a", {"b": b""}),
        ("a", "read-only", "read-only", {"a": b"", "read-only": b"old\n"}),
    ],
)
def test_the_first_file_that_cannot_be_opened_is_named(
    host: Host, credentials: CredentialFile, first: str, second: str, named: str, left: dict[str, bytes]
) -> None:
    (host.work / "directory").mkdir()
    (host.work / "locked").mkdir(mode=0o500)
    if "read-only" in left:
        (host.work / "read-only").write_bytes(b"old\n")
        (host.work / "read-only").chmod(0o400)
    result, _ = exchange(host, credentials, "--file", first, "--file2", second)
    assert result == refused(f"Failed to write file: {named}\n")
    files = {path.name: path.read_bytes() for path in host.work.iterdir() if path.is_file()}
    assert files.pop("Agent.cfg") and files == left


def test_what_the_disk_makes_of_the_tables_is_not_looked_at(host: Host, credentials: CredentialFile) -> None:
    host.add_small_disk("/small", PAGE_BYTES)
    tables = routing_answer("r" * 2 * PAGE_BYTES, "c" * 2 * PAGE_BYTES)
    result, _ = exchange(host, credentials, "--file", "/small/a", "--file2", "/small/b", answer=tables)
    assert result == printed(b"")


@pytest.mark.parametrize(
    "answer, stderr",
    [
        (empty_answer(), failed("routingtables", NO_RECORDS)),
        (
            data_answer([("cr_currentrt", "S")], [["x"]]),
            failed("routingtables", "Missing required field: cr_recommendedrt"),
        ),
        (
            data_answer([("cr_recommendedrt", "S")], [["x"]]),
            failed("routingtables", "Missing required field: cr_currentrt"),
        ),
        (error_answer("no such pool"), call_failed("routingtables", error_returned("no such pool"))),
        (b"nothing", call_failed("routingtables", NOT_PARSED)),
    ],
    ids=["no record", "no recommended", "no current", "error", "not parsed"],
)
def test_a_bad_answer_writes_nothing(host: Host, credentials: CredentialFile, answer: bytes, stderr: bytes) -> None:
    result, _ = exchange(host, credentials, "--file", "a", "--file2", "b", answer=answer)
    assert result == Result(EXIT_FAILURE, b"", stderr)
    assert [path.name for path in host.work.iterdir()] == ["Agent.cfg"]


def test_an_address_that_leads_nowhere_is_a_network_error(host: Host, credentials: CredentialFile) -> None:
    credentials.url = "http://no-such-host.invalid"
    credentials.write()
    result = fetch(host, credentials.path)
    assert result == Result(EXIT_FAILURE, b"", call_failed("routingtables", NETWORK_ERROR))


def test_an_empty_address_in_the_file_asks_for_the_options(host: Host, credentials: CredentialFile) -> None:
    with RawServer([http_answer(routing_answer("r", "c"))]) as server:
        credentials.url = ""
        credentials.write()
        options = ("--url", server.url, "--login", "admin", "--passwd", "secret")
        assert fetch(host, credentials.path, *options) == printed(b"rc")
    expected = [pair for pair in form("", "secret", "admin") if pair[0] != "keydir"]
    assert server.only_request().parts() == expected


@pytest.mark.parametrize("empty", [("", ""), ("", "c"), ("r", "")])
def test_empty_tables_are_written_as_such(host: Host, credentials: CredentialFile, empty: tuple[str, str]) -> None:
    result, _ = exchange(host, credentials, "--file", "a", "--file2", "b", answer=routing_answer(*empty))
    assert result == printed(b"")
    assert ((host.work / "a").read_text(), (host.work / "b").read_text()) == empty


@pytest.mark.parametrize("agent_type, has_key, account", ACCOUNTS)
def test_the_account_that_was_provisioned_is_the_one_that_travels(
    host: Host, agent_type: Optional[str], has_key: bool, account: tuple[str, str]
) -> None:
    with RawServer() as server:
        keys = provision(host, server, agent_type, has_key, routing_answer("r", "c"))
        assert fetch(host, None) == printed(b"rc")
    assert server.requests[-1].parts() == form(keys, account[1], account[0])


@pytest.mark.parametrize("pool", ["1", "2"])
def test_the_authority_hands_out_its_tables_to_a_registered_agent(
    host: Host, authority: Authority, pool: str
) -> None:
    (host.work / "keys").mkdir()
    (host.work / "keys" / KEY_FILE).write_bytes(KEY)
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", str(host.work))
    options = ("--hostname", "web01", "--agentType", "0", "--url", authority.url, "--todisk")
    assert host.run("--action", "register", "--type", "Agent", *options, *authority.account).status == 0
    agent_id = stored_option(host.etc_quorvex / "Agent.cfg", "agentid").decode()
    result = fetch(host, None, "--file", "recommended", "--file2", "current", pool=pool, agent_id=agent_id)
    assert result == printed(b"")
    record = authority.first_record("ws_agent.php", {"action": "getRoutingTables", "storagepoolId": pool})
    assert (host.work / "recommended").read_bytes().decode() == record["cr_recommendedrt"]
    assert (host.work / "current").read_bytes().decode() == record["cr_currentrt"]


def test_a_pool_that_does_not_exist_is_refused_in_the_authoritys_words(host: Host, authority: Authority) -> None:
    file = CredentialFile(host.work / "Agent.cfg", authority.url, "admin", authority.password, str(host.work))
    file.write()
    result = fetch(host, file.path, pool="99", agent_id="0")
    assert (result.status, result.stdout) == (EXIT_FAILURE, b"")
    assert result.stderr.startswith(b"The webservice returned an error :")
    assert result.stderr.endswith(call_failed("routingtables"))
