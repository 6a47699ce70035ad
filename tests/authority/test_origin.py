"""The address that the authority names as its own."""

from __future__ import annotations

import pytest

from harness.answers import options, records, refusal
from harness.authority import Authority
from harness.programs import php
from harness.web import request


@pytest.mark.parametrize(
    ("headers", "url"),
    [
        ({"Host": "spa.example:8080"}, "http://spa.example:8080"),
        ({"Host": "[::1]:8080"}, "http://[::1]:8080"),
        ({"X_Forwarded_Proto": "https", "X_Forwarded_Host": "spa.example"}, "https://spa.example"),
        ({"Host": "in", "X_Forwarded_Host": "out:81"}, "http://out:81"),
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


@pytest.mark.parametrize(
    ("peer", "url"),
    [
        ("127.0.0.1", "https://front"),
        ("127.9.9.9", "https://front"),
        ("::1", "https://front"),
        ("192.0.2.1", "http://spa"),
        ("", "http://spa"),
    ],
)
def test_forwarded_headers_count_from_loopback_only(peer: str, url: str) -> None:
    code = """echo (new Origin(['REMOTE_ADDR' => $argv[1], 'HTTP_HOST' => 'spa', 'HTTP_X_FORWARDED_PROTO' => 'https',
        'HTTP_X_FORWARDED_HOST' => 'front']))->webUrl();"""
    assert php(code, peer) == url
