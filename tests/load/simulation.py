"""How a fleet of any size would arrive at the authority: a simulation in which only the clock is made up.

Hosts ask as tzregister-enroll does: three requests with tzregister's pauses of two
seconds, and its own waits between tries. The authority is a queue in front of so many
cores, with the limits of nginx and PHP-FPM; what its work takes was measured by
scripts/load. Everything drawn comes from one seed.
"""

from __future__ import annotations

import collections
import enum
import heapq
import itertools
import json
import random
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import paths  # noqa: F401  (finds the imports below)
import authority_site
import tzregister_enroll

# tzregister looks at a request this often, and gives it up after so long.
PAUSE_S = 2.0
TIMEOUT_S = 120.0
# From when a request is sent until its answer, if it is there at the next look, is taken.
_ANSWER_S = 2 * PAUSE_S
_FRESH_CONNECTIONS = 2


class Step(enum.IntEnum):
    """The requests of one enrolment. The last two are one run of tzregister, over one connection."""

    REHEARSE = 0
    REGISTER = 1
    CONFIGFILE = 2


@dataclass(frozen=True)
class Costs:
    """CPU seconds of a request at the authority, of a connection there, and of a run on its host.

    `commit_s` is how long a request has the authority's file to itself, `greeting_s` how
    long a connection takes until its request is sent: one pause, unless the authority is so
    near that it greets within tzregister's first look.
    """

    request_s: float
    commit_s: float
    connection_s: float
    run_s: float
    greeting_s: float = PAUSE_S

    @classmethod
    def measured(cls, file: Path, near: bool = False) -> Costs:
        """The costs in figures of scripts/load; `near` when the hosts are as near as they were there."""
        figures = json.loads(file.read_text())
        hosts = figures["hosts"]
        request = figures["fpm_cpu_s"] / figures["requests"]
        run = figures["run_cpu_mean_s"] + figures["script_cpu_s"] / hosts
        connection = figures["nginx_cpu_s"] / (_FRESH_CONNECTIONS * hosts)
        rest = figures["wall_mean_s"] - len(Step) * _ANSWER_S - run - len(Step) * request
        greeting = max(0.0, rest / _FRESH_CONNECTIONS) if near else PAUSE_S
        return cls(request, figures["commit_s"], connection, run, greeting)


@dataclass(frozen=True)
class Machine:
    """The authority's machine; `hosts_too` when the hosts run on it as well, as they do under scripts/load."""

    cores: float = 2.0
    queue: int = authority_site.WORKERS + authority_site.FPM_BACKLOG
    connections: int = authority_site.CONNECTIONS
    hosts_too: bool = False


@dataclass(frozen=True)
class Plan:
    """How a fleet is rolled out: hosts begin within `splay_s`, or in batches of which so many work at a time."""

    hosts: int
    splay_s: float = 0.0
    serial: int = 0
    throttle: int = 0
    jitter: bool = True


@dataclass(frozen=True)
class Outcome:
    """What came of a plan. `arrivals` and `entries` are the moments of requests and of hosts that are in."""

    plan: Plan
    arrivals: list[float]
    entries: list[float]
    longest_s: float
    retries: int
    gave_up: int

    @property
    def all_in_s(self) -> float:
        """When the last host that got in was in."""
        return max(self.entries, default=0.0)

    def busiest(self, window_s: float = 10.0) -> float:
        """Requests a second at the authority in its busiest window."""
        counts = collections.Counter(int(moment // window_s) for moment in self.arrivals)
        return max(counts.values(), default=0) / window_s


class Cores:
    """Cores that work off what is given to them in its order; a part of a core is a slower one."""

    def __init__(self, cores: float) -> None:
        number = max(1, round(cores))
        self._speed = cores / number
        self._free = [0.0] * number

    def work(self, now: float, cpu_s: float) -> float:
        """When this piece of work is done."""
        done = max(now, self._free[0]) + cpu_s / self._speed
        heapq.heapreplace(self._free, done)
        return done


@dataclass
class Host:
    """Where one host stands."""

    began: float
    attempt: int = 1
    sent: float = 0.0


class Simulation:
    """One roll-out."""

    def __init__(self, plan: Plan, costs: Costs, machine: Machine, seed: int = 1) -> None:
        self.plan, self.costs, self.machine = plan, costs, machine
        self.random = random.Random(seed)
        attempts = tzregister_enroll.option_table().get_default("attempts")
        between = self.random.uniform if plan.jitter else lambda _, largest: largest
        self.patience = tzregister_enroll.Patience(attempts, between=between)
        self.cores, self.disk = Cores(machine.cores), Cores(1)
        self.events: list[tuple[float, int, Callable[[float], None]]] = []
        self.numbers = itertools.count()
        self.queue: collections.deque[float] = collections.deque()
        self.connections = 0
        self.waiting = 0
        self.working = 0
        self.outcome = Outcome(plan, [], [], 0.0, 0, 0)
        self.longest_s, self.retries, self.gave_up = 0.0, 0, 0

    def run(self) -> Outcome:
        """Lets everybody begin and returns when the last one has ended."""
        if self.plan.serial:
            self.waiting = self.plan.hosts
            self.next_batch(0.0)
        else:
            for _ in range(self.plan.hosts):
                self.at(self.random.uniform(0.0, self.plan.splay_s), self.begin)
        while self.events:
            now, _, action = heapq.heappop(self.events)
            action(now)
        entries, arrivals = self.outcome.entries, self.outcome.arrivals
        return Outcome(self.plan, arrivals, entries, self.longest_s, self.retries, self.gave_up)

    def at(self, moment: float, action: Callable[[float], None]) -> None:
        """Has something happen at a moment."""
        heapq.heappush(self.events, (moment, next(self.numbers), action))

    # Hosts

    def next_batch(self, now: float) -> None:
        """Starts the next batch, if there is one."""
        self.in_batch = min(self.plan.serial, self.waiting)
        self.waiting -= self.in_batch
        self.fill_up(now)

    def fill_up(self, now: float) -> None:
        """Lets as many hosts of the batch work as may at a time."""
        while self.in_batch and self.working < (self.plan.throttle or self.plan.serial):
            self.in_batch -= 1
            self.working += 1
            self.begin(now)

    def begin(self, now: float) -> None:
        """A host begins."""
        host = Host(now)
        self.at(self.on_host(now, 0.5), lambda moment: self.connect(moment, host, Step.REHEARSE))

    def on_host(self, now: float, part: float) -> float:
        """When a part of a run's own work is done."""
        cpu_s = self.costs.run_s * part
        return self.cores.work(now, cpu_s) if self.machine.hosts_too else now + cpu_s

    def end(self, now: float, host: Host, is_in: bool) -> None:
        """A host has ended; another one may begin."""
        if is_in:
            self.outcome.entries.append(now)
            self.longest_s = max(self.longest_s, now - host.began)
        else:
            self.gave_up += 1
        if self.plan.serial:
            self.working -= 1
            self.fill_up(now)
            if not self.working and self.waiting:
                self.next_batch(now)

    # Requests

    def connect(self, now: float, host: Host, step: Step) -> None:
        """A run of tzregister opens its connection, if there is one to be had."""
        if self.connections >= self.machine.connections:
            self.at(now + PAUSE_S, lambda moment: self.failed(moment, host, step))
            return
        self.connections += 1
        self.cores.work(now, self.costs.connection_s)
        self.at(now + self.costs.greeting_s, lambda moment: self.send(moment, host, step))

    def send(self, now: float, host: Host, step: Step) -> None:
        """A request reaches the authority: it is queued, or the queue is full."""
        self.outcome.arrivals.append(now)
        while self.queue and self.queue[0] <= now:
            self.queue.popleft()
        if len(self.queue) >= self.machine.queue:
            self.at(now + _ANSWER_S, lambda moment: self.hang_up(moment, host, step))
            return
        done = self.disk.work(self.cores.work(now, self.costs.request_s), self.costs.commit_s)
        self.queue.append(done)
        taken = now + _ANSWER_S + (done - now) // PAUSE_S * PAUSE_S
        if taken - now > TIMEOUT_S:
            self.at(now + TIMEOUT_S, lambda moment: self.hang_up(moment, host, step))
        else:
            self.at(taken, lambda moment: self.answered(moment, host, step))

    def answered(self, now: float, host: Host, step: Step) -> None:
        """A request has its answer."""
        if step is Step.REGISTER:
            self.send(now, host, Step.CONFIGFILE)
            return
        self.connections -= 1
        if step is Step.REHEARSE:
            host.attempt = 1
            self.connect(now, host, Step.REGISTER)
        else:
            self.at(self.on_host(now, 0.5), lambda moment: self.end(moment, host, is_in=True))

    def hang_up(self, now: float, host: Host, step: Step) -> None:
        """A request failed over a connection that was there."""
        self.connections -= 1
        self.failed(now, host, step)

    def failed(self, now: float, host: Host, step: Step) -> None:
        """A try failed: the same run of tzregister comes again after a wait, or the host gives up."""
        if host.attempt == self.patience.attempts:
            self.end(now, host, is_in=False)
            return
        self.retries += 1
        wait_s = self.patience.wait_s(host.attempt)
        host.attempt += 1
        again = Step.REHEARSE if step is Step.REHEARSE else Step.REGISTER
        self.at(now + wait_s, lambda moment: self.connect(moment, host, again))


def simulate(plan: Plan, costs: Costs, machine: Machine = Machine(), seed: int = 1) -> Outcome:
    """What comes of a plan."""
    return Simulation(plan, costs, machine, seed).run()
