"""The action discover: one call of the authority's storage-pool page."""

from __future__ import annotations

import shutil
from pathlib import Path
from typing import Any, Optional, Sequence

import pytest

from harness.answers import agent_answer, data_answer, empty_answer, error_answer
from harness.authority import LOGIN, Authority
from harness.messages import (
    BAD_PASSWORD_FILE,
    NETWORK_ERROR,
    NO_CREDENTIALS,
    NOT_PARSED,
    call_failed,
    completed,
    error_returned,
    failed,
)
from harness.raw_server import RawServer, Reply, http_answer, refusing_port
from harness.sandbox import EXIT_FAILURE, Host, Result

SUCCESS = Result(0, b"", completed("discover"))


def discover(host: Host, url: str, *more: str, **settings: Any) -> Result:
    """Runs discover with a login and a password."""
    account = ("--login", "admin", "--passwd", "secret")
    return host.run("--action", "discover", "--url", url, *account, *more, **settings)


def discover_from(host: Host, reply: Reply) -> Result:
    """Runs discover against a server that answers once, with this."""
    with RawServer([reply]) as server:
        return discover(host, server.url)


def failure(*before: bytes) -> Result:
    """A call that failed behind these messages."""
    return Result(EXIT_FAILURE, b"", call_failed("discover", *before))


@pytest.mark.parametrize(
    "more, parts",
    [
        ((), [("action", "discover"), ("login", "admin"), ("passwd", "secret")]),
        (
            ("--type", "storagepool", "--keydir", "/k/"),
            [("action", "discover"), ("keydir", "/k/"), ("login", "admin"), ("passwd", "secret")],
        ),
        (
            ("--agentid", "7", "--hostname", "h", "--todisk", "--storagepoolid", "3"),
            [("action", "discover"), ("login", "admin"), ("passwd", "secret")],
        ),
    ],
)
def test_one_form_is_posted_to_the_pool_page(
    host: Host, more: Sequence[str], parts: list[tuple[str, str]]
) -> None:
    with RawServer([http_answer(empty_answer())]) as server:
        assert discover(host, server.url, *more) == SUCCESS
    request = server.only_request()
    assert request.request_line == "POST /ws_storagepool.php HTTP/1.1"
    assert request.parts() == parts
    assert set(request.headers) == {"host", "accept", "accept-encoding", "content-length", "content-type"}
    assert request.headers["host"] == f"127.0.0.1:{server.port}"
    assert request.headers["content-length"] == str(len(request.body))


@pytest.mark.parametrize(
    "base, target",
    [
        ("", "/ws_storagepool.php"),
        ("/", "//ws_storagepool.php"),
        ("/spa/v6", "/spa/v6/ws_storagepool.php"),
        ("/spa?x=1", "/spa?x=1/ws_storagepool.php"),
    ],
)
def test_the_page_is_appended_to_the_base_address(host: Host, base: str, target: str) -> None:
    with RawServer([http_answer(empty_answer())]) as server:
        assert discover(host, server.url + base) == SUCCESS
    assert server.only_request().request_line == f"POST {target} HTTP/1.1"


@pytest.mark.parametrize("value", ["", "a=b&c|d\\e", 'q"uo\'te', "two\r\nlines", "---", "pässwörd", "x" * 20000])
def test_credentials_travel_unchanged(host: Host, value: str) -> None:
    with RawServer([http_answer(empty_answer())]) as server:
        result = host.run("--action", "discover", "--url", server.url, "--login", value, "--passwd", value)
    assert result == SUCCESS
    assert server.only_request().parts() == [("action", "discover"), ("login", value), ("passwd", value)]


@pytest.mark.parametrize("status", ["200 OK", "404 Not Found", "500 Internal Server Error", "401 Unauthorized"])
def test_a_good_answer_succeeds_whatever_the_http_status(host: Host, status: str) -> None:
    assert discover_from(host, http_answer(empty_answer(), status)) == SUCCESS


def test_a_redirect_is_not_followed(host: Host) -> None:
    with RawServer([http_answer(empty_answer())]) as elsewhere:
        moved = http_answer("gone", "302 Found", [f"Location: {elsewhere.url}/ws_storagepool.php"])
        assert discover_from(host, moved) == failure(NOT_PARSED)
    assert elsewhere.requests == []


READABLE = {
    "one record": agent_answer(),
    "no record": empty_answer(),
    "marker start": data_answer([("a", "I")], [["1"]], marker="***START***"),
    "text before the marker": b"<html>Warning: * ** \n" + empty_answer(),
    "text behind the marker": empty_answer().replace(b"***BEGIN***", b"***BEGIN*** of the answer"),
    "no end mark": data_answer([("a", "I")], [["1"]], end=b""),
    "a count that is no number": empty_answer().replace(b"\n0\n", b"\nmany\n"),
    "a huge count": empty_answer().replace(b"\n0\n", b"\n" + b"9" * 5000 + b"\n"),
    "other columns": data_answer([("x", "X"), ("y", "?")], [["1", "2"]]),
    "fewer types than names": b"***BEGIN***\n1\na|b|c\nI|S\n1|2|3\n***DONE***\n",
    "bytes behind a zero byte": empty_answer() + b"\0***ERROR***\n1\n",
    "CR LF line ends": agent_answer().replace(b"\n", b"\r\n"),
}


@pytest.mark.parametrize("answer", READABLE.values(), ids=READABLE.keys())
def test_any_data_answer_is_a_success(host: Host, answer: bytes) -> None:
    assert discover_from(host, http_answer(answer)) == SUCCESS


UNREADABLE = {
    "empty": b"",
    "no marker": b"It works!\n",
    "zero byte first": b"\0" + empty_answer(),
    "unknown marker": b"***HELLO***\n0\na\nI\n***DONE***\n",
    "marker cut off": b"***BEG",
    "lower-case marker": empty_answer().replace(b"BEGIN", b"begin"),
    "other stars first": b"*** note ***\n" + empty_answer(),
    "marker without line end": b"***BEGIN***",
    "no line behind the count": b"***BEGIN***\n0",
    "no line end behind the names": b"***BEGIN***\n0\na",
    "no line end behind the types": b"***BEGIN***\n0\na\nI",
    "error without line end": b"***ERROR***",
    "error number without line end": b"***ERROR***\n17",
}


@pytest.mark.parametrize("answer", UNREADABLE.values(), ids=UNREADABLE.keys())
def test_an_answer_in_no_known_form_is_reported(host: Host, answer: bytes) -> None:
    assert discover_from(host, http_answer(answer)) == failure(NOT_PARSED)


ERRORS = {
    "no description": (error_answer(), "no description"),
    "description": (error_answer("login refused"), "login refused"),
    "several lines": (error_answer("first\n second\n\nthird\n"), "first\n second\n\nthird\n"),
    "bars and escapes stay": (error_answer("a|b\\n\\x41"), "a|b\\n\\x41"),
    "to the end of the text": (b"***ERROR***\n1\ndescription: cut nowhere\n", "cut nowhere\n"),
    "empty description": (error_answer(""), ""),
    "byte behind the colon goes": (b"***ERROR***\n1\ndescription:_bad***DONE***\n", "bad"),
    "severity without blank ends it": (b"***ERROR***\n1\nseverity:3\ndescription: bad\n", "no description"),
    "unknown line ends it": (b"***ERROR***\n1\nnote: x\ndescription: bad\n", "no description"),
    "ten header lines": (b"***ERROR***\n1\n" + b"source: x\n" * 9 + b"description: bad\n", "bad\n"),
    "eleven header lines": (b"***ERROR***\n1\n" + b"source: x\n" * 10 + b"description: bad\n", "no description"),
    "no number": (b"***ERROR***\nseverity\ndescription: bad\n", "bad\n"),
    "description without line end": (b"***ERROR***\n1\ndescription: bad", "no description"),
    "description ended by its mark alone": (b"***ERROR***\n1\ndescription: bad***DONE***", "no description"),
}


@pytest.mark.parametrize("answer, description", ERRORS.values(), ids=ERRORS.keys())
def test_an_error_block_is_reported_by_its_description(host: Host, answer: bytes, description: str) -> None:
    assert discover_from(host, http_answer(answer)) == failure(error_returned(description))


BROKEN_TRANSFERS = {
    "closed without an answer": b"",
    "closed in the middle of the body": http_answer(empty_answer())[:-5],
    "not http": b"220 mail.example ESMTP\r\n",
    "chunk of no size": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
}


@pytest.mark.parametrize("reply", BROKEN_TRANSFERS.values(), ids=BROKEN_TRANSFERS.keys())
def test_a_broken_transfer_is_a_network_error(host: Host, reply: bytes) -> None:
    assert discover_from(host, reply) == failure(NETWORK_ERROR)


def test_a_head_cut_off_is_no_answer(host: Host) -> None:
    # libcurl may take it for an answer without a body.
    assert discover_from(host, b"HTTP/1.1 200 OK\r\nContent-Le") in (failure(NETWORK_ERROR), failure(NOT_PARSED))


def test_a_port_that_refuses_is_a_network_error(host: Host) -> None:
    with refusing_port() as port:
        assert discover(host, f"http://127.0.0.1:{port}") == failure(NETWORK_ERROR)


@pytest.mark.parametrize(
    "url", ["http://no-such-host.invalid", "", "http://", "noscheme://127.0.0.1", "vrmo", "vrmo:/x"]
)
def test_an_address_that_leads_nowhere_is_a_network_error(host: Host, url: str) -> None:
    assert discover(host, url) == failure(NETWORK_ERROR)


def test_a_chunked_answer_is_put_together(host: Host) -> None:
    body = empty_answer()
    chunks = b"".join(b"1\r\n" + body[at : at + 1] + b"\r\n" for at in range(len(body))) + b"0\r\n\r\n"
    assert discover_from(host, b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks) == SUCCESS


def test_an_answer_without_a_length_ends_with_the_connection(host: Host) -> None:
    assert discover_from(host, b"HTTP/1.0 200 OK\r\n\r\n" + empty_answer()) == SUCCESS


def test_a_proxy_of_the_environment_is_used(host: Host) -> None:
    with RawServer([http_answer(empty_answer())]) as proxy:
        result = discover(host, "http://spa.invalid:8080/base", environment={"http_proxy": proxy.url})
    assert result == SUCCESS
    line = proxy.only_request().request_line
    assert line == "POST http://spa.invalid:8080/base/ws_storagepool.php HTTP/1.1"


PASSWORD_FILES = {
    "its only line": (b"passwd=abc\n", "abc"),
    "second line": (b"login=x\npasswd=abc\npasswd=other\n", "abc"),
    "anywhere in the line": (b"xpasswd=abc\n", "abc"),
    "only the first mark counts": (b"passwd=a passwd=b\n", "a passwd=b"),
    "blanks and CR stay": (b"passwd= a \t\r\n", " a \t\r"),
    "no line end": (b"# passwd\npasswd=abc", "abc"),
}


@pytest.mark.parametrize("content, password", PASSWORD_FILES.values(), ids=PASSWORD_FILES.keys())
def test_the_password_comes_from_the_password_file(host: Host, content: bytes, password: str) -> None:
    path = host.work / "spa.passwd"
    path.write_bytes(content)
    with RawServer([http_answer(empty_answer())]) as server:
        account = ("--login", "admin", "--passwdfile", str(path))
        assert host.run("--action", "discover", "--url", server.url, *account) == SUCCESS
    assert server.only_request().parts()[-1] == ("passwd", password)


def test_a_password_on_the_command_line_leaves_the_file_unread(host: Host) -> None:
    with RawServer([http_answer(empty_answer())]) as server:
        assert discover(host, server.url, "--passwdfile", "/nowhere") == SUCCESS
    assert server.only_request().parts()[-1] == ("passwd", "secret")


UNUSABLE_PASSWORD_FILES = {
    "missing": (None, b"Failed to open SPA passwd file.\n"),
    "empty": (b"", b"Could not find a SPA passwd from file.\n"),
    "without the mark": (b"password=abc\nPASSWD=abc\n", b"Could not find a SPA passwd from file.\n"),
    "nothing behind the mark": (b"passwd=\npasswd=abc\n", b"Empty SPA passwd from file.\n"),
}


@pytest.mark.parametrize("content, message", UNUSABLE_PASSWORD_FILES.values(), ids=UNUSABLE_PASSWORD_FILES.keys())
def test_an_unusable_password_file_ends_the_run(host: Host, content: Optional[bytes], message: bytes) -> None:
    path = host.work / "spa.passwd"
    if content is not None:
        path.write_bytes(content)
    refuses_password_file(host, path, message)


def test_a_directory_as_password_file_holds_no_password(host: Host) -> None:
    refuses_password_file(host, host.work, b"Could not find a SPA passwd from file.\n")


def test_a_password_file_that_may_not_be_read_ends_the_run(host: Host) -> None:
    path = host.work / "spa.passwd"
    path.write_bytes(b"passwd=abc\n")
    path.chmod(0)
    refuses_password_file(host, path, b"Failed to open SPA passwd file.\n")


def refuses_password_file(host: Host, path: Path, message: bytes) -> None:
    """The file is refused, before a missing address is and without a request."""
    report = message + failed("discover", BAD_PASSWORD_FILE)
    with RawServer() as server:
        for address in ((), ("--url", server.url, "--login", "admin")):
            result = host.run("--action", "discover", "--passwdfile", str(path), *address)
            assert result == Result(EXIT_FAILURE, b"", report)
    assert server.connections == 0


@pytest.mark.parametrize("missing", ["--url", "--login", "--passwd"])
def test_address_login_and_password_are_all_needed(host: Host, missing: str) -> None:
    options = {"--url": "http://127.0.0.1:9", "--login": "admin", "--passwd": "secret"}
    del options[missing]
    arguments = [text for pair in options.items() for text in pair]
    result = host.run("--action", "discover", *arguments)
    assert result == Result(EXIT_FAILURE, b"", failed("discover", NO_CREDENTIALS))


def test_the_authority_answers_whoever_has_its_password(host: Host, authority: Authority) -> None:
    shutil.copy(authority.password_file, host.work / "spa.passwd")
    account = ("--login", LOGIN, "--passwdfile", "spa.passwd")
    assert host.run("--action", "discover", "--url", authority.url, *account) == SUCCESS
    assert "discover" in authority.show("requests")


@pytest.mark.parametrize("login, passwd", [(LOGIN, "wrong"), ("nobody", "wrong"), ("", ""), ("' OR 1=1 --", "x")])
def test_the_authority_refuses_anyone_else_in_its_own_words(
    host: Host, authority: Authority, login: str, passwd: str
) -> None:
    result = host.run("--action", "discover", "--url", authority.url, "--login", login, "--passwd", passwd)
    assert (result.status, result.stdout) == (EXIT_FAILURE, b"")
    words, mark, _ = result.stderr.partition(call_failed("discover"))
    assert mark and words.startswith(b"The webservice returned an error :")
    assert len(words.strip()) > len(b"The webservice returned an error :") and b"***" not in words


def test_a_page_that_the_server_does_not_have_is_not_parsed(host: Host, authority: Authority) -> None:
    result = host.run("--action", "discover", "--url", f"{authority.url}/nowhere", *authority.account)
    assert result == failure(NOT_PARSED)
