"""Every message of docs/troubleshooting.md is provoked with the real program.

An entry without a case, and a case without an entry, fails.
"""

from __future__ import annotations

import re
import shutil
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Optional, Sequence

import pytest

from harness.answers import agent_answer, config_answer, data_answer, empty_answer, error_answer, routing_answer
from harness.authority import running_authority
from harness.credentials import CredentialFile
from harness.messages import failed
from harness.pages import DOCS, ROOT, Entry, entries, examples
from harness.passwords import KEY_FILE
from harness.raw_server import RawServer, Reply, http_answer, refusing_port
from harness.sandbox import EXIT_FAILURE, Host, Result
from harness.tls_files import CertificateAuthority

ENTRIES = entries()
FACTS = {"Where": {"report", "line", "output"}, "Failure": {"passing", "lasting", "both", "none"}}
SLOW_LIMIT_SECONDS = 160.0

ACCOUNT = ("--login", "admin", "--passwd", "secret")
NOWHERE = ("--url", "http://127.0.0.1:9", *ACCOUNT)
REGISTER = ("register", "--type", "Agent", "--agentType", "0", "--hostname", "h")
TABLES = ("routingtables", "--type", "Agent", "--agentid", "42", "--storagepoolid", "1")
SELECTION = ("createds", "--type", "Agent", "--dsname", "n", "--dstypeid", "1", "--dsrules", "r")
CONFIG = ("configfile", "--type", "Agent")
AGENT_CFG = "/etc/quorvex/Agent.cfg"


@dataclass(frozen=True)
class Provoked:
    """A run of an action and the whole message that it should show, spelt out."""

    action: str
    result: Result
    message: str


@dataclass(frozen=True)
class Stage:
    """A machine on which the agent is installed, and a place for a case's files."""

    host: Host
    directory: Path

    def run(
        self, message: str, action: str, *arguments: str, time_limit: float = 90.0, shell: Optional[str] = None
    ) -> Provoked:
        """Runs an action that should show this."""
        result = self.host.run("--action", action, *arguments, time_limit=time_limit, shell=shell)
        return Provoked(action, result, message)

    def ask(
        self, message: str, answers: Sequence[bytes], *arguments: str, shell: Optional[str] = None
    ) -> Provoked:
        """Runs an action against a server that gives these answers."""
        with RawServer([http_answer(answer) for answer in answers]) as server:
            return self.run(message, *arguments, "--url", server.url, *ACCOUNT, shell=shell)

    def discover(self, message: str, reply: Reply, time_limit: float = 90.0) -> Provoked:
        """Runs discover against a server that replies so."""
        with RawServer([reply]) as server:
            return self.run(message, "discover", "--url", server.url, *ACCOUNT, time_limit=time_limit)

    def write(self, name: str, text: str) -> str:
        """The path of a new file with this text."""
        (self.host.work / name).write_text(text)
        return str(self.host.work / name)

    def credentials(self, **options: Optional[str]) -> None:
        """Writes the agent's configuration file; an option that is None is left out."""
        CredentialFile(self.host.etc_quorvex / "Agent.cfg", **options).write()

    def key(self, content: bytes = b"the host's key file") -> str:
        """The key directory, with this key file."""
        keys = self.host.work / "keys"
        keys.mkdir()
        (keys / KEY_FILE).write_bytes(content)
        return str(keys)


Case = Callable[[Stage], Provoked]


@dataclass(frozen=True)
class Registered:
    """A case of the entry with this heading."""

    entry: str
    case: Case
    slow: bool


CASES: list[Registered] = []


def provokes(entry: str, slow: bool = False) -> Callable[[Case], Case]:
    """Makes a function a case of the entry with this heading."""

    def register(case: Case) -> Case:
        CASES.append(Registered(entry, case, slow))
        return case

    return register


@pytest.fixture
def stage(host: Host, tmp_path: Path) -> Stage:
    """The machine of a case."""
    host.register_component("Agent", AGENT_CFG, str(host.work))
    return Stage(host, tmp_path)


# --- Cases that are a command line and nothing else -------------------------

NO_ACTION = "at least and only one --action is expected "
TYPES = (
    "Agent ContentRouter StoragePoolAuthority MetabaseEngine MetabaseServer Controller qxwfe storagepool "
)
AGENT_ACTIONS = "Valid actions are: register configfile routingtables certificate createds "
BAD_TYPE = 'Type "<type>" is not a valid type. Must be one of "' + TYPES + '".'
NO_CREDENTIALS = "Required parameter url or login or passwd not present, or missing ws"
CAUGHT = "Exception is caught <text>"
COMBINATION = (
    "Bad combination of arguments given. Please specify one of the following sets of arguments:\n"
    "- no arguments. result will be printed to standard output\n"
    '- "todisk" argument. This requires the {} argument (possibly from the configuration file)\n'
    '- "file" and "file2" arguments.\n'
)
COMBINATION_ENTRY = COMBINATION.partition("\n")[0]

# The entry, the arguments behind --action, and the message.
COMMAND_LINES: list[tuple[str, Sequence[str], str]] = [
    ("--type is missing", ("register",), "--type is missing"),
    ("--type is missing", ("Discover",), "--type is missing"),
    (
        "--dsname and --dstypeid are reqruied",
        ("createds", "--type", "Agent", "--dsname", "n"),
        "--dsname and --dstypeid are reqruied",
    ),
    ("--storagepoolid is missing", ("routingtables", "--type", "Agent"), "--storagepoolid is missing"),
    (CAUGHT, ("discover", "--nonsense"), "Exception is caught unrecognised option '--nonsense'"),
    (
        CAUGHT,
        ("discover", "--url", "a", "--url", "b"),
        "Exception is caught option '--url' cannot be specified more than once",
    ),
    (CAUGHT, ("discover", "--url"), "Exception is caught the required argument for option '--url' is missing"),
    (
        CAUGHT,
        ("discover", "--url="),
        "Exception is caught the argument for option '--url' should follow immediately after the equal sign",
    ),
    (CAUGHT, ("discover", "--mkdir=x"), "Exception is caught option '--mkdir' does not take any arguments"),
    (
        CAUGHT,
        ("discover", "--agentid", "x"),
        "Exception is caught the argument ('x') for option '--agentid' is invalid",
    ),
    (BAD_TYPE, ("register", "--type", "agent"), BAD_TYPE.replace("<type>", "agent") + "\n"),
    (
        "Action <action> is not a valid action for type <type>.",
        ("createDS", "--type", "Agent"),
        f"Action createDS is not a valid action for type Agent.\n{AGENT_ACTIONS}\n",
    ),
    (
        "boost::bad_any_cast: failed conversion using boost::any_cast",
        ("register", "--type", "Agent", "--agentType", "0", *NOWHERE),
        "boost::bad_any_cast: failed conversion using boost::any_cast",
    ),
    (
        "Registering component type Agent is not supported.",
        ("register", "--type", "Agent", "--hostname", "h", *NOWHERE),
        "Registering component type Agent is not supported.",
    ),
    (NO_CREDENTIALS, ("discover", "--login", "admin"), NO_CREDENTIALS),
    ("url must exist in parameter", (*CONFIG, *ACCOUNT), "url must exist in parameter"),
    (
        "Could not find storage in parameter",
        (*CONFIG, "--server", *NOWHERE),
        "Could not find storage in parameter",
    ),
    (
        COMBINATION_ENTRY,
        ("certificate", "--type", "Agent", "--file", "a"),
        COMBINATION.format("keydir"),
    ),
    (COMBINATION_ENTRY, (*TABLES, "--file", "a"), COMBINATION.format("rtdir")),
    ("dirargument is missing", (*TABLES, "--todisk"), "dirargument is missing\n"),
    (
        "agentid is missing, it is required for GetRoutingTables.",
        ("routingtables", "--type", "Agent", "--storagepoolid", "1"),
        "agentid is missing, it is required for GetRoutingTables.",
    ),
    (
        "Failed to open SPA passwd file.",
        ("discover", "--url", "u", "--login", "l", "--passwdfile", "none"),
        "Failed to open SPA passwd file.",
    ),
    (
        "Required parameter passwdfile not valid",
        ("discover", "--url", "u", "--login", "l", "--passwdfile", "none"),
        "Required parameter passwdfile not valid",
    ),
    ("Can't initialize webservice.", ("discover", "--url", "vrmo://", *ACCOUNT), "Can't initialize webservice."),
    (
        "Can't initialize webservice.",
        ("discover", "--url", "vrmo://h", "--login", "a:b", "--passwd", "p"),
        "Can't initialize webservice.",
    ),
    (
        "Failed to open input file:<path>",
        SELECTION,
        f"Failed to open input file:{AGENT_CFG}",
    ),
    ("Failed to load from file <path>", SELECTION, f"Failed to load from file {AGENT_CFG}\n"),
    (
        "Could not open TZRegister",
        (*SELECTION, "--productname", "Other"),
        "Could not open TZRegister",
    ),
    (
        "Could not create certificates.",
        ("certificate", "--type", "Agent", "--todisk", "--keydir", "/nowhere"),
        "Could not create certificates.",
    ),
]


@pytest.mark.parametrize("entry, arguments, message", COMMAND_LINES)
def test_a_command_line_provokes_its_message(
    stage: Stage, entry: str, arguments: Sequence[str], message: str
) -> None:
    check(ENTRIES[entry], stage.run(message, *arguments))


# --- Cases that need a machine or a server -----------------------------------


@provokes(NO_ACTION)
def no_action(stage: Stage) -> Provoked:
    return Provoked("", stage.host.run("--version"), NO_ACTION)


@provokes(CAUGHT)
def a_shortened_option(stage: Stage) -> Provoked:
    run = stage.run("", "discover", "--agent", "1")
    ambiguous = r"Exception is caught option '--agent' is ambiguous and matches [^\n]*"
    found = re.match(ambiguous, run.result.stderr.decode())
    assert found, run.result.stderr
    return Provoked(run.action, run.result, found[0])


@provokes("Parameter dsname is empty. Please provide valid input")
def an_empty_name(stage: Stage) -> Provoked:
    stage.credentials()
    arguments = ("createds", "--type", "Agent", "--dsname", "", "--dstypeid", "1")
    return stage.run("Parameter dsname is empty. Please provide valid input", *arguments)


@provokes("Warning: No dsrules parameter given. Continuing without.")
def no_rules(stage: Stage) -> Provoked:
    with RawServer([http_answer(empty_answer())]) as server:
        stage.credentials(url=server.url)
        arguments = ("createds", "--type", "Agent", "--dsname", "n", "--dstypeid", "1")
        return stage.run("Warning: No dsrules parameter given. Continuing without.", *arguments)


@provokes("Could not find a SPA passwd from file.")
def a_password_alone(stage: Stage) -> Provoked:
    file = stage.write("spa.passwd", "secret\n")
    arguments = ("discover", "--url", "u", "--login", "l", "--passwdfile", file)
    return stage.run("Could not find a SPA passwd from file.", *arguments)


@provokes("Empty SPA passwd from file.")
def a_comment_that_comes_first(stage: Stage) -> Provoked:
    file = stage.write("spa.passwd", "# passwd=\npasswd=secret\n")
    arguments = ("discover", "--url", "u", "--login", "l", "--passwdfile", file)
    return stage.run("Empty SPA passwd from file.", *arguments)


@provokes("WebService call failed")
def a_failed_call(stage: Stage) -> Provoked:
    with refusing_port() as port:
        return stage.run("WebService call failed", "discover", "--url", f"http://127.0.0.1:{port}", *ACCOUNT)


@provokes("Server's HTTP response code was <number>")
def an_error_page(stage: Stage) -> Provoked:
    return stage.discover("Server's HTTP response code was 0", http_answer("Oops", "500 Internal Server Error"))


@provokes("Network error during webservice call")
def a_server_that_is_down(stage: Stage) -> Provoked:
    with refusing_port() as port:
        arguments = ("discover", "--url", f"http://127.0.0.1:{port}", *ACCOUNT)
        return stage.run("Network error during webservice call", *arguments)


@provokes("Network error during webservice call")
def clear_text_to_a_server_with_tls(stage: Stage) -> Provoked:
    with RawServer(tls=CertificateAuthority(stage.directory / "ca").server().context()) as server:
        arguments = ("discover", "--url", f"127.0.0.1:{server.port}", *ACCOUNT)
        return stage.run("Network error during webservice call", *arguments)


@provokes("Network error during webservice call")
def another_certificate_in_the_plugin_directory(stage: Stage) -> Provoked:
    trust(stage, CertificateAuthority(stage.directory / "other"))
    with RawServer(tls=CertificateAuthority(stage.directory / "ca").server().context()) as server:
        return stage.run("Network error during webservice call", "discover", "--url", server.url, *ACCOUNT)


@provokes("Network error during webservice call")
def a_proxy_that_is_not_there(stage: Stage) -> Provoked:
    with refusing_port() as port, RawServer([http_answer(empty_answer())]) as server:
        stage.host.environment["http_proxy"] = f"http://127.0.0.1:{port}"
        return stage.run("Network error during webservice call", "discover", "--url", server.url, *ACCOUNT)


def trust(stage: Stage, ca: CertificateAuthority) -> None:
    """Puts an authority's certificate where servers on loopback are verified by it."""
    certificates = stage.host.etc_quorvex / "certs"
    certificates.mkdir()
    shutil.copy(ca.file, certificates / "127.0.0.1.pem")


@provokes("Webservice call timed out. (curl call did not)", slow=True)
def a_server_that_never_answers(stage: Stage) -> Provoked:
    message = "Webservice call timed out. (curl call did not)"
    return stage.discover(message, lambda stream: None if stream.recv(1) else None, SLOW_LIMIT_SECONDS)


@provokes("Request failed.")
def a_channel_that_is_down(stage: Stage) -> Provoked:
    with refusing_port() as port:
        return stage.run("Request failed.", "discover", "--url", f"vrmo://127.0.0.1:{port}", *ACCOUNT)


def over_the_channel(stage: Stage, message: str, reply: bytes) -> Provoked:
    """Runs discover over the channel against a trusted server that replies so."""
    ca = CertificateAuthority(stage.directory / "ca")
    trust(stage, ca)
    with RawServer([reply], tls=ca.server().context()) as server:
        return stage.run(message, "discover", "--url", f"vrmo://127.0.0.1:{server.port}", *ACCOUNT)


@provokes("Request failed.")
def a_web_server_that_knows_no_channel(stage: Stage) -> Provoked:
    return over_the_channel(stage, "Request failed.", http_answer("<html>"))


@provokes("return status failed.")
def a_status_that_is_not_0(stage: Stage) -> Provoked:
    return over_the_channel(stage, "return status failed.", http_answer("no", headers=["X-Quorvex-Status: 1"]))


@provokes("The data returned by the webservice could not be parsed.")
def a_page_of_html(stage: Stage) -> Provoked:
    return stage.discover("The data returned by the webservice could not be parsed.", http_answer("<html>"))


@provokes("The data returned by the webservice could not be parsed.")
def a_redirect(stage: Stage) -> Provoked:
    reply = http_answer("", "301 Moved Permanently", ["Location: https://spa.example/"])
    return stage.discover("The data returned by the webservice could not be parsed.", reply)


LOGIN_FAILED = "The webservice returned an error :Login failed"


def login_with(stage: Stage, line: str) -> Provoked:
    """Runs discover against the authority, its password standing so in the file."""
    with running_authority(stage.directory / "authority") as authority:
        file = stage.write("spa.passwd", line.format(authority.password))
        arguments = ("discover", "--url", authority.url, "--login", "admin", "--passwdfile", file)
        return stage.run(LOGIN_FAILED, *arguments)


@provokes(LOGIN_FAILED)
def a_password_file_with_carriage_returns(stage: Stage) -> Provoked:
    return login_with(stage, "passwd={}\r\n")


@provokes(LOGIN_FAILED)
def a_password_in_quotes(stage: Stage) -> Provoked:
    return login_with(stage, 'passwd="{}"\n')


def registered_with(stage: Stage, url: str, password_file: Path) -> None:
    """Registers the machine with the authority."""
    stage.key()
    shutil.copy(password_file, stage.host.work / "admin.passwd")
    account = ("--url", url, "--login", "admin", "--passwdfile", "admin.passwd")
    assert stage.run("", *REGISTER, *account, "--todisk").result.status == 0


@provokes(LOGIN_FAILED)
def a_lost_key_file(stage: Stage) -> Provoked:
    with running_authority(stage.directory / "authority") as authority:
        registered_with(stage, authority.url, authority.password_file)
        (stage.host.work / "keys" / KEY_FILE).unlink()
        return stage.run(LOGIN_FAILED, *SELECTION)


@provokes(LOGIN_FAILED)
def a_second_registration_that_went_wrong(stage: Stage) -> Provoked:
    with running_authority(stage.directory / "authority") as authority:
        registered_with(stage, authority.url, authority.password_file)
        account = ("--url", authority.url, "--login", "admin", "--passwdfile", "admin.passwd")
        again = stage.run("", *REGISTER, "--agentid", "1", *account, "--todisk", "--file", "/nowhere/a.cfg")
        assert again.result.status == EXIT_FAILURE
        return stage.run(LOGIN_FAILED, *SELECTION)


@provokes("The webservice returned an error :<description>")
def a_refusal(stage: Stage) -> Provoked:
    reply = http_answer(error_answer("There is no such pool."))
    return stage.discover("The webservice returned an error :There is no such pool.", reply)


@provokes("The webservice returned an error :<description>")
def a_refusal_without_a_reason(stage: Stage) -> Provoked:
    return stage.discover("The webservice returned an error :no description", http_answer(error_answer()))


@provokes("An error occurred: no records returned by the server")
def an_empty_table(stage: Stage) -> Provoked:
    return stage.ask("An error occurred: no records returned by the server", [empty_answer()], *REGISTER)


@provokes("Missing required field: <column>")
def a_column_that_is_missing(stage: Stage) -> Provoked:
    answer = data_answer([("agentid", "I"), ("login", "S")], [["42", "agent_42"]])
    return stage.ask("Missing required field: password", [answer], *REGISTER)


@provokes("Conversion from string failed for string <text>")
def an_id_that_is_no_number(stage: Stage) -> Provoked:
    return stage.ask("Conversion from string failed for string 12x", [agent_answer("12x")], *REGISTER)


def with_template(stage: Stage, message: str, template: str, *arguments: str) -> Provoked:
    """Fetches a configuration file made of this template."""
    return stage.ask(message, [config_answer(template)], *CONFIG, *arguments)


@provokes("Failed to load from input stream ")
def a_template_that_cannot_be_read(stage: Stage) -> Provoked:
    return with_template(stage, "Failed to load from input stream ", "[a]\nno value\n")


@provokes("Found invalid line: <line>")
def text_behind_a_header(stage: Stage) -> Provoked:
    return with_template(stage, "Found invalid line: [a] x", "[a] x\n")


@provokes("Found an invalid line: <line>")
def an_option_before_any_header(stage: Stage) -> Provoked:
    return with_template(stage, "Found an invalid line: k=v", "k=v\n")


@provokes("Found an invalid key: <line>")
def an_option_without_a_name(stage: Stage) -> Provoked:
    return with_template(stage, "Found an invalid key: =v", "[a]\n=v\n")


NO_REGISTRY = "/etc/qxregistry.cfg doesn't exist, use the default values"


@provokes(NO_REGISTRY)
def a_broken_registry(stage: Stage) -> Provoked:
    stage.host.install_registry(b"[Agent]\nno value\n")
    return with_template(stage, NO_REGISTRY, "[a]\n")


@provokes("can't acccess /usr/zenta/vrmo/qxag, use the path of current executable app <path>")
def no_installation(stage: Stage) -> Provoked:
    stage.host.install_registry(b"no value\n")
    message = "can't acccess /usr/zenta/vrmo/qxag, use the path of current executable app /opt/quorvex"
    return with_template(stage, message, "[a]\n")


@provokes("Failed to get current exe path, readlink failed")
def no_proc(stage: Stage) -> Provoked:
    stage.host.install_registry(b"no value\n")
    stage.host.add_small_disk("/proc", 4096)
    return with_template(stage, "Failed to get current exe path, readlink failed", "[a]\n")


@provokes(NO_CREDENTIALS)
def an_empty_address_in_the_configuration_file(stage: Stage) -> Provoked:
    stage.credentials(url="")
    return stage.run(NO_CREDENTIALS, *SELECTION)


LOAD_OPTION = "Failed to load <option> from file"


@provokes(LOAD_OPTION)
def a_file_without_an_address(stage: Stage) -> Provoked:
    stage.credentials(url=None)
    return stage.run("Failed to load url from file\n", *SELECTION)


@provokes(LOAD_OPTION)
def a_file_without_a_login(stage: Stage) -> Provoked:
    stage.credentials(login=None)
    return stage.run("Failed to load login from file\n", *SELECTION)


@provokes(LOAD_OPTION)
def a_file_without_a_password(stage: Stage) -> Provoked:
    stage.credentials(passwd=None)
    return stage.run("Failed to load passwd from file\n", *SELECTION)


@provokes(LOAD_OPTION)
def a_template_without_a_key_directory(stage: Stage) -> Provoked:
    answers = [agent_answer(), config_answer("[paths]\n")]
    return stage.ask("Failed to load keydir from file\n", answers, *REGISTER)


@provokes("Failed to decrypt password for user <login>")
def another_key_file(stage: Stage) -> Provoked:
    stage.credentials(keydir=stage.key(), passwd="qx1.changed")
    return stage.run("Failed to decrypt password for user agent_42", *SELECTION)


@provokes("Failed to decrypt password for user <login>")
def a_configuration_file_fetched_over_the_registered_one(stage: Stage) -> Provoked:
    with running_authority(stage.directory / "authority") as authority:
        registered_with(stage, authority.url, authority.password_file)
        account = ("--url", authority.url, "--login", "admin", "--passwdfile", "admin.passwd")
        assert stage.run("", *CONFIG, "--agentid", "1", *account, "--todisk").result.status == 0
    return stage.run("Failed to decrypt password for user agent1", *SELECTION)


def register_at(stage: Stage, message: str, *arguments: str, password: str = "s3cret") -> Provoked:
    """Registers the machine with a template whose key directory is "keys"."""
    answers = [agent_answer(password=password), config_answer("[paths]\nkeydir=keys\n")]
    return stage.ask(message, answers, *REGISTER, *arguments)


ENCRYPT = "Failed to encrypt password from file"


@provokes(ENCRYPT)
def no_key_file(stage: Stage) -> Provoked:
    return register_at(stage, f"{ENCRYPT}\n")


@provokes(ENCRYPT)
def an_empty_key_file(stage: Stage) -> Provoked:
    stage.key(b"")
    return register_at(stage, f"{ENCRYPT}\n")


@provokes(ENCRYPT)
def a_password_of_721_bytes(stage: Stage) -> Provoked:
    stage.key()
    return register_at(stage, f"{ENCRYPT}\n", password="p" * 721)


@provokes("Failed to write configuration file: <path>")
def a_directory_that_is_not_there(stage: Stage) -> Provoked:
    stage.key()
    arguments = ("--todisk", "--file", "/nowhere/a.cfg")
    return register_at(stage, "Failed to write configuration file: /nowhere/a.cfg\n", *arguments)


FULL = '"$@" >/dev/full'


@provokes("Failed to write configuration file: <path>")
def a_full_disk_behind_standard_output(stage: Stage) -> Provoked:
    message = "Failed to write configuration file: \n"
    return stage.ask(message, [config_answer("[a]\n")], *CONFIG, shell=FULL)


def write_tables(stage: Stage, message: str, *arguments: str, shell: Optional[str] = None) -> Provoked:
    """Fetches a pool's routing tables."""
    with RawServer([http_answer(routing_answer("r", "c"))]) as server:
        stage.credentials(url=server.url)
        return stage.run(message, *TABLES, *arguments, shell=shell)


@provokes("Failed to write file: <path>")
def a_table_that_cannot_be_written(stage: Stage) -> Provoked:
    return write_tables(stage, "Failed to write file: /nowhere/c\n", "--file", "r", "--file2", "/nowhere/c")


@provokes("Failed to write file: <path>")
def tables_that_a_full_disk_does_not_take(stage: Stage) -> Provoked:
    return write_tables(stage, "Failed to write file: \n", shell=FULL)


def make_directories(stage: Stage, base: str, reason: str) -> Provoked:
    """Lets a directory be made below a base that cannot hold it."""
    answers = [config_answer("[paths]\nlog=log\n")]
    run = stage.ask("", answers, *CONFIG, "--server", "--storage", base, "--mkdir")
    message = rf"boost::filesystem::create_director(?:y|ies): {reason}[^\n]*\"{re.escape(base)}/log\""
    found = re.search(rf"Error: ({message})\1\n", run.result.stderr.decode())
    assert found, run.result.stderr
    return Provoked(run.action, run.result, found[1])


@provokes("boost::filesystem::<call>: <reason>")
def a_file_where_a_directory_belongs(stage: Stage) -> Provoked:
    return make_directories(stage, stage.write("file", ""), "Not a directory")


@provokes("boost::filesystem::<call>: <reason>")
def a_directory_that_may_not_be_written(stage: Stage) -> Provoked:
    base = stage.host.work / "closed"
    base.mkdir(0o500)
    return make_directories(stage, str(base), "Permission denied")


@provokes("Action <action> completed successfully.")
def a_run_that_succeeds(stage: Stage) -> Provoked:
    return stage.discover("Action discover completed successfully.", http_answer(empty_answer()))


@provokes("##Configfile written to <path>")
def a_file_that_is_written(stage: Stage) -> Provoked:
    return with_template(stage, f"##Configfile written to {AGENT_CFG}", "[a]\n", "--todisk")


@provokes("##Configfile written to <path>")
def a_file_that_is_printed(stage: Stage) -> Provoked:
    return with_template(stage, "##Configfile written to ", "[a]\n")


@pytest.mark.parametrize(
    "registered",
    [
        pytest.param(case, id=case.case.__name__, marks=[pytest.mark.slow] if case.slow else [])
        for case in CASES
    ],
)
def test_a_case_provokes_its_message(stage: Stage, registered: Registered) -> None:
    check(ENTRIES[registered.entry], registered.case(stage))


# --- What is checked of every case, and of the page --------------------------


def check(entry: Entry, provoked: Provoked) -> None:
    """The run shows the message where the entry says, and ends as it says."""
    assert fits(entry, provoked.message), provoked.message
    result, line = provoked.result, f"{provoked.message}\n".encode()
    if entry.facts["Where"] == "report":
        report = failed(provoked.action, provoked.message)
        assert f"\n{result.stderr.decode()}".endswith(f"\n{report.decode()}"), result.stderr
    elif entry.facts["Where"] == "line":
        assert b"\n" + line in b"\n" + result.stderr, result.stderr
    else:
        assert b"\n" + line in b"\n" + result.stdout, result.stdout
    other = result.stderr if entry.facts["Where"] == "output" else result.stdout
    assert provoked.message.encode() not in other
    assert result.status == (0 if entry.facts["Failure"] == "none" else EXIT_FAILURE)


def fits(entry: Entry, message: str) -> bool:
    """Whether the message is the entry's, what differs left aside."""
    pieces = re.split(r"<\w+>", "\n".join(entry.lines()))
    return re.fullmatch("[^\n]*".join(map(re.escape, pieces)) + "\n?", message) is not None


def test_every_entry_has_a_case_and_every_case_an_entry() -> None:
    provoked = {case.entry for case in CASES} | {entry for entry, *_ in COMMAND_LINES}
    assert provoked == set(ENTRIES)


@pytest.mark.parametrize("entry", ENTRIES.values(), ids=list(ENTRIES))
def test_an_entry_is_complete(entry: Entry) -> None:
    assert set(entry.facts) == {*FACTS, "Meaning"}
    assert all(entry.facts[name] in allowed for name, allowed in FACTS.items())
    assert set(entry.lists) - {"Further lines"} == {"Causes", "Check"} and all(entry.lists.values())
    said = [cause.startswith(("Passing: ", "Lasting: ", "Passing or lasting ")) for cause in entry.lists["Causes"]]
    assert all(said) if entry.facts["Failure"] == "both" else not any(said)


SOURCE_FOLDERS = ("config", "frontend", "registration", "support", "webservice")
HELP_TEXTS = "frontend/options.cc"
# Texts with blanks in them that nobody is shown.
SILENT_TEXTS = {"Content-Type: application/octet-stream", "system account password"}


def shown_texts() -> set[str]:
    """Every line of the sources' string literals that looks like a piece of a message."""
    texts: set[str] = set()
    for folder in SOURCE_FOLDERS:
        for source in (ROOT / folder).glob("*.*"):
            if str(source.relative_to(ROOT)) != HELP_TEXTS:
                texts |= literals(source.read_text())
    return {text for text in texts if " " in text} - SILENT_TEXTS


def literals(source: str) -> set[str]:
    """The lines of the string literals of a C++ source, without blanks at their ends."""
    code = re.sub(r"^\s*#.*$|//.*$", "", source, flags=re.MULTILINE)
    one = r'"((?:[^"\\\n]|\\.)*)"'
    whole = ("".join(re.findall(one, found[0])) for found in re.finditer(rf"{one}(?:\s*{one})*", code))
    plain = (text.replace(r"\n", "\n").replace(r"\"", '"') for text in whole)
    return {line.removesuffix("%s").strip() for text in plain for line in text.split("\n")}


def test_no_message_of_the_sources_is_missing_from_the_page() -> None:
    page = (DOCS / "troubleshooting.md").read_text()
    texts = shown_texts()
    assert {"WebService call failed", "Network error during webservice call", "--type is missing"} <= texts
    assert [text for text in sorted(texts) if text not in page] == []


def test_no_internal_message_has_gone_from_the_sources() -> None:
    internal = examples("troubleshooting.md")["internal"].splitlines()
    texts = shown_texts()
    assert [text for text in internal if not any(piece in text for piece in texts)] == []
