"""Holds what the hosts have against what the authority has: who is registered, who is lost, what is there twice."""

from __future__ import annotations

import concurrent.futures
import json
import os
import re
import sqlite3
import subprocess
from collections import Counter
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path

import paths  # noqa: F401  (finds the imports below)
from harness.config_model import Config, provisioned
from harness.passwords import decrypt

_AGENT_TEMPLATE = 1

_CHECK_ACCOUNTS = r"""
namespace Quorvex\Authority;
require $argv[1] . '/lib/bootstrap.php';
$accounts = new Accounts(Store::open($argv[2], true));
$agentOf = static function (array $account) use ($accounts): ?int {
    try {
        return $accounts->check($account[0], $account[1])->agentId;
    } catch (Refusal) {
        return null;
    }
};
echo json_encode(array_map($agentOf, json_decode(stream_get_contents(STDIN))));
"""


@dataclass(frozen=True)
class Enrolled:
    """What a host says of itself after its run: `said` is the last line of tzregister-enroll."""

    name: str
    base: Path
    target: Path
    key: bytes
    said: str


@dataclass(frozen=True)
class Account:
    """The account in a host's file; the password as the host decrypts it."""

    agent: str
    login: str
    password: str
    stored: str


@dataclass(frozen=True)
class Verdict:
    """The outcome; `faults` gives a line for whatever is wrong."""

    registered: int
    lost: int
    twice: int
    faults: Sequence[str]

    def __str__(self) -> str:
        return f"{self.registered} registered, {self.lost} lost, {self.twice} twice"


class Records:
    """What the authority keeps, read from its file."""

    def __init__(self, data: Path) -> None:
        connection = sqlite3.connect(f"file:{data}/authority.sqlite?mode=ro", uri=True)
        try:
            self.agents: list[tuple[int, str]] = connection.execute("SELECT id, host_name FROM agents").fetchall()
            self.accounts: list[tuple[str, int]] = connection.execute(
                "SELECT login, agent_id FROM accounts WHERE agent_id IS NOT NULL"
            ).fetchall()
            self.complaints = [row[0] for row in connection.execute("PRAGMA integrity_check") if row[0] != "ok"]
            self.complaints += [str(row) for row in connection.execute("PRAGMA foreign_key_check")]
        finally:
            connection.close()


def account_of(host: Enrolled) -> Account:
    """The account in a host's file; raises when there is none that can be read."""
    config = Config(host.target.read_text())
    agent, login, stored = config.get("main", "agentid"), *(
        config.get("systemaccount", option) for option in ("login", "passwd")
    )
    if agent is None or login is None or stored is None:
        raise ValueError("the file names no account")
    return Account(agent, login, decrypt(host.key, stored.encode()).decode(), stored)


def expected_file(template: str, url: str, host: Enrolled, account: Account) -> bytes:
    """Every byte of a host's file, given its account."""
    filled = template.replace("@SPA_URL@", url).replace("@AGENT_ID@", account.agent)
    filled = filled.replace("@SYSTEM_LOGIN@", account.login)
    return provisioned(filled, _AGENT_TEMPLATE, str(host.base), (account.login, account.stored)).encode()


def agents_of_accounts(program: Path, data: Path, accounts: Sequence[tuple[str, str]]) -> list[int | None]:
    """Whose agent the authority takes each login and password for; None where it refuses them."""
    cores = os.cpu_count() or 1
    parts = [accounts[start::cores] for start in range(cores)]

    def check(part: Sequence[tuple[str, str]]) -> list[int | None]:
        command = ["php", "-r", _CHECK_ACCOUNTS, "--", str(program), str(data)]
        done = subprocess.run(command, input=json.dumps(part), capture_output=True, text=True, check=True)
        found: list[int | None] = json.loads(done.stdout)
        return found

    result: list[int | None] = [None] * len(accounts)
    with concurrent.futures.ThreadPoolExecutor(cores) as pool:
        for start, found in enumerate(pool.map(check, parts)):
            result[start::cores] = found
    return result


class Comparison:
    """One comparison of hosts and authority; collects what is wrong."""

    def __init__(self, program: Path, data: Path, url: str) -> None:
        self.program, self.data, self.url = program, data, url
        self.records = Records(data)
        self.template = (program / f"templates/{_AGENT_TEMPLATE}.cfg").read_text()
        self.faults = [f"the authority's file: {complaint}" for complaint in self.records.complaints]

    def verdict(self, hosts: Sequence[Enrolled]) -> Verdict:
        """Compares everything."""
        accounts = {host.name: self._account(host) for host in hosts}
        there = [(host, account) for host in hosts if (account := accounts[host.name]) is not None]
        accepted = agents_of_accounts(self.program, self.data, [(a.login, a.password) for _, a in there])
        registered = {
            host.name for (host, account), agent in zip(there, accepted) if self._belongs(host, account, agent)
        }
        twice = self._twice(hosts, [account for _, account in there])
        return Verdict(len(registered), len(hosts) - len(registered), twice, self.faults)

    def _account(self, host: Enrolled) -> Account | None:
        try:
            return account_of(host)
        except Exception as failure:  # pylint: disable=broad-except
            self.faults.append(f"{host.name}: {type(failure).__name__}: {failure}")
            return None

    def _belongs(self, host: Enrolled, account: Account, accepted: int | None) -> bool:
        """Whether everything about a host agrees; what does not is noted."""
        checks: Sequence[tuple[str, Callable[[], bool]]] = (
            ("the run did not name its agent", lambda: f" agentid={account.agent} " in host.said),
            ("the login is not the agent's", lambda: account.login == f"agent{account.agent}"),
            ("the authority has no such agent", lambda: (int(account.agent), host.name) in self.records.agents),
            ("the authority has no such account", lambda: (account.login, int(account.agent)) in self.records.accounts),
            ("the authority refuses the account", lambda: accepted == int(account.agent)),
            ("the file differs from what it must be", lambda: self._is_whole(host, account)),
            ("the password is none that was given out", lambda: bool(re.fullmatch(r"[\w-]{32}", account.password))),
        )
        wrong = [text for text, holds in checks if not holds()]
        self.faults += [f"{host.name}: {text}" for text in wrong]
        return not wrong

    def _is_whole(self, host: Enrolled, account: Account) -> bool:
        return host.target.read_bytes() == expected_file(self.template, self.url, host, account)

    def _twice(self, hosts: Sequence[Enrolled], accounts: Sequence[Account]) -> int:
        """How often an id was handed out once more, a host has one more record, or a record has no host."""
        names = Counter(name.lower() for _, name in self.records.agents)
        expected = {host.name.lower() for host in hosts}
        counted: Sequence[tuple[str, Counter[str] | Counter[int]]] = (
            ("agent id {} is in more than one host's file", Counter(account.agent for account in accounts)),
            ("the authority has host {} more than once", names),
            ("agent {} has more than one account", Counter(agent for _, agent in self.records.accounts)),
        )
        repeated = [
            text.format(what) for text, count in counted for what, times in count.items() for _ in range(times - 1)
        ]
        repeated += [f"the authority has {name}, which is no host of this fleet" for name in names.keys() - expected]
        self.faults += repeated
        return len(repeated)
