"""The address that the authority names as its own."""

from __future__ import annotations

import json

import pytest

from harness.answers import options, records, refusal
from harness.authority import Authority
from harness.programs import php


@pytest.mark.parametrize(
    ("headers", "url"),
    [
        ({"Host": "spa.example:8080"}, "http://spa.example:8080"),
        ({"Host": "[::1]:8080"}, "http://[::1]:8080"),
        ({"X_Forwarded_Proto": "https", "X_Forwarded_Host": "spa.example"}, "https://spa.example"),
        ({"Host": "in", "X_Forwarded_Host": "out:81"}, "http://out:81"),
        ({"Host": "spa.example", "X_Forwarded_Prefix": "/spa"}, "http://spa.example/spa"),
    ],
)
def test_the_address_is_the_one_that_the_client_used(authority: Authority, headers: dict[str, str], url: str) -> None:
    fields = {"login": "admin", "passwd": authority.password}
    fields |= {"action": "create", "agentid": "0", "configfiletemplateid": "1"}
    answer = authority.page("configfile", fields, **headers)
    assert options(records(answer)[0]["returnvalue"])["spa"]["url"] == url


@pytest.mark.parametrize("host", ["a b", "a/b", "a:port", "a\\x7c", "", "a=b"])
def test_a_host_name_that_is_none_never_reaches_a_file(authority: Authority, host: str) -> None:
    fields = {"login": "admin", "passwd": authority.password}
    fields |= {"action": "create", "agentid": "0", "configfiletemplateid": "1"}
    answer = authority.page("configfile", fields, X_Forwarded_Host=host)
    assert refusal(answer) == (2, "The request does not name the host that it is meant for.")


@pytest.mark.parametrize("prefix", ["spa", "/a b", "/a//b", "/a=b", "/a\\nb", "/a, /b", "http://x", "/a;b", "/a#b"])
def test_a_prefix_that_is_none_never_reaches_a_file(authority: Authority, prefix: str) -> None:
    fields = {"login": "admin", "passwd": authority.password}
    fields |= {"action": "create", "agentid": "0", "configfiletemplateid": "1"}
    answer = authority.page("configfile", fields, X_Forwarded_Prefix=prefix)
    assert refusal(answer) == (2, "The request does not name the path that leads to the page.")


@pytest.mark.parametrize(
    ("peer", "forwarded", "client"),
    [
        ("127.0.0.1", None, "127.0.0.1"),
        ("127.0.0.1", "192.0.2.9", "192.0.2.9"),
        ("::1", "192.0.2.1, 192.0.2.9", "192.0.2.9"),
        ("127.0.0.1", "192.0.2.1, <b>", "127.0.0.1"),
        ("192.0.2.1", "192.0.2.9", "192.0.2.1"),
    ],
)
def test_the_client_is_whom_a_front_names_last(peer: str, forwarded: str | None, client: str) -> None:
    server = {"REMOTE_ADDR": peer} | ({} if forwarded is None else {"HTTP_X_FORWARDED_FOR": forwarded})
    assert php("echo (new Origin(json_decode($argv[1], true)))->client();", json.dumps(server)) == client


@pytest.mark.parametrize(
    ("peer", "url"),
    [
        ("127.0.0.1", "https://front/in"),
        ("127.9.9.9", "https://front/in"),
        ("::1", "https://front/in"),
        ("192.0.2.1", "http://spa"),
        ("", "http://spa"),
    ],
)
def test_forwarded_headers_count_from_loopback_only(peer: str, url: str) -> None:
    server = {"REMOTE_ADDR": peer, "HTTP_HOST": "spa", "SCRIPT_NAME": "/ws_agent.php"}
    forwarded = {"PROTO": "https", "HOST": "front", "PREFIX": "/in"}
    server |= {f"HTTP_X_FORWARDED_{name}": value for name, value in forwarded.items()}
    assert addresses(**server)[0] == url


def addresses(**server: str) -> tuple[str, str]:
    """The web and the channel address that follow from server variables."""
    code = """$origin = new Origin(json_decode($argv[1], true));
        echo json_encode([$origin->webUrl(), $origin->channelUrl()]);"""
    web, channel = json.loads(php(code, json.dumps(server)))
    return web, channel


@pytest.mark.parametrize(
    ("flag", "scheme"), [("on", "https"), ("On", "https"), ("1", "https"), ("off", "http"), ("OFF", "http"), ("", "http")]
)
@pytest.mark.parametrize("peer", ["127.0.0.1", "192.0.2.1"])
def test_the_servers_own_flag_tells_the_scheme(flag: str, scheme: str, peer: str) -> None:
    web, _ = addresses(HTTPS=flag, REMOTE_ADDR=peer, HTTP_HOST="spa:8443", SCRIPT_NAME="/ws_agent.php")
    assert web == f"{scheme}://spa:8443"


def test_a_front_without_tls_counts_more_than_tls_behind_it() -> None:
    behind = {"HTTPS": "on", "REMOTE_ADDR": "127.0.0.1", "HTTP_HOST": "spa", "SCRIPT_NAME": "/ws_agent.php"}
    assert addresses(**behind, HTTP_X_FORWARDED_PROTO="http")[0] == "http://spa"
    assert addresses(**{**behind, "REMOTE_ADDR": "192.0.2.1"}, HTTP_X_FORWARDED_PROTO="http")[0] == "https://spa"


@pytest.mark.parametrize(
    ("script", "prefix", "web", "channel"),
    [
        ("/vrmo.php", None, "http://spa", "vrmo://spa"),
        ("/vrmo.php", "", "http://spa", "vrmo://spa"),
        ("/vrmo.php", "/", "http://spa", "vrmo://spa"),
        ("/spa/vrmo.php", None, "http://spa/spa", "vrmo://spa/spa/vrmo.php"),
        ("/a/b/vrmo.php", None, "http://spa/a/b", "vrmo://spa/a/b/vrmo.php"),
        ("/a b=/vrmo.php", None, "http://spa/a%20b%3D", "vrmo://spa/a%20b%3D/vrmo.php"),
        ("/vrmo.php", "/out", "http://spa/out", "vrmo://spa/out/vrmo.php"),
        ("/vrmo.php", "/out/a%20b/", "http://spa/out/a%20b", "vrmo://spa/out/a%20b/vrmo.php"),
        ("/in/vrmo.php", "/out", "http://spa/out/in", "vrmo://spa/out/in/vrmo.php"),
    ],
)
def test_the_path_in_front_of_the_page_is_kept(script: str, prefix: str | None, web: str, channel: str) -> None:
    server = {"REMOTE_ADDR": "127.0.0.1", "HTTP_HOST": "spa", "SCRIPT_NAME": script}
    if prefix is not None:
        server["HTTP_X_FORWARDED_PREFIX"] = prefix
    assert addresses(**server) == (web, channel)
