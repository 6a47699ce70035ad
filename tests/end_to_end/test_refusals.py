"""What the command line refuses, and in which words."""

from __future__ import annotations

import re
from typing import Sequence

import pytest

from harness.messages import (
    ALLOWED_ACTIONS,
    COMPONENT_TYPES,
    NO_CREDENTIALS,
    completed,
    failed,
    invalid_action,
    invalid_type,
)
from harness.sandbox import EXIT_FAILURE, Host, Result

NO_ACTION = b"at least and only one --action is expected \n"
NO_TYPE = b"--type is missing\n"
NO_POOL = b"--storagepoolid is missing\n"
NO_SELECTION = b"--dsname and --dstypeid are reqruied\n"
NO_HOSTNAME = "boost::bad_any_cast: failed conversion using boost::any_cast"

# What an action answers when nothing but the pairing of action and type is right.
NEXT_REFUSAL = {
    "discover": failed("discover", NO_CREDENTIALS),
    "register": failed("register", NO_HOSTNAME),
    "configfile": failed("configfile", "url must exist in parameter"),
    "routingtables": NO_POOL,
    "createds": NO_SELECTION,
}

ACTIONS = ("discover", "register", "configfile", "routingtables", "certificate", "createds")
UNDISPATCHED_ACTIONS = ("registry", "createDS", "Register", "register ", "")

HELP = (
    ("-V [ --version ]", "Returns the version of this application"),
    ("-h [ --help ]", "describe arguments"),
    ("--action arg", "Action [registry,discover,register,configfile,routingtables,certificate,createDS]"),
    ("--login arg", "User account login"),
    ("--passwd arg", "User account password"),
    ("--passwdfile arg", "Path to user account password ensure it is only root readable"),
    ("--url arg", "URL where the StoragePool Authority webservices can be found."),
    ("--type arg", "Type [Agent, ContentRouter, Controller, StoragePoolAuthority]"),
    ("--todisk", "Store the output on disk using the location defined by qxregistry."),
    ("--server", "Register as a server agent by specifying this flag."),
    ("--mkdir", "whether or not create a directory."),
    (
        "--agentType arg",
        "Type of agent to register, one of 0=Quorvex Agent (default),1=KMT Agent, 2=WRX Agent, 3=JQ Agent",
    ),
    ("--keydir arg", "Directory where SSL keys reside."),
    ("--agentid arg", "Id of agent for which to retrieve a config file."),
    ("--hostname arg", "The hostname of the computer on which the agent is installed."),
    ("--file arg", "Full path to output file, or path to config file for action=registry"),
    ("--file2 arg", "Full path to output file for current route table"),
    ("--configfile arg", "Full path to config file for action=certificate"),
    ("--dsname arg", "Name of the DataSelection to be created with action createDS."),
    ("--dsrules arg", ""),
    ("--storage arg", "Register as a server agent by specifying this flag."),
    ("--productname arg", "Use STRING as productname instead the default 'Agent'."),
    ("--dstypeid arg", "DataSelection type to be created with action createDS."),
    ("--storagepoolid arg", "Id of the storagepool of which to fetch the routing tables."),
)

HELP_LINE_WIDTH = 80


def refuses(result: Result, stderr: bytes, stdout: bytes = b"") -> None:
    """Checks a run that failed with exactly this on its streams."""
    assert result == Result(EXIT_FAILURE, stdout, stderr)


@pytest.fixture
def agent(host: Host) -> Host:
    """A machine on which the agent is installed, so nothing falls back."""
    host.register_component("Agent", "/etc/quorvex/Agent.cfg", "/opt/agent")
    return host


@pytest.mark.parametrize("arguments", [(), ("--version",), ("-V",), ("--type", "Agent"), ("--todisk",), ("discover",)])
def test_a_run_without_an_action_is_refused(agent: Host, arguments: Sequence[str]) -> None:
    refuses(agent.run(*arguments), NO_ACTION)


@pytest.mark.parametrize(
    "arguments",
    [
        ("--help",),
        ("-h",),
        ("--help", "--action", "nonsense", "--type", "nonsense"),
        ("--action", "register", "--help"),
        ("--version", "--help", "--todisk", "--file", "/nowhere"),
    ],
)
def test_help_is_the_whole_option_table_on_stderr(agent: Host, arguments: Sequence[str]) -> None:
    result = agent.run(*arguments)
    assert (result.status, result.stdout) == (0, b"")
    assert option_table(result.stderr.decode()) == list(HELP)


def option_table(text: str) -> list[tuple[str, str]]:
    """The (option, description) rows of a help text, its wrapped lines joined.

    A line is wrapped behind a blank, which stays; only a word as long as half
    a line is broken, at the last column.
    """
    caption, *lines = text.split("\n")
    assert caption == "Usage:"
    assert lines[-2:] == ["", ""], "the table ends in one empty line"
    assert all(len(line) <= HELP_LINE_WIDTH for line in lines)
    rows: list[tuple[str, str]] = []
    for line in lines[:-2]:
        option = re.match(r"  (-\S+(?: \[ --\w+ \])?(?: arg)?)(?: +(.*))?$", line)
        if option:
            rows.append((option[1], option[2] or ""))
        else:
            rows[-1] = (rows[-1][0], rows[-1][1] + line.lstrip())
    return rows


UNPARSABLE = [
    (("--nonsense",), "unrecognised option '--nonsense'"),
    (("-x",), "unrecognised option '-x'"),
    (("--url",), "the required argument for option '--url' is missing"),
    (("--todisk=yes",), "option '--todisk' does not take any arguments"),
    (("--url", "a", "--url", "b"), "option '--url' cannot be specified more than once"),
    (("--action", "discover", "--action", "discover"), "option '--action' cannot be specified more than once"),
]
NUMERIC_OPTIONS = ("agentType", "agentid", "dstypeid", "storagepoolid")
NOT_NUMBERS = ("abc", "12x", "1.5", " 1", "1 ", "0x10", "18446744073709551616")
UNPARSABLE += [
    ((f"--{option}", text), f"the argument ('{text}') for option '--{option}' is invalid")
    for option in NUMERIC_OPTIONS
    for text in NOT_NUMBERS
]


@pytest.mark.parametrize("arguments, text", UNPARSABLE)
def test_what_the_option_library_refuses_is_reported_as_its_exception(
    agent: Host, arguments: Sequence[str], text: str
) -> None:
    report = f"Exception is caught {text}\n".encode()
    refuses(agent.run(*arguments), report)
    refuses(agent.run("--help", *arguments), report)


@pytest.mark.parametrize("action", [*ACTIONS[1:], "Discover", "nonsense", ""])
def test_only_discover_goes_without_a_type(agent: Host, action: str) -> None:
    refuses(agent.run("--action", action), NO_TYPE)


@pytest.mark.parametrize("component_type", ["agent", "AGENT", "Foo", "Agent ", "", 'a"b', "Storagepool"])
@pytest.mark.parametrize("action", ["register", "discover", "nonsense"])
def test_a_type_that_does_not_exist_is_refused_before_its_action(
    agent: Host, action: str, component_type: str
) -> None:
    result = agent.run("--action", action, "--type", component_type)
    refuses(result, failed(action, invalid_type(component_type)))


@pytest.mark.parametrize("component_type", COMPONENT_TYPES)
@pytest.mark.parametrize("action", ACTIONS + UNDISPATCHED_ACTIONS)
def test_every_pairing_of_action_and_type_is_allowed_or_refused(
    agent: Host, action: str, component_type: str
) -> None:
    result = agent.run("--action", action, "--type", component_type)
    if action not in ALLOWED_ACTIONS.get(component_type, ()):
        refuses(result, failed(action, invalid_action(action, component_type)))
    elif action == "certificate":
        assert (result.status, result.stderr) == (0, completed("certificate"))
    elif (action, component_type) == ("configfile", "ContentRouter"):
        refuses(result, failed("configfile", "url must exist in parameter"))
    else:
        refuses(result, NEXT_REFUSAL[action])


def test_discover_without_a_type_reaches_the_call(agent: Host) -> None:
    refuses(agent.run("--action", "discover"), NEXT_REFUSAL["discover"])


@pytest.mark.parametrize("options", [(), ("--dsname", "n"), ("--dstypeid", "1"), ("--dsrules", "r")])
def test_createds_wants_both_name_and_type(agent: Host, options: Sequence[str]) -> None:
    refuses(agent.run("--action", "createds", "--type", "Agent", *options), NO_SELECTION)


@pytest.mark.parametrize("component_type", ["MetabaseEngine", "MetabaseServer", "Controller", "qxwfe"])
def test_a_type_without_actions_lists_none(agent: Host, component_type: str) -> None:
    description = (
        f"Action configfile is not a valid action for type {component_type}.\nValid actions are: \n"
    )
    refuses(
        agent.run("--action", "configfile", "--type", component_type),
        f"Failed to perform action configfile. Error: {description}{description}\n\n".encode(),
    )


@pytest.mark.parametrize(
    "options, description",
    [
        ((), NO_HOSTNAME),
        (("--agentType", "0"), NO_HOSTNAME),
        (("--hostname", "h"), "Registering component type Agent is not supported."),
        (("--hostname", "h", "--agentType", "0"), NO_CREDENTIALS),
        (("--hostname", "h", "--agentType", "0", "--url", "u"), NO_CREDENTIALS),
        (("--hostname", "h", "--agentType", "0", "--url", "u", "--login", "l"), NO_CREDENTIALS),
        (("--hostname", "h", "--agentType", "0", "--login", "l", "--passwd", "p"), NO_CREDENTIALS),
        (("--hostname", "h", "--agentType", "0", "--url", "u", "--passwd", "p"), NO_CREDENTIALS),
    ],
)
def test_register_names_the_first_thing_that_is_missing(
    agent: Host, options: Sequence[str], description: str
) -> None:
    result = agent.run("--action", "register", "--type", "Agent", *options)
    refuses(result, failed("register", description))


def test_an_option_may_be_shortened_while_it_stays_unambiguous(agent: Host) -> None:
    refuses(agent.run("--act", "discover"), NEXT_REFUSAL["discover"])
    result = agent.run("--agent", "1")
    assert (result.status, result.stdout) == (EXIT_FAILURE, b"")
    assert result.stderr.startswith(b"Exception is caught option '--agent' is ambiguous")


def test_refusals_need_no_standard_output(agent: Host) -> None:
    result = agent.run("--action", "register", shell='"$@" >&-')
    refuses(result, NO_TYPE)
