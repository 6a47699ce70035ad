"""The page that shows administrators what the authority holds."""

from __future__ import annotations

import base64
import hashlib
import html
import re
import struct

import pytest

from harness.authority import Authority, Front, basic
from harness.programs import AUTHORITY
from harness.web import Reply, request
from take_pictures import PICTURES

MARKUP = "<img src=x onerror=alert(1)>\"'&amp;</td></script>"
DOCS = AUTHORITY.parent / "docs"
SECTIONS = ["requests", "agents", "dataselections", "accounts", "pools"]


def rows(reply: Reply, section: str) -> list[list[str]]:
    """The texts of a section's table."""
    found = re.search(f'<tbody id="{section}-rows" data-live>\n(.*?)</tbody>', reply.text, re.DOTALL)
    assert found is not None
    cells = [re.findall(r"<td [^>]*>([^<]*)</td>", line) for line in found[1].splitlines()]
    return [[html.unescape(cell) for cell in line] for line in cells]


def count(reply: Reply, section: str) -> int:
    """The number that stands over a section."""
    return int(re.findall(f'<b id="{section}-count" data-live>([0-9]+)</b>', reply.text)[0])


def test_it_shows_what_is_there(authority: Authority) -> None:
    authority.register("web01.example")
    authority.register("db01.example", isServerAgent="1")
    authority.ask("dataselection", action="createDS", agentid="2", dstypeid="3", dataselection="include /x", name="ds")
    authority.page("storagepool", {"login": "agent1", "passwd": "wrong", "action": "discover"})
    shown = authority.watch()
    assert (shown.status, shown.headers["Content-Type"]) == (200, "text/html; charset=utf-8")
    assert [count(shown, section) for section in SECTIONS] == [4, 2, 1, 3, 2]
    assert [row[1:4] for row in rows(shown, "agents")] == [
        ["db01.example", "server agent", "6.6.0.12345"],
        ["web01.example", "agent", "6.6.0.12345"],
    ]
    agents = [["agent2", "agent", "2"], ["agent1", "agent", "1"]]
    assert rows(shown, "accounts") == [["admin", "administrator", ""], *agents]
    assert rows(shown, "pools") == [["1", "Primary pool"], ["2", "Archive pool (Ghent|Lyon)"]]
    assert [row[:5] for row in rows(shown, "dataselections")] == [["1", "2", "ds", "3", "10 characters"]]
    assert [row[2:] for row in rows(shown, "requests")[:2]] == [
        ["ws_storagepool.php", "", "", "127.0.0.1", "refused: Login failed"],
        ["ws_dataselection.php", "createDS", "admin", "127.0.0.1", "done"],
    ]


def test_a_table_shows_the_newest_rows_only(authority: Authority) -> None:
    authority.change("""
        WITH RECURSIVE number (n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM number WHERE n < 500)
        INSERT INTO agents (host_name, agent_type, is_server_agent, mac_address, agent_version, os_variant_id,
                            os_type, os_extensions) SELECT 'host' || n, 0, 0, '', '', 0, 0, '' FROM number;
        INSERT INTO accounts SELECT 'agent' || id, '', id FROM agents;
    """)
    shown = authority.watch()
    assert (count(shown, "agents"), count(shown, "accounts")) == (500, 501)
    assert [row[1] for row in rows(shown, "agents")] == [f"host{n}" for n in range(500, 488, -1)]
    assert [row[0] for row in rows(shown, "accounts")] == ["admin", *(f"agent{n}" for n in range(500, 489, -1))]
    assert shown.text.count("The last 12 of 500<") == 1 and "None yet<" in shown.text


def test_without_a_login_nothing_is_shown(authority: Authority) -> None:
    system = authority.register()
    refused = [
        authority.watch(None),
        authority.watch("admin", "wrong"),
        authority.watch("admin", ""),
        authority.watch("nobody", authority.password),
        authority.watch("agent1", system["password"]),
    ]
    for reply in refused:
        assert (reply.status, reply.headers["WWW-Authenticate"].split(" ")[0]) == (401, "Basic")
        assert "host.example" not in reply.text and reply.text.count("\n") == 1
    logged = authority.rows("SELECT page, action, login, fields, outcome, client FROM requests WHERE id > 1")
    # A browser asks once without a login before it has its user log in.
    failed = ("watch.php", "watch", "", "", "Login failed", "127.0.0.1")
    mere_agent = "Only an administrator may look at this page."
    assert logged == [failed] * 3 + [("watch.php", "watch", "agent1", "", mere_agent, "127.0.0.1")]


def test_looking_changes_nothing(authority: Authority) -> None:
    authority.watch()
    assert authority.rows("SELECT count(*) FROM requests") == [(0,)]
    reply = request(f"{authority.url}/watch.php", b"x=1", {"Authorization": basic("admin", authority.password)})
    assert (reply.status, reply.headers["Allow"]) == (405, "GET, HEAD")


def test_names_with_markup_are_texts(authority: Authority) -> None:
    authority.register(version=MARKUP)
    authority.ask("dataselection", action="createDS", agentid="1", dstypeid="2", dataselection="x", name=MARKUP)
    authority.change("UPDATE pools SET name = '<script>alert(2)</script>' WHERE id = 1")
    authority.change("UPDATE requests SET outcome = '<b>', login = '\"><i>', client = '<u>'")
    shown = authority.watch()
    assert rows(shown, "agents")[0][3] == rows(shown, "dataselections")[0][2] == MARKUP
    assert rows(shown, "pools")[0][1] == "<script>alert(2)</script>"
    assert rows(shown, "requests")[0][4:] == ['"><i>', "<u>", "refused: <b>"]
    assert re.findall(r"<(?:img|i|u|script)\b[^>]*>", shown.text) == ["<script>"]


def test_no_secret_is_on_the_page(authority: Authority) -> None:
    system = authority.register()
    rules = "include /canary-of-the-rules"
    authority.ask("dataselection", action="createDS", agentid="1", dstypeid="2", dataselection=rules, name="ds")
    authority.page("agent", {"login": "canary-as-login", "passwd": "canary-as-password", "action": "canary-action"})
    authority.watch("canary-watch-login", "canary-watch-password")
    shown = authority.watch().text
    for secret in (authority.password, system["password"], "$2y$", "canary", "macAddress"):
        assert secret not in shown
    stored = str(authority.rows("SELECT * FROM requests"))
    assert authority.password not in stored and system["password"] not in stored
    assert "canary-as" not in stored and "canary-watch" not in stored


def test_the_page_may_load_only_what_it_holds(authority: Authority) -> None:
    shown = authority.watch()
    policy = dict(rule.split(" ", 1) for rule in shown.headers["Content-Security-Policy"].split("; "))
    assert policy.pop("connect-src") == "'self'"
    for part in ("style", "script"):
        [text] = re.findall(f"<{part}>(.*?)</{part}>", shown.text, re.DOTALL)
        digest = base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()
        assert policy.pop(f"{part}-src") == f"'sha256-{digest}'"
    assert policy == dict.fromkeys(["default-src", "base-uri", "form-action", "frame-ancestors"], "'none'")


@pytest.mark.parametrize("login", ["admin", None])
def test_no_copy_is_kept_and_no_other_site_gets_at_it(authority: Authority, login: str | None) -> None:
    headers = authority.watch(login).headers
    assert headers["Cache-Control"] == "no-store" and headers["X-Content-Type-Options"] == "nosniff"
    assert headers["Referrer-Policy"] == "no-referrer"
    assert "frame-ancestors 'none'" in headers["Content-Security-Policy"]
    assert headers["Cross-Origin-Resource-Policy"] == headers["Cross-Origin-Opener-Policy"] == "same-origin"
    assert headers["X-Powered-By"] is None


def test_its_parts_have_names_for_who_cannot_see_them(authority: Authority) -> None:
    shown = authority.watch().text
    assert re.findall('<section id="(.*?)" aria-labelledby="(.*?)-title">', shown) == [(s, s) for s in SECTIONS]
    assert re.findall(r'<h2 id="(\w+)-title">', shown) == SECTIONS
    assert shown.count("<h1>") == 1 and shown.count("<table>\n<caption ") == len(SECTIONS)
    assert re.findall('<a href="#(.*?)">', shown) == SECTIONS
    assert '<p id="status" role="status" aria-live="polite" data-live>Requests: 0, ' in shown
    assert '<html lang="en">' in shown and "<th>" not in shown


def test_a_failure_of_the_authority_is_told_to_its_log_alone(authority: Authority) -> None:
    authority.change("DROP TABLE dataselections")
    reply = authority.watch()
    assert (reply.status, reply.text) == (500, "The authority failed; its server.log says why.\n")
    assert "no such table: dataselections" in (authority.data / "server.log").read_text()


def test_it_is_there_behind_tls(front: Front) -> None:
    headers = {"Authorization": basic("admin", front.authority.password)}
    shown = request(f"{front.url}/watch.php", None, headers, front.certificate)
    assert (shown.status, count(shown, "pools")) == (200, 2)


def test_the_documentation_shows_its_pictures() -> None:
    assert re.findall(r"!\[.+\]\((.+)\)", (DOCS / "monitoring.md").read_text()) == list(PICTURES)
    for name, (width, height) in PICTURES.items():
        picture = (DOCS / name).read_bytes()
        size = struct.unpack(">II", picture[16:24])
        assert picture.startswith(b"\x89PNG") and size == (width, height) and len(picture) < 200_000
