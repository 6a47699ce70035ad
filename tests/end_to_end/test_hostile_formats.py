"""Answers that are no answer, or a broken one: the run ends, says why, and keeps what the host had."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Iterator, Mapping

import pytest

from harness.answers import agent_answer, config_answer, data_answer, empty_answer, error_answer
from harness.messages import (
    NO_RECORDS,
    NOT_PARSED,
    call_failed,
    completed,
    error_returned,
    failed,
    written_to,
)
from harness.raw_server import RawServer, http_answer
from harness.registered_host import RegisteredHost
from harness.sandbox import EXIT_FAILURE, Host, Result

MEGABYTE = 1 << 20
UNPARSED = (NOT_PARSED,)
TEMPLATE = b"[paths]\nlog=/var/log/agent\n"
CONFIG = config_answer(TEMPLATE)


@dataclass(frozen=True)
class Case:
    """One answer, the action that meets it, and all that may come of it."""

    name: str
    answer: bytes
    expected: Result
    action: str = "configfile"
    writes: Mapping[str, bytes] = field(default_factory=dict)


def refused(name: str, answer: bytes, *messages: bytes, action: str = "configfile") -> Case:
    """The call fails behind these messages."""
    return Case(name, answer, Result(EXIT_FAILURE, b"", call_failed(action, *messages)), action)


def lacking(name: str, answer: bytes, description: str, action: str = "configfile", before: bytes = b"") -> Case:
    """The answer is a table, but not one that the action can use."""
    return Case(name, answer, Result(EXIT_FAILURE, b"", before + failed(action, description)), action)


def used(name: str, answer: bytes, content: bytes = TEMPLATE) -> Case:
    """The answer can be used: the file is written, whole."""
    done = Result(0, written_to("/etc/quorvex/Agent.cfg"), completed("configfile"))
    return Case(name, answer, done, writes={"Agent.cfg": content})


def table(types: bytes, *lines: bytes, names: bytes = b"returnvalue", count: bytes = b"1") -> bytes:
    """An answer whose lines are just these."""
    return b"\n".join([b"***BEGIN***", count, names, types, *lines, b"***DONE***", b""])


def no_column(name: str, answer: bytes) -> Case:
    """The answer lacks the one column that counts."""
    return lacking(name, answer, "Missing required field: returnvalue")


def cut_markers() -> Iterator[Case]:
    """Every marker with its end missing, at every byte; the rest of the answer follows."""
    for marker in (b"***BEGIN***", b"***START***"):
        for length in range(len(marker)):
            yield refused(f"{marker.decode()} cut at {length}", marker[:length] + CONFIG[11:], *UNPARSED)
    for length in range(len(b"***ERROR***")):
        answer = b"***ERROR***"[:length] + error_answer("bad")[11:]
        yield refused(f"***ERROR*** cut at {length}", answer, *UNPARSED)
    for length in range(len(b"***DONE***")):
        # What is left of the mark is a record of its own, which nobody asks for.
        yield used(f"***DONE*** cut at {length}", CONFIG[: -len(b"***DONE***\n")] + b"***DONE***"[:length] + b"\n")


PAGE = b"<!DOCTYPE html>\n<html><body>\n<h1>It works!</h1>\n</body></html>\n"

NO_ANSWER = [
    refused("nothing", b"", *UNPARSED),
    refused("a page", PAGE, *UNPARSED),
    refused("a page with three stars", PAGE + b"<!-- *** -->" + CONFIG, *UNPARSED),
    refused("a warning with three stars", b"PHP Warning: *** in ws_configfile.php\n" + CONFIG, *UNPARSED),
    refused("another format", b'{"status": "ok", "returnvalue": "[paths]"}\n', *UNPARSED),
    refused("a marker in small letters", CONFIG.replace(b"BEGIN", b"begin"), *UNPARSED),
    refused("a marker with a blank", CONFIG.replace(b"***BEGIN", b"*** BEGIN"), *UNPARSED),
    refused("a zero byte before the marker", b"\0" + CONFIG, *UNPARSED),
    refused("a zero byte in the marker", CONFIG.replace(b"BEGIN", b"BE\0GIN"), *UNPARSED),
    refused("two bytes per character", CONFIG.decode().encode("utf-16"), *UNPARSED),
    refused("four bytes per character", CONFIG.decode().encode("utf-32-be"), *UNPARSED),
    refused("a marker alone", b"***BEGIN***", *UNPARSED),
    refused("a marker and a count", b"***BEGIN***\n1\n", *UNPARSED),
    refused("no line of types", b"***BEGIN***\n1\nreturnvalue\n", *UNPARSED),
    refused("a line of types without its end", b"***BEGIN***\n1\nreturnvalue\nS", *UNPARSED),
    refused("a line without end", b"***BEGIN***\n1\nreturnvalue" + b"|x" * MEGABYTE, *UNPARSED),
    refused("columns beyond all measure", table(b"S|" * 3 * MEGABYTE, names=b"a|" * 3 * MEGABYTE), *UNPARSED),
]

TABLES = [
    used("warnings before the data", b"<br />\n<b>Warning</b>: ** Undefined variable **\n" + CONFIG),
    used("a byte-order mark before the marker", b"\xef\xbb\xbf" + CONFIG),
    used("the other marker", CONFIG.replace(b"BEGIN", b"START")),
    used("text behind the marker", CONFIG.replace(b"***BEGIN***", b"***BEGIN*** of an answer")),
    used("text behind the end", CONFIG + PAGE + error_answer("too late")),
    used("no end mark", CONFIG[: -len(b"***DONE***\n")]),
    used("a negative count", CONFIG.replace(b"\n1\n", b"\n-1\n")),
    used("a huge count", CONFIG.replace(b"\n1\n", b"\n99999999999999999999999999999999\n")),
    used("a count of megabytes", CONFIG.replace(b"\n1\n", b"\n" + b"9" * MEGABYTE + b"\n")),
    used("a count that is no number", CONFIG.replace(b"\n1\n", b"\none\n")),
    used("no count", CONFIG.replace(b"\n1\n", b"\n\n")),
    used("the column twice", table(b"S|S", b"[a]|[b]", names=b"returnvalue|returnvalue"), b"[a]\n[paths]\n"),
    used("more values than columns", table(b"S", b"[a]|[b]|[c]"), b"[a]\n[paths]\n"),
    used("more names than types", table(b"S", b"[a]", names=b"returnvalue|other"), b"[a]\n[paths]\n"),
    used("more types than names", table(b"S|I|X", b"[a]"), b"[a]\n[paths]\n"),
    used("a second record", table(b"S", b"[a]", b"[b]"), b"[a]\n[paths]\n"),
    used("a column of numbers", table(b"I", b"[a]"), b"[a]\n[paths]\n"),
    used("a type of several letters", table(b"String", b"[a]"), b"[a]\n[paths]\n"),
    used("a column that is not kept before it", table(b"X|S", b"x|[a]", names=b"x|returnvalue"), b"[a]\n[paths]\n"),
    used("unfinished escapes", table(b"S", rb"[a]\n#\x4\xg0\q" + b"\\", b""), b"[a]\n[paths]\n"),
    used("a value cut by an escaped zero", table(b"S", rb"[a]\nk=v\x00w"), b"[a]\nk=v\n[paths]\n"),
    used("an empty value", table(b"S", b""), b"[paths]\n"),
    used(
        "a value of megabytes",
        config_answer(b"[a]\nk=" + b"v" * 5 * MEGABYTE),
        b"[a]\nk=" + b"v" * 5 * MEGABYTE + b"\n[paths]\n",
    ),
    lacking("no records", empty_answer(), NO_RECORDS),
    lacking("a zero byte in the record", table(b"S", b"[a]\0"), NO_RECORDS),
    lacking("a record without its end", table(b"S", b"[a]")[: -len(b"\n***DONE***\n")], NO_RECORDS),
    lacking("an end mark before the records", table(b"S", b"***DONE***", b"[a]"), NO_RECORDS),
    no_column("another column", data_answer([("value", "S")], [["[a]"]])),
    no_column("the column in capitals", data_answer([("RETURNVALUE", "S")], [["[a]"]])),
    no_column("the column with a blank", data_answer([("returnvalue ", "S")], [["[a]"]])),
    no_column("no name at all", table(b"S", b"[a]", names=b"")),
    no_column("a column of type X", table(b"X", b"[a]")),
    no_column("a column of no type", table(b"", b"[a]")),
    no_column("a column of a small type", table(b"s", b"[a]")),
    no_column("fewer values than columns", table(b"S|S", b"x", names=b"first|returnvalue")),
    no_column("bars without end", table(b"S|S", b"|" * MEGABYTE, names=b"first|second")),
    no_column("lines that end as elsewhere", CONFIG.replace(b"\n", b"\r\n")),
    no_column("an empty first record", table(b"S|S", b"", b"a|[b]", names=b"first|returnvalue")),
    lacking(
        "a value that is no configuration",
        table(b"S", b"k=v"),
        "Failed to load from input stream ",
        before=b"Found an invalid line: k=v\n",
    ),
    lacking("a value with a broken header", table(b"S", rb"[paths]\n[]"), "Failed to load from input stream "),
]

SHORT_ERROR = b"***ERROR***\n17\n"
TERMINAL = "\x1b]0;owned\x07\x1b[2J\x1b[31mred"


def error(name: str, answer: bytes, shown: str = "no description") -> Case:
    """An error block, of which the description is shown."""
    return refused(name, answer, error_returned(shown))


ERRORS = [
    error("a whole error block", error_answer("no such pool"), "no such pool"),
    error("an error block behind a page", PAGE + error_answer("bad"), "bad"),
    error("no description", error_answer()),
    error("a number alone", SHORT_ERROR),
    error("no number", b"***ERROR***\n\ndescription: bad***DONE***\n", "bad"),
    error("a huge negative number", error_answer("bad", number=-(10**30)), "bad"),
    error("an empty description", SHORT_ERROR + b"description: ***DONE***\n", ""),
    error("a description without its blank", SHORT_ERROR + b"description:***DONE***\n", ""),
    error("a description stuck to its colon", SHORT_ERROR + b"description:bad***DONE***\n", "ad"),
    error("a description without an end mark", SHORT_ERROR + b"description: bad\nmore\n", "bad\nmore\n"),
    error("a description of several lines", error_answer("one\r\ntwo\n\nthree"), "one\r\ntwo\n\nthree"),
    error("a description without a line end", SHORT_ERROR + b"description: bad***DONE***"),
    error("a description cut by a zero byte", SHORT_ERROR + b"description: bad\0 luck***DONE***\n"),
    error("a description of megabytes", error_answer("d" * 3 * MEGABYTE), "d" * 3 * MEGABYTE),
    error("a description with terminal sequences", error_answer(TERMINAL), TERMINAL),
    error("a header twice", SHORT_ERROR + b"severity: 1\nseverity: 2\ndescription: bad***DONE***\n", "bad"),
    error("nine header lines", SHORT_ERROR + b"server: s\n" * 9 + b"description: bad***DONE***\n", "bad"),
    error("ten header lines", SHORT_ERROR + b"server: s\n" * 10 + b"description: bad***DONE***\n"),
    error("a header without its blank", SHORT_ERROR + b"severity:3\ndescription: bad***DONE***\n"),
    error("an unknown header", SHORT_ERROR + b"hint: none\ndescription: bad***DONE***\n"),
    error("an empty header line", SHORT_ERROR + b"\ndescription: bad***DONE***\n"),
    error("lines that end as elsewhere", error_answer("bad").replace(b"\n", b"\r\n")),
    error("a second error block", error_answer("first") + error_answer("second"), "first"),
    error("data behind an error block", error_answer("first") + CONFIG, "first"),
    refused("an error mark alone", b"***ERROR***", *UNPARSED),
    refused("an error number without its line end", b"***ERROR***\n17", *UNPARSED),
]


def agent(name: str, description: str, **columns: str) -> Case:
    """A registration whose answer cannot be used; nothing else is asked for then."""
    return lacking(name, agent_answer(**columns), description, action="register")


def no_number(text: str) -> str:
    """The description for an agent id that is none."""
    return f"Conversion from string failed for string {text}"


MISSING_LOGIN = data_answer([("agentid", "I"), ("password", "S")], [["42", "p"]])
MISSING_PASSWORD = data_answer([("agentid", "I"), ("login", "S")], [["42", "l"]])

REGISTRATIONS = [
    agent("an agent id with a letter", no_number("42x"), agent_id="42x"),
    agent("an agent id with a fraction", no_number("42.5"), agent_id="42.5"),
    agent("an empty agent id", no_number(""), agent_id=""),
    agent("an agent id beyond all numbers", no_number("9" * 40), agent_id="9" * 40),
    agent("an agent id with a line end behind it", no_number("42\n"), agent_id="42\n"),
    lacking("no agent id", data_answer([("id", "I")], [["42"]]), "Missing required field: agentid", "register"),
    lacking("no login", MISSING_LOGIN, "Missing required field: login", "register"),
    lacking("no password", MISSING_PASSWORD, "Missing required field: password", "register"),
    lacking("no record of the agent", empty_answer(), NO_RECORDS, "register"),
    refused("a page for a registration", PAGE, *UNPARSED, action="register"),
    refused("an error block for a registration", error_answer("no"), error_returned("no"), action="register"),
    lacking(
        "no recommended table",
        data_answer([("cr_currentrt", "S")], [["t"]]),
        "Missing required field: cr_recommendedrt",
        "routingtables",
    ),
    lacking(
        "no current table",
        data_answer([("cr_recommendedrt", "S")], [["t"]]),
        "Missing required field: cr_currentrt",
        "routingtables",
    ),
    lacking("no record of the tables", empty_answer(), NO_RECORDS, "routingtables"),
    refused("a page for the tables", PAGE, *UNPARSED, action="routingtables"),
    refused("an error block for the tables", error_answer("no"), error_returned("no"), action="routingtables"),
    refused("a page for a data selection", PAGE, *UNPARSED, action="createds"),
    refused("an error block for a data selection", error_answer("no"), error_returned("no"), action="createds"),
    refused("a page for a pool", PAGE, *UNPARSED, action="discover"),
]

CASES = [*cut_markers(), *NO_ANSWER, *TABLES, *ERRORS, *REGISTRATIONS]


@pytest.mark.parametrize("case", CASES, ids=[f"{case.action}: {case.name}" for case in CASES])
def test_an_answer_is_used_or_leaves_everything_as_it_was(host: Host, case: Case) -> None:
    machine = RegisteredHost(host)
    with RawServer([http_answer(case.answer)]) as server:
        result, changes = machine.run(case.action, server.url)
    assert result == case.expected
    assert changes == case.writes
    assert server.connections == 1


@pytest.mark.parametrize(
    "second, messages",
    [
        (PAGE, UNPARSED),
        (error_answer("no template"), (error_returned("no template"),)),
        (b"", UNPARSED),
    ],
    ids=["a page", "an error block", "nothing"],
)
def test_a_registration_without_its_configuration_keeps_the_old_one(
    host: Host, second: bytes, messages: tuple[bytes, ...]
) -> None:
    machine = RegisteredHost(host)
    with RawServer([http_answer(agent_answer()), http_answer(second)]) as server:
        result, changes = machine.run("register", server.url)
    assert result == Result(EXIT_FAILURE, b"", call_failed("register", *messages))
    assert changes == {}
    assert server.connections == 2


@pytest.mark.parametrize(
    "password, template, description",
    [
        ("p" * 721, b"[paths]\nkeydir=keys\n", "Failed to encrypt password from file\n"),
        ("p", b"[paths]\nkeydir=elsewhere\n", "Failed to encrypt password from file\n"),
        ("p", b"[paths]\nlog=/log\n", "Failed to load keydir from file\n"),
    ],
    ids=["a password that does not fit", "a key directory without a key", "no key directory"],
)
def test_an_account_that_cannot_be_stored_keeps_the_old_configuration(
    host: Host, password: str, template: bytes, description: str
) -> None:
    machine = RegisteredHost(host)
    replies = [http_answer(agent_answer(password=password)), http_answer(config_answer(template))]
    with RawServer(replies) as server:
        result, changes = machine.run("register", server.url)
    assert result == Result(EXIT_FAILURE, b"", failed("register", description))
    assert changes == {}
