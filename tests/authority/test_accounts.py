"""Accounts, logins and passwords."""

from __future__ import annotations

import json
import subprocess
from pathlib import Path

from harness.answers import HOST, records, refusal
from harness.authority import Authority
from harness.programs import AUTHORITY, start, stop
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


# The accounts, in the namespace of which password_verify notes the hashes that it is given.
HASHES_CHECKED = r"""
namespace Quorvex\Authority;

function password_verify(string $passwd, string $hash): bool
{
    echo json_encode(password_get_info($hash)), "\n";
    return \password_verify($passwd, $hash);
}

require $argv[1];
foreach (["admin", "nobody"] as $login) {
    try {
        (new Accounts(Store::open($argv[2])))->check($login, "wrong");
    } catch (Refusal $refusal) {
        continue;
    }
}
"""


def test_an_unknown_login_takes_the_same_work_to_refuse(authority: Authority) -> None:
    command = ["php", "-r", HASHES_CHECKED, "--", str(AUTHORITY / "lib" / "bootstrap.php"), str(authority.data)]
    printed = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
    known, unknown = (json.loads(line) for line in printed.splitlines())
    assert known == unknown
    assert known["algoName"] == "bcrypt"


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
