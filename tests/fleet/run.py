#!/usr/bin/env python3
"""Rolls the package out to made-up machines and looks at every one of them:  run.py FOLDER PACKAGE

Run by scripts/test-fleet, in namespaces that end with this process. Prints a line
for each check; the status is 0 when all of them hold.
"""

from __future__ import annotations

import hashlib
import json
import re
import secrets
import shutil
import sys
import time
import traceback
from collections.abc import Callable
from pathlib import Path

from controller import COLLECTION, Controller, Outcome, blocks
from machines import Machine, make_bridge, run, until
from spa import Authority, make_certificate
from watch import Watch

HOSTS = [f"host{number:02}" for number in range(1, 9)]
ARCHIVE = "host08"  # has everything that is optional
REPOSITORY = "host02"  # installs from a repository
THROTTLE = 3
CONFIGURATION = "etc/quorvex/Agent.cfg"
SECRET_DIRECTORY = "run/tzregister-role"
PATIENCE_S = 600.0  # for what a play does; a backstop

_SERVICE = """\
#!/bin/sh
echo "$1" >>/var/log/quorvex-agent
case $1 in
  start) : >/run/quorvex-agent ;;
  stop) rm -f /run/quorvex-agent ;;
  status) [ -e /run/quorvex-agent ] || exit 3 ;;
esac
"""


class Checks:
    """Prints how each check went and counts those that failed."""

    def __init__(self) -> None:
        self.failed = 0

    def that(self, what: str, found: object, wanted: object = True) -> None:
        """One check: what was found is what was wanted."""
        if found == wanted:
            print(f"ok    {what}", flush=True)
            return
        self.failed += 1
        print(f"FAIL  {what}\n        found  {found}\n        wanted {wanted}", flush=True)


class Fleet:
    """Hosts, authority and controller."""

    def __init__(self, folder: Path, package: Path) -> None:
        self.folder = folder
        self.password = f"canary-{secrets.token_hex(12)}"
        self.wrong_password = f"canary-{secrets.token_hex(12)}"
        self.watch = Watch(self.password, self.wrong_password)
        self.authority = Authority(Machine("spa.example", 10, folder), self.password)
        self.controller = Controller(folder, package, self.authority.certificate, self.password)
        self.machines: dict[str, Machine] = {}
        for number, name in enumerate([*HOSTS, "badcert", "badword"], start=11):
            self._prepare(Machine(name, number, folder))
        self._prepare_special(package)

    def _prepare(self, machine: Machine) -> None:
        machine.make_disk()
        self.settle(machine)

    def settle(self, machine: Machine) -> None:
        """Gives a machine with a disk its own identity and the way to the others."""
        machine.identify()
        names = f"127.0.0.1 localhost\n{machine.address} {machine.name}\n"
        machine.write("etc/hosts", f"{names}{self.authority.machine.address} {self.authority.machine.name}\n")
        machine.mkdir("root/.ssh", 0o700)
        machine.write("root/.ssh/authorized_keys", self.controller.public_key, 0o600)
        self.controller.know(machine)
        self.machines[machine.name] = machine

    def _prepare_special(self, package: Path) -> None:
        """A repository, an agent's service, and what makes two hosts fail."""
        self.machines[ARCHIVE].write("etc/init.d/quorvex-agent", _SERVICE, 0o755)
        machine = self.machines[REPOSITORY]
        machine.mkdir("srv/repository")
        shutil.copy(package, machine.disk / "srv/repository/tzregister.deb")
        content = package.read_bytes()
        facts = f"Filename: ./tzregister.deb\nSize: {len(content)}\nSHA256: {hashlib.sha256(content).hexdigest()}\n"
        machine.write("srv/repository/Packages", run("dpkg-deb", "-f", package).rstrip() + f"\n{facts}")
        machine.write("etc/apt/sources.list", "deb [trusted=yes] file:/srv/repository ./\n")
        self.controller.write(f"host_vars/{REPOSITORY}.yml", 'tzregister_package_file: ""\n')
        other = make_certificate(self.folder / "other", "spa.example")
        self.controller.write("files/other.pem", other.read_text())
        self.controller.write(
            "host_vars/badcert.yml", 'tzregister_certificate_file: "{{ playbook_dir }}/files/other.pem"\n'
        )
        self.controller.write("host_vars/badword.yml", f"tzregister_password: {self.wrong_password}\n")
        self.controller.write("trouble.ini", "[storage_hosts]\nhost01\nbadcert\nbadword\nclone\n")

    def switch_on(self) -> None:
        """Starts everything."""
        self.authority.switch_on()
        for machine in self.machines.values():
            machine.switch_on()
            machine.serve_ssh()
        self.machines[REPOSITORY].run("apt-get", "update")

    def states(self, *names: str) -> dict[str, dict[str, str]]:
        """What these hosts keep."""
        return {name: self.machines[name].state() for name in names or HOSTS}

    def play(self, *arguments: str) -> Outcome:
        """Runs a play, watched."""
        with self.watch.watching():
            return self.controller.play(*arguments)

    def restarts(self) -> int:
        """How often the agent of the host with everything was started."""
        log = self.machines[ARCHIVE].disk / "var/log/quorvex-agent"
        return log.read_text().split().count("start") if log.exists() else 0

    def agent_ids(self) -> dict[str, int]:
        """The agents' ids by what the hosts' configurations say."""
        found = {}
        for name in HOSTS:
            file = self.machines[name].disk / CONFIGURATION
            match = re.search(r"^agentid=(\d+)$", file.read_text(), re.M) if file.exists() else None
            if match is not None:
                found[name] = int(match[1])
        return found


def differences(before: dict[str, dict[str, str]], after: dict[str, dict[str, str]]) -> list[str]:
    """What distinguishes two states of the same hosts."""
    return sorted(
        f"{host}:{path}"
        for host in before
        for path in before[host].keys() | after[host].keys()
        if before[host].get(path) != after[host].get(path)
    )


def is_registered(fleet: Fleet, name: str) -> bool:
    """Whether the authority knows the account that a host has."""
    number = str(fleet.agent_ids().get(name))
    arguments = ("--action", "routingtables", "--type", "Agent", "--agentid", number, "--storagepoolid", "1")
    try:
        fleet.machines[name].run("env", "QUORVEX_SSL_VERIFY=required", "tzregister", *arguments)
    except RuntimeError:
        return False
    return True


def check_role(fleet: Fleet, checks: Checks) -> None:
    """The collection can be built, and its README tells every variable and its default."""
    fleet.controller.install_collection()
    entries = json.loads(fleet.controller.role_options())["quorvex.storage.tzregister"]["entry_points"]
    described = {**entries["main"]["options"], **entries["remove"]["options"]}
    defaults = (COLLECTION / "roles/tzregister/defaults/main.yml").read_text()
    set_there = set(re.findall(r"^(\w+):", defaults, re.M))
    optional = {name for name, facts in described.items() if not facts.get("required")}
    checks.that("every variable that is not needed has a default", set_there, optional)
    table = dict(re.findall(r"^\| `(tzregister_\w+)` \| (.*?) \|", (COLLECTION / "README.md").read_text(), re.M))
    shown: dict[str, object] = {"needed": None, "empty": "", "none": []}
    words = {name: shown.get(text, text.strip("`")) for name, text in table.items()}
    wanted = {name: facts.get("default") for name, facts in described.items()}
    as_text = {
        name: value if value in (None, "", []) else json.dumps(value).strip('"') for name, value in wanted.items()
    }
    checks.that("the README's table tells them all with their defaults", words, as_text)
    for name in ("site.yml", "remove.yml"):
        shipped = COLLECTION / "playbooks" / name.replace("site", "enrol")
        checks.that(f"{name} of the README is the collection's", "---\n" + blocks()[name], shipped.read_text())


def check_mode(fleet: Fleet, checks: Checks) -> None:
    """Check mode on hosts without anything."""
    some = ("host01", REPOSITORY, ARCHIVE)
    before, requests = fleet.states(), fleet.authority.requests()
    outcome = fleet.play("--check", "--diff", "--limit", ",".join(some), "site.yml")
    checks.that("check mode: every host would change", outcome.changed(), set(some))
    checks.that("check mode: nothing has changed", differences(before, fleet.states()), [])
    checks.that("check mode: the authority was not asked", fleet.authority.requests(), requests)
    checks.that("diff mode: shows the registry that would be written", "+configfilepath=" in outcome.output)


def first_run(fleet: Fleet, checks: Checks) -> None:
    """Hosts without anything are registered, in batches."""
    outcome = fleet.play("--diff", "site.yml")
    checks.that("first run: every host changes", outcome.changed(), set(HOSTS))
    checks.that("first run: the hosts have the ids that they were given", fleet.agent_ids(), fleet.authority.agents())
    checks.that("first run: every host has one", sorted(fleet.agent_ids()), HOSTS)
    checks.that("first run: two batches", len(re.findall("^PLAY \\[", outcome.output, re.M)), 2)
    several = fleet.watch.most_enrolments
    checks.that(f"first run: several at a time, as the throttle lets ({several})", several in range(2, THROTTLE + 1))
    modes = {fleet.machines[name].state().get(CONFIGURATION, "none").split()[0] for name in HOSTS}
    checks.that("first run: configurations are their owner's alone", modes, {"100600"})
    seen = " ".join(fleet.watch.commands)
    checks.that("first run: the watch has seen the programs", "--action register" in seen and "--passwdfile=" in seen)
    archive = fleet.machines[ARCHIVE].disk
    rows = fleet.authority.rows("SELECT name, type_id, rules FROM dataselections")
    checks.that("first run: the data selection is there", rows, [("homes", "1", "/home")])
    [tables] = fleet.authority.rows("SELECT recommended_rt, current_rt FROM pools WHERE id = 1")
    found = tuple((archive / f"etc/quorvex/pool1.{name}").read_text() for name in ("recommended", "current"))
    checks.that("first run: the routing tables are the pool's", found, tables)
    checks.that("first run: the certificate is there", (archive / "usr/zenta/vrmo/qxag/keys/Agent.cert").exists())
    checks.that("first run: the agent is restarted once", fleet.restarts(), 1)


def second_run(fleet: Fleet, checks: Checks) -> None:
    """Nothing changes on registered hosts, in check mode neither."""
    before, requests = fleet.states(), fleet.authority.requests()
    outcome = fleet.play("--diff", "site.yml")
    checks.that("second run: no host changes", outcome.unchanged(), set(HOSTS))
    checks.that("second run: no file has changed", differences(before, fleet.states()), [])
    actions = {action for action, _ in fleet.authority.requests_since(requests)}
    checks.that("second run: nobody registers", actions, {"getRoutingTables"})
    checks.that("second run: the agent is not restarted", fleet.restarts(), 1)
    outcome = fleet.play("--check", "--diff", "--limit", ARCHIVE, "site.yml")
    checks.that("check mode: a registered host would not change", outcome.unchanged(), {ARCHIVE})


def trouble(fleet: Fleet, checks: Checks) -> None:
    """Hosts that cannot be registered fail once, and keep nobody else from it."""
    clone = Machine("clone", 30, fleet.folder)
    clone.clone_disk(fleet.machines["host01"])
    fleet.settle(clone)
    clone.switch_on()
    clone.serve_ssh()
    before, requests = fleet.states("clone"), fleet.authority.requests()
    outcome = fleet.play("-i", "trouble.ini", "site.yml")
    checks.that("trouble: the first batch is well", outcome.unchanged(), {"host01"})
    failed = {host: counts.failed for host, counts in outcome.recap.items() if counts.failed}
    checks.that("trouble: the recap names the three others", failed, {"badcert": 1, "badword": 1, "clone": 1})
    checks.that("trouble: the play says so", outcome.status, 2)
    for host, reason in (
        ("badcert", r"lasting, status 76: .*shows the certificate SHA-256 .*other|lasting, status 76: .*certificate"),
        ("badword", r"lasting, status 76: rehearse: the authority does not know this login and password"),
        ("clone", r"lasting, status 77: .* was enrolled by another machine"),
    ):
        said = re.findall(rf'^fatal: \[{host}\]: FAILED! => \{{\n(.*?)^\}}', outcome.output, re.M | re.S)
        checks.that(f"trouble: {host} says why, and once", [bool(re.search(reason, text)) for text in said], [True])
    checks.that("trouble: nothing was tried again", re.findall("result=passing|RETRYING", outcome.output), [])
    answers = sorted(fleet.authority.requests_since(requests))
    wanted = [("", "Login failed"), ("getRoutingTables", "done")]
    checks.that("trouble: the authority was asked once by each that it trusts", answers, wanted)
    checks.that("trouble: the clone is as it was", differences(before, fleet.states("clone")), [])
    lost = [name for name in ("badcert", "badword") if (fleet.machines[name].disk / CONFIGURATION).exists()]
    checks.that("trouble: the failed ones have no configuration", lost, [])


def cut_off(fleet: Fleet, checks: Checks) -> None:
    """A host loses network and power behind the authority's answer, before it has stored it."""
    machine, agents = fleet.machines["host07"], fleet.authority.agents()
    before, requests = fleet.states("host07"), fleet.authority.requests()
    with fleet.watch.watching():
        play = fleet.controller.start("--limit", "host06,host07", "-e", "tzregister_force=true", "site.yml")
        registered = [("register", "done")]
        asked = fleet.authority.requests_since
        until(lambda: asked(requests, "register") == registered * 2, "host07's account", PATIENCE_S)
        machine.cut()
        outcome = fleet.controller.finish(play)
    checks.that("cut off: the recap names the host", outcome.recap["host07"].unreachable, 1)
    checks.that("cut off: the other one is well", outcome.changed(), {"host06"})
    machine.switch_off()
    fleet.controller.forget_connections()
    unfinished = differences(before, fleet.states("host07"))
    checks.that("cut off: the host has its old configuration", f"host07:{CONFIGURATION}" in unfinished, False)
    checks.that("cut off: and the password still", (machine.disk / SECRET_DIRECTORY / "passwd").exists())
    machine.switch_on()
    machine.serve_ssh()
    checks.that("cut off: its account does not work any more", is_registered(fleet, "host07"), False)
    outcome = fleet.play("--limit", "host06,host07", "site.yml")
    checks.that("next run: the host recovers", outcome.changed(), {"host07"})
    checks.that("next run: the other one does not change", outcome.unchanged(), {"host06"})
    checks.that("next run: its account works", is_registered(fleet, "host07"))
    checks.that("next run: the authority knows the same agents", fleet.authority.agents(), agents)


def removal(fleet: Fleet, checks: Checks) -> None:
    """Hosts are taken out; then there is nothing left to take out."""
    ids = fleet.agent_ids()
    outcome = fleet.play("--check", "--diff", "--limit", ARCHIVE, "remove.yml")
    checks.that("removal: check mode removes nothing", fleet.agent_ids(), ids)
    outcome = fleet.play("remove.yml")
    checks.that("removal: every host changes", outcome.changed(), set(HOSTS))
    told = {int(number) for number in re.findall(r"Have the agent with agentid=(\d+) and its account", outcome.output)}
    checks.that("removal: the agents' ids are told", told, set(ids.values()))
    left = [
        f"{name}:{file}"
        for name in HOSTS
        for file in (str(path.relative_to(fleet.machines[name].disk)) for path in fleet.machines[name].files())
        if re.search("quorvex/|qxregistry|qxag|tzregister", file)
        and not re.match("srv/|var/lib/dpkg|.*apt/", file)
    ]  # fmt: skip
    checks.that("removal: no file is left", left, [])
    outcome = fleet.play("--limit", f"host01,{ARCHIVE}", "remove.yml")
    checks.that("removal: the second time nothing changes", outcome.unchanged(), {"host01", ARCHIVE})


def restart(fleet: Fleet, checks: Checks) -> None:
    """The authority is killed in the middle of a batch and comes back."""
    authority, agents = fleet.authority, fleet.authority.agents()
    requests = authority.requests()
    with fleet.watch.watching():
        play = fleet.controller.start("site.yml")
        # The first host is a batch of its own: its account, then the next batch's first one.
        until(lambda: len(authority.requests_since(requests, "register")) >= 2, "the second batch", PATIENCE_S)
        authority.kill()
        turned_away = authority.turned_away()
        until(lambda: authority.turned_away() > turned_away, "somebody who is turned away", PATIENCE_S)
        authority.serve()
        outcome = fleet.controller.finish(play)
    checks.that("restart: somebody had to try again", "result=passing" in outcome.output)
    checks.that("restart: every host changes", outcome.changed(), set(HOSTS))
    checks.that("restart: the hosts have their former ids", fleet.agent_ids(), agents)
    checks.that("restart: the authority knows nobody twice", authority.agents(), agents)
    checks.that("restart: every account works", [name for name in HOSTS if not is_registered(fleet, name)], [])


def holding(word: str, files: list[Path]) -> list[str]:
    """The files that hold a word."""
    return [str(file) for file in files if word.encode() in file.read_bytes()]


def canary(fleet: Fleet, checks: Checks) -> None:
    """The passwords are nowhere but where they belong."""
    controller, authority = fleet.controller, fleet.authority.machine
    checks.that("canary: no process had it on its command line or in its environment", fleet.watch.caught, set())
    said = [*controller.outputs(), controller.folder / "ansible.log"]
    hosts = [file for machine in fleet.machines.values() for file in machine.files()]
    kept = [file for file in [*controller.home.rglob("*"), *(controller.folder / "tmp").rglob("*")] if file.is_file()]
    served = [*authority.files(), *(authority.layer / "data").rglob("*")]
    for word in (fleet.password, fleet.wrong_password):
        checks.that("canary: no output and no log of Ansible holds it", holding(word, said), [])
        checks.that("canary: no file of a host holds it", holding(word, hosts), [])
        checks.that("canary: no file that Ansible left holds it", holding(word, kept), [])
    own = str(authority.disk / "etc/spa/admin.passwd")
    checks.that("canary: of the authority's files its password file alone", holding(fleet.password, served), [own])
    logs = [machine.disk / "var/log/syslog" for machine in fleet.machines.values()]
    silent = [str(log) for log in logs if b"Invoked with" not in log.read_bytes()]
    checks.that("canary: the hosts' logs were written", silent, [])
    left = [name for name, machine in fleet.machines.items() if (machine.disk / SECRET_DIRECTORY).exists()]
    checks.that("canary: no password is left in its place", left, [])


SCENES: tuple[Callable[[Fleet, Checks], None], ...] = (
    check_role,
    check_mode,
    first_run,
    second_run,
    trouble,
    cut_off,
    removal,
    restart,
    canary,
)


def main() -> int:
    """Plays all scenes; one that breaks off counts as a failed check."""
    checks, folder = Checks(), Path(sys.argv[1])
    make_bridge()
    (folder / "hosts").write_text("127.0.0.1 localhost\n")
    run("mount", "--bind", folder / "hosts", "/etc/hosts")
    fleet = Fleet(folder, Path(sys.argv[2]))
    fleet.switch_on()
    for scene in SCENES:
        start = time.monotonic()
        try:
            scene(fleet, checks)
        except Exception:
            checks.that(f"{scene.__name__} comes to its end", traceback.format_exc(), "no exception")
        print(f"      ({scene.__name__}: {time.monotonic() - start:.0f} s)", flush=True)
    print(f"{checks.failed} checks failed" if checks.failed else "All checks hold")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
