"""What every page has in common: what it refuses and how it answers."""

from __future__ import annotations

import pytest

from harness.answers import records, refusal, unescape
from harness.authority import Authority, REGISTRATION
from harness.programs import php
from harness.web import multipart, request

NO_FORM = "The request holds no form fields; they come as a multipart POST."


@pytest.mark.parametrize("page", ["storagepool", "agent", "configfile", "dataselection"])
def test_every_page_checks_the_login_first(authority: Authority, page: str) -> None:
    for fields, expected in [
        ({"passwd": "x", "action": "bad"}, (6, 'The field "login" is missing.')),
        ({"login": "x", "action": "bad"}, (6, 'The field "passwd" is missing.')),
        ({"login": "x", "passwd": "x"}, (3, "Login failed")),
        ({"login": "admin", "passwd": authority.password}, (6, 'The field "action" is missing.')),
    ]:
        answer = authority.page(page, fields)
        assert refusal(answer) == expected
        assert f"\nsource: ws_{page}.php\n" in answer


def test_a_page_has_its_own_actions_only(authority: Authority) -> None:
    pages = {
        "storagepool": "discover",
        "agent": "register, getRoutingTables",
        "configfile": "create",
        "dataselection": "createDS",
    }
    for page, actions in pages.items():
        others = set(", ".join(pages.values()).split(", ")) - set(actions.split(", "))
        for action in others | {"", "Discover", "__construct"}:
            answer = authority.ask(page, action=action)
            assert refusal(answer) == (5, f"This page has no such action; it has: {actions}.")


def test_a_get_is_refused_whatever_its_query_holds(authority: Authority) -> None:
    for query in ("", f"?login=admin&passwd={authority.password}&action=discover"):
        reply = request(f"{authority.url}/ws_storagepool.php{query}", None, {})
        assert refusal(reply.text) == (2, NO_FORM)
    assert authority.password not in (authority.data / "server.log").read_text()


def test_bodies_that_are_no_form_are_refused(authority: Authority) -> None:
    for body, content_type in [
        (b"action=discover", "text/plain"),
        (b"garbage", "multipart/form-data; boundary=x"),
        (b"garbage", "multipart/form-data"),
        (b"", "application/x-www-form-urlencoded"),
        (b"login=admin&x=" + b"x" * (1 << 20), "application/x-www-form-urlencoded"),
    ]:
        reply = request(f"{authority.url}/ws_agent.php", body, {"Content-Type": content_type})
        assert refusal(reply.text) == (2, NO_FORM), (body[:20], content_type)


def test_a_list_in_place_of_a_text_is_refused(authority: Authority) -> None:
    for name in ("login", "passwd"):
        fields = {"login": "admin", "passwd": "x", "action": "discover"}
        fields[f"{name}[]"] = fields.pop(name)
        answer = authority.page("storagepool", fields)
        assert refusal(answer) == (6, f'The field "{name}" must be given once, as a text.')
    answer = authority.page(
        "agent", {"login": "admin", "passwd": authority.password, **REGISTRATION, "hostName[x]": "a"}
    )
    assert refusal(answer) == (6, 'The field "hostName" must be given once, as a text.')


def test_unknown_fields_are_ignored(authority: Authority) -> None:
    assert len(records(authority.ask("storagepool", action="discover", keydir="/etc/quorvex/keys", more="x"))) == 2


def test_answers_are_not_to_be_stored_on_the_way(authority: Authority) -> None:
    body, content_type = multipart({"login": "admin", "passwd": authority.password, **REGISTRATION})
    reply = request(f"{authority.url}/ws_agent.php", body, {"Content-Type": content_type})
    assert reply.headers["Cache-Control"] == "no-store"
    assert reply.headers["X-Powered-By"] is None


def test_a_failure_of_the_authority_is_an_error_block_and_its_cause_stays_in_the_log(authority: Authority) -> None:
    password = authority.password
    (authority.data / "authority.sqlite").write_text("this is no database\n" * 100)
    answer = authority.ask("storagepool", passwd=password, action="discover")
    assert refusal(answer) == (1, "The authority failed; its server.log says why.")
    log = (authority.data / "server.log").read_text()
    assert "file is not a database" in log and password not in log


@pytest.mark.parametrize(
    ("value", "escaped"),
    [
        ("", ""),
        ("plain ä", "plain ä"),
        ("a|b", "a\\x7cb"),
        ("a\\b", "a\\\\b"),
        ("\\x7c", "\\\\x7c"),
        ("\n\r\t", "\\n\\r\\t"),
        ("\x01\x1f\x7f", "\\x01\\x1f\\x7f"),
    ],
)
def test_values_are_escaped(value: str, escaped: str) -> None:
    assert php("echo Answer::escape($argv[1]);", value) == escaped
    assert unescape(escaped) == value


def test_a_value_that_looks_like_the_end_mark_does_not_end_the_records() -> None:
    text = php("echo Answer::data(['a' => 'S', 'b' => 'S'], [['***DONE***', '***DONE***'], ['*', '']]);")
    assert text == "***BEGIN***\n2\na|b\nS|S\n\\x2a**DONE***|***DONE***\n*|\n***DONE***\n"
    assert records(text)[0] == {"a": "***DONE***", "b": "***DONE***"}


def test_an_answer_without_records_keeps_its_layout() -> None:
    assert php("echo Answer::data(['a' => 'I'], []);") == "***BEGIN***\n0\na\nI\n***DONE***\n"
