"""What a run leaves for the node exporter, and the alerts on it."""

from __future__ import annotations

import itertools
import os
import re
import signal
import subprocess
import textwrap
import time
from collections.abc import Callable
from pathlib import Path

import pytest

import tzregister_enroll as enroll
from fake_host import FakeHost
from harness.pages import examples

ROOT = Path(__file__).resolve().parents[2]
RULES = ROOT / "deploy/prometheus/tzregister-enroll.rules.yml"
NOW = 1_700_000_000
LATER = NOW + 60

DONE, INTERNAL, PASSING, REFUSED, CLONE, NOT_READY = 0, 70, 75, 76, 77, 78
TIMED_OUT = "Webservice call timed out. (curl call did not)"
LOGIN_FAILED = "The webservice returned an error :Login failed"
REFUSAL = "The webservice returned an error :There is no host of this name."


@pytest.fixture
def textfile(fake: FakeHost) -> Path:
    """Where the result is to be left."""
    (fake.root / "metrics").mkdir()
    return fake.root / "metrics" / "tzregister.prom"


@pytest.fixture
def clock(monkeypatch: pytest.MonkeyPatch) -> Callable[[int], None]:
    """Sets the time, which is NOW at first."""

    def set_time(seconds: int) -> None:
        monkeypatch.setattr(time, "time", lambda: seconds + 0.9)

    set_time(NOW)
    return set_time


def metrics(textfile: Path) -> tuple[int, int, int, int, int]:
    """Registered, time of the last run and of the last success, failed passing, failed lasting."""
    values = re.findall(r"^(tzregister_enroll_\S+) ([0-9]+)$", textfile.read_text(), re.MULTILINE)
    assert [name.removeprefix("tzregister_enroll_") for name, _ in values] == [
        "registered",
        "last_run_timestamp_seconds",
        "last_success_timestamp_seconds",
        'last_run_failed{failure="passing"}',
        'last_run_failed{failure="lasting"}',
    ]
    registered, run, success, passing, lasting = (int(value) for _, value in values)
    return registered, run, success, passing, lasting


def promtool(*arguments: str | Path, given: str = "") -> None:
    """Runs promtool, which must find nothing."""
    command = ["promtool", *map(str, arguments)]
    done = subprocess.run(command, input=given, capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, ""), done.stdout + done.stderr


def test_a_success_is_left(fake: FakeHost, textfile: Path, clock: Callable[[int], None]) -> None:
    assert fake.run("--textfile", str(textfile)).status == DONE
    assert metrics(textfile) == (1, NOW, NOW, 0, 0)
    clock(LATER)
    assert "result=unchanged" in fake.run("--textfile", str(textfile)).result
    assert metrics(textfile) == (1, LATER, LATER, 0, 0)


def test_promtool_finds_nothing_to_say(fake: FakeHost, textfile: Path, clock: Callable[[int], None]) -> None:
    fake.run("--textfile", str(textfile))
    promtool("check", "metrics", given=textfile.read_text())
    with pytest.raises(AssertionError):
        promtool("check", "metrics", given=textfile.read_text().replace(" gauge", " gage"))


def test_without_the_option_nothing_is_left(fake: FakeHost, textfile: Path) -> None:
    fake.run()
    assert list(textfile.parent.iterdir()) == []


@pytest.mark.parametrize(
    "action, message, status, failed",
    [
        ("configfile", TIMED_OUT, PASSING, (1, 0)),
        ("configfile", REFUSAL, REFUSED, (0, 1)),
        ("register", TIMED_OUT, PASSING, (1, 0)),
        ("register", REFUSAL, REFUSED, (0, 1)),
    ],
)
def test_a_failure_of_a_host_that_is_not_registered(
    fake: FakeHost,
    textfile: Path,
    clock: Callable[[int], None],
    action: str,
    message: str,
    status: int,
    failed: tuple[int, int],
) -> None:
    fake.fail(action, message)
    assert fake.run("--textfile", str(textfile)).status == status
    assert metrics(textfile) == (0, NOW, 0, *failed)


def test_the_last_success_outlives_failures(fake: FakeHost, textfile: Path, clock: Callable[[int], None]) -> None:
    fake.run("--textfile", str(textfile))
    fake.fail("routingtables", TIMED_OUT)
    for moment in (LATER, LATER + 1):
        clock(moment)
        assert fake.run("--textfile", str(textfile)).status == PASSING
        assert metrics(textfile) == (1, moment, NOW, 1, 0)
    fake.answer("routingtables", "exit 0")
    clock(LATER + 2)
    fake.run("--textfile", str(textfile))
    assert metrics(textfile) == (1, LATER + 2, LATER + 2, 0, 0)


def test_a_host_that_is_not_ready(fake: FakeHost, textfile: Path, clock: Callable[[int], None]) -> None:
    fake.enrol_before()
    (fake.root / "admin.passwd").unlink()
    assert fake.run("--textfile", str(textfile)).status == NOT_READY
    assert metrics(textfile) == (1, NOW, 0, 0, 1)
    fake.registry.write_text("broken\n")
    assert fake.run("--textfile", str(textfile)).status == NOT_READY
    assert metrics(textfile) == (0, NOW, 0, 0, 1)


def test_a_dead_account_is_no_registration(fake: FakeHost, textfile: Path, clock: Callable[[int], None]) -> None:
    fake.enrol_before()
    fake.fail("routingtables", LOGIN_FAILED)
    fake.fail("configfile", TIMED_OUT)
    assert fake.run("--textfile", str(textfile)).status == PASSING
    assert metrics(textfile) == (0, NOW, 0, 1, 0)


def test_half_a_registration_is_none(fake: FakeHost, textfile: Path, clock: Callable[[int], None]) -> None:
    fake.enrol_before()
    fake.answer("register", fake.write_file("[main]\n"))
    assert fake.run("--force", "--textfile", str(textfile)).status == REFUSED
    assert metrics(textfile) == (0, NOW, 0, 0, 1)


def test_a_clone_is_not_registered(fake: FakeHost, textfile: Path, clock: Callable[[int], None]) -> None:
    fake.run("--textfile", str(textfile))
    (fake.root / "machine-id").write_text("f" * 32 + "\n")
    clock(LATER)
    assert fake.run("--textfile", str(textfile)).status == CLONE
    assert metrics(textfile) == (0, LATER, NOW, 0, 1)


def test_a_defect_of_the_script_is_left_too(
    fake: FakeHost, textfile: Path, clock: Callable[[int], None], monkeypatch: pytest.MonkeyPatch
) -> None:
    def break_down(_: object) -> None:
        raise ZeroDivisionError

    monkeypatch.setattr(enroll, "look_at_host", break_down)
    with pytest.raises(ZeroDivisionError):
        fake.run("--textfile", str(textfile))
    assert metrics(textfile) == (0, NOW, 0, 0, 1)


def test_it_is_replaced_as_a_whole_and_everybody_may_read_it(fake: FakeHost, textfile: Path) -> None:
    os.umask(0o077)
    fake.run("--textfile", str(textfile))
    # A reader that has the file open goes on reading what it held.
    with open(textfile, encoding="ascii") as reader:
        before = textfile.read_text()
        fake.fail("routingtables", TIMED_OUT)
        fake.run("--textfile", str(textfile))
        assert textfile.read_text() != before == reader.read()
    assert fake.mode(textfile) == 0o644
    assert list(textfile.parent.iterdir()) == [textfile]


def test_a_link_is_not_followed(fake: FakeHost, textfile: Path) -> None:
    other = fake.root / "other"
    other.write_text("precious\n")
    textfile.symlink_to(other)
    fake.run("--textfile", str(textfile))
    assert other.read_text() == "precious\n" and not textfile.is_symlink()


def killed_at(fake: FakeHost, textfile: Path, name: str, number: int) -> bool:
    """Whether a run that is to be killed at a system call got as far as that."""
    command = ["strace", "-qq", "-o", "/dev/null", f"--inject={name}:signal=KILL:when={number}"]
    command += fake.process_command("--textfile", str(textfile))
    status = subprocess.run(command, env=fake.environment(), capture_output=True, check=False).returncode
    assert status in (DONE, -signal.SIGKILL)
    return status != DONE


def test_a_kill_leaves_the_old_result_or_the_new_one(fake: FakeHost, textfile: Path) -> None:
    fake.run()
    before = f"{enroll._LAST_SUCCESS} 12345\n"
    kills = {}
    for name in ("write", "fsync", "chmod", "rename"):
        textfile.write_text(before)
        calls = itertools.count(1)
        while killed_at(fake, textfile, name, next(calls)):
            assert textfile.read_text() == before or metrics(textfile)[0] == 1
        kills[name] = next(calls) - 2
        assert metrics(textfile)[0] == 1
    assert all(kills.values()), kills


@pytest.mark.parametrize("place", ["missing/x.prom", "directory.prom"])
def test_a_result_that_cannot_be_left_changes_nothing_else(fake: FakeHost, place: str) -> None:
    (fake.root / "directory.prom").mkdir()
    outcome = fake.run("--textfile", f"{fake.root}/{place}")
    assert outcome.status == DONE and "result=enrolled" in outcome.result
    last = outcome.steps.splitlines()[-1]
    assert last.startswith("step=textfile result=failed reason=") and place in last
    assert not list(fake.root.glob("directory.prom.*"))


def test_a_name_that_the_exporter_does_not_read_is_refused(fake: FakeHost) -> None:
    with pytest.raises(SystemExit) as ended:
        fake.run("--textfile", f"{fake.root}/result.txt")
    assert ended.value.code == 2 and fake.calls() == []


def test_the_alert_rules_are_well_formed() -> None:
    promtool("check", "rules", RULES)


def test_the_page_shows_the_rules_as_they_are() -> None:
    shown = examples("monitoring.md")["alerts"]
    left_out = r"^ *(?:#|(?:labels|severity|annotations|summary|description):).*\n"
    rules = re.sub(left_out, "", RULES.read_text(), flags=re.MULTILINE)
    assert textwrap.dedent(rules.partition("rules:\n")[2]).replace("\n\n", "\n") == shown


def test_the_alerts_are_raised_when_they_should(tmp_path: Path) -> None:
    cases = (ROOT / "tests/enroll/alerts.test.yml").read_text()
    (tmp_path / "cases.yml").write_text(cases.replace("RULES", str(RULES)))
    promtool("test", "rules", tmp_path / "cases.yml")


def test_the_alerts_ask_for_metrics_that_are_left(fake: FakeHost, textfile: Path) -> None:
    fake.run("--textfile", str(textfile))
    asked = set(re.findall(r"tzregister_enroll_\w+", RULES.read_text()))
    assert asked and asked <= set(re.findall(r"^# TYPE (\w+) gauge$", textfile.read_text(), re.MULTILINE))
