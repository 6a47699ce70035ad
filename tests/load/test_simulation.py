"""The simulation: its constants are the programs' own, its rules hold, and it agrees with what was measured."""

from __future__ import annotations

import re

import pytest

import paths
import tables
from simulation import PAUSE_S, TIMEOUT_S, Costs, Machine, Plan, Simulation, simulate

COSTS = Costs(request_s=0.05, commit_s=0.002, connection_s=0.001, run_s=0.1)
QUIET_RUN_S = 16.0


def test_the_pauses_and_the_deadline_are_those_of_tzregister() -> None:
    source = (paths.ROOT / "webservice/webservice.cc").read_text()
    header = (paths.ROOT / "webservice/webservice.h").read_text()
    [pause] = re.findall(r"kPollSeconds = (\d+);", source)
    [timeout] = re.findall(r"timeout = (\d+);", header)
    assert (float(pause), float(timeout)) == (PAUSE_S, TIMEOUT_S)


def test_the_waits_are_those_of_the_enrolment() -> None:
    drawn = Simulation(Plan(1), COSTS, Machine()).patience
    fixed = Simulation(Plan(1, jitter=False), COSTS, Machine()).patience
    assert drawn.attempts == fixed.attempts == 10
    assert [fixed.wait_s(attempt) for attempt in (1, 2, 9)] == [5.0, 10.0, 300.0]
    assert all(0 <= drawn.wait_s(attempt) <= fixed.wait_s(attempt) for attempt in range(1, 10))


def test_one_host_takes_its_pauses() -> None:
    outcome = simulate(Plan(1), COSTS)
    assert outcome.all_in_s == pytest.approx(QUIET_RUN_S + COSTS.run_s)
    assert (len(outcome.entries), len(outcome.arrivals), outcome.retries) == (1, 3, 0)


def test_a_fleet_cannot_be_in_before_its_work_is_done() -> None:
    machine = Machine(cores=2, queue=10**6, connections=10**6)
    outcome = simulate(Plan(2000), COSTS, machine)
    work_s = 2000 * (3 * COSTS.request_s + 2 * COSTS.connection_s) / 2
    assert work_s < outcome.all_in_s < work_s + 2 * QUIET_RUN_S
    assert len(outcome.entries) == 2000 and outcome.retries == 0


def test_what_finds_no_room_comes_again_and_gives_up_in_the_end() -> None:
    busy = simulate(Plan(100), COSTS, Machine(queue=20))
    assert busy.retries > 0 and len(busy.entries) + busy.gave_up == 100
    closed = simulate(Plan(100), COSTS, Machine(connections=0))
    assert (closed.gave_up, closed.retries, closed.arrivals) == (100, 900, [])


def test_batches_follow_one_another_and_never_more_work_than_may() -> None:
    outcome = simulate(Plan(40, serial=20, throttle=10), COSTS)
    assert len(outcome.entries) == 40
    assert 4 * QUIET_RUN_S < outcome.all_in_s < 5 * QUIET_RUN_S


def test_the_page_shows_what_the_simulation_prints() -> None:
    page = (paths.ROOT / "docs/fleet.md").read_text().splitlines()
    made, chosen = (Costs.measured(tables.MEASURED / small) for small, _ in tables.CALIBRATIONS.values())
    lines = [*tables.check_table(), *tables.splay_table(made, (10, 1_000)), *tables.batch_table(made, (10, 1_000))]
    lines += tables.splay_table(chosen, (1_000,), tables.CHOSEN_SPLAYS_S)
    assert [line for line in lines if line not in page] == []


def test_a_seed_gives_the_same_every_time() -> None:
    plan = Plan(200, splay_s=10)
    assert simulate(plan, COSTS, seed=7) == simulate(plan, COSTS, seed=7) != simulate(plan, COSTS, seed=8)


@pytest.mark.parametrize("kind", tables.CALIBRATIONS)
def test_a_fleet_of_a_thousand_takes_as_long_as_it_was_measured_to(kind: str) -> None:
    simulated, measured = tables.predicted(kind)
    assert simulated == pytest.approx(measured, rel=0.15)
