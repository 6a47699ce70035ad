"""Accounts, logins and passwords."""

from __future__ import annotations

import json
from pathlib import Path

from harness.answers import HOST, records, refusal
from harness.authority import Authority
from harness.programs import AUTHORITY, php, start, stop
from harness.web import request


def test_a_system_account_serves_its_own_agent_only(authority: Authority) -> None:
    password = authority.register("a")["password"]
    authority.register("b")
    requests = [
        ("agent", "id", {"action": "getRoutingTables", "storagepoolId": "1"}),
        ("configfile", "agentid", {"action": "create", "configfiletemplateid": "1"}),
        ("dataselection", "agentid", {"action": "createDS", "dstypeid": "", "dataselection": "", "name": "n"}),
    ]
    denied = (4, 'The account "agent1" may act for its own agent only.')
    for page, field, fields in requests:
        assert records(authority.ask(page, "agent1", password, **{**fields, field: "1"}))
        for other in ("2", "99"):
            assert refusal(authority.ask(page, "agent1", password, **{**fields, field: other})) == denied
    assert records(authority.ask("agent", "agent1", password, action="getRoutingTables", storagepoolId="1"))


def test_failed_logins_look_alike_whether_the_login_exists_or_not(authority: Authority) -> None:
    right = authority.password
    attempts = [
        ("admin", "wrong"),
        ("admin", ""),
        ("admin", right + "x"),
        ("admin", right + "\x00"),
        ("admin", right.lower()),
        ("Admin", right),
        ("nobody", right),
        ("", ""),
        ("' OR 1=1 --", "x"),
    ]
    answers = {authority.ask("storagepool", login, passwd, action="discover") for login, passwd in attempts}
    assert answers == {
        f"***ERROR***\n3\nseverity: 5\nserver: {HOST}\nsource: ws_storagepool.php\n"
        "description: Login failed\n***DONE***\n"
    }


# Refuses a login; in the authority's namespace, password_verify notes the hashes that it is given.
SLOW_CHECKS = r"""
function password_verify(string $passwd, string $hash): bool
{
    echo json_encode(password_get_info($hash)), "\n";
    return \password_verify($passwd, $hash);
}

try {
    (new Accounts(Store::open($argv[1])))->check($argv[2], "wrong");
} catch (Refusal $refusal) {
    echo "refused";
}
"""


def test_a_refusal_takes_the_same_work_for_every_login(authority: Authority) -> None:
    authority.register()
    authority.register("b")
    slow = php("echo password_hash('chosen', PASSWORD_BCRYPT);")
    authority.change(f"UPDATE accounts SET password_hash = '{slow}' WHERE login = 'agent2'")
    work = {php(SLOW_CHECKS, str(authority.data), login) for login in ("nobody", "admin", "agent1", "agent2")}
    assert len(work) == 1
    info, end = work.pop().splitlines()
    assert (json.loads(info)["algoName"], end) == ("bcrypt", "refused")


def hashes(authority: Authority) -> dict[str, str]:
    """How each account's hash begins."""
    return {login: text[:7] for login, text in authority.rows("SELECT login, password_hash FROM accounts")}


def restarted(data: Path, *arguments: str) -> dict[str, str]:
    """The beginnings of the hashes after one more start, at which the administrator's password works."""
    process, url = start(AUTHORITY / "serve", "--data", data, *arguments)
    try:
        authority = Authority(url, data)
        assert records(authority.ask("storagepool", action="discover"))
        return hashes(authority)
    finally:
        stop(process)


def test_only_passwords_that_nobody_chose_are_hashed_fast(tmp_path: Path) -> None:
    own = tmp_path / "d" / "admin.passwd"
    assert restarted(tmp_path / "d") == restarted(tmp_path / "d") == {"admin": "sha256:"}
    own.write_text("passwd=chosen\n")
    assert restarted(tmp_path / "d") == {"admin": "$2y$10$"}
    assert restarted(tmp_path / "d", "--login", "second") == {"admin": "$2y$10$", "second": "$2y$10$"}


def test_an_account_with_a_slow_hash_goes_on(authority: Authority) -> None:
    password = authority.register()["password"]
    assert hashes(authority)["agent1"] == "sha256:"
    slow = php("echo password_hash($argv[1], PASSWORD_BCRYPT);", password)
    authority.change(f"UPDATE accounts SET password_hash = '{slow}' WHERE login = 'agent1'")
    assert records(authority.ask("storagepool", "agent1", password, action="discover"))
    assert refusal(authority.ask("storagepool", "agent1", "wrong", action="discover"))[0] == 3


def test_a_password_counts_to_its_last_byte(tmp_path: Path) -> None:
    longest = "x" * 72
    (tmp_path / "passwd").write_text(f"# the administrator's\nspa passwd={longest}\npasswd=other\n")
    process, url = start(AUTHORITY / "serve", "--data", tmp_path / "d", "--passwd-file", tmp_path / "passwd")
    try:
        authority = Authority(url, tmp_path / "d")
        assert records(authority.ask("storagepool", passwd=longest, action="discover"))
        assert refusal(authority.ask("storagepool", passwd=longest + "y", action="discover"))[0] == 3
        assert not (tmp_path / "d" / "admin.passwd").exists()
    finally:
        stop(process)


def test_passwords_are_nowhere_but_in_the_administrators_file(authority: Authority) -> None:
    secrets = [authority.password, "a-wrong-password", "typed-into-the-login"]
    secrets += [authority.register(host)["password"] for host in ("a", "a", "b")]
    authority.ask("storagepool", passwd="a-wrong-password", action="discover")
    authority.ask("storagepool", "typed-into-the-login", "x", action="discover")
    authority.ask("storagepool", action="discover", Passwd="a-wrong-password")
    authority.ask("storagepool", action="a-wrong-password")
    texts = {path.name: path.read_bytes() for path in authority.data.rglob("*") if path.is_file()}
    texts["show"] = authority.show().encode()
    assert b"Login failed" in texts["show"] and b"$2y$" not in texts["show"]
    assert texts.pop("admin.passwd") == f"passwd={secrets[0]}\n".encode()
    found = [(name, secret) for name, text in texts.items() for secret in secrets if secret.encode() in text]
    assert found == []
