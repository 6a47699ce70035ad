"""Prints the tables of docs/fleet.md from the simulation, and draws its pictures; see scripts/simulate."""

from __future__ import annotations

import collections
import json
import subprocess
import sys
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path

import paths
from simulation import Costs, Machine, Outcome, Plan, simulate

Line = Sequence[tuple[float, float]]

MEASURED = Path(__file__).with_name("measured")
FLEETS = (10, 1_000, 100_000)
SPLAYS_S = (0, 120, 1200, 3600, 7200, 14400)
# Batches as Ansible works them off: so many hosts in one, so many of them at a time.
BATCHES = {10: ((10, 10),), 1_000: ((100, 50), (1_000, 50), (1_000, 200)), 100_000: ((1_000, 200), (100_000, 200))}
# What costs what: the authority made the administrator's password, or a person chose it.
CALIBRATIONS = {"made": ("made-200.json", "made-1000.json"), "chosen": ("chosen-200.json", "chosen-1000.json")}


def duration(seconds: float) -> str:
    """Seconds as people read them."""
    if seconds < 120:
        return f"{seconds:.0f} s"
    return f"{seconds / 60:.0f} min" if seconds < 7200 else f"{seconds / 3600:.1f} h"


def splay_name(seconds: float) -> str:
    """How a splay stands in a table."""
    return duration(seconds) if seconds else "none"


def row(*cells: object) -> str:
    """A line of a table."""
    return "| " + " | ".join(map(str, cells)) + " |"


def results(outcome: Outcome) -> tuple[object, ...]:
    """The cells that tell what came of a plan."""
    gave_up = outcome.gave_up
    return (
        duration(outcome.all_in_s) if not gave_up else "never",
        duration(outcome.longest_s),
        f"{outcome.busiest():.0f}",
        outcome.retries,
        gave_up,
    )


def predicted(kind: str) -> tuple[float, float]:
    """How long a fleet of 1,000 takes under scripts/load: as the smaller run predicts it, and as it was measured."""
    small, large = (MEASURED / name for name in CALIBRATIONS[kind])
    figures = json.loads(large.read_text())
    plan = Plan(figures["hosts"], serial=figures["hosts"], throttle=figures["parallel"])
    outcome = simulate(plan, Costs.measured(small, near=True), Machine(figures["cores"], hosts_too=True))
    return outcome.all_in_s, figures["elapsed_s"]


def print_check() -> None:
    """Tells how far the simulation is from what was measured."""
    print("## 1,000 hosts, 200 at a time, on one machine with the authority\n")
    print(row("the administrator's password", "simulated", "measured", "difference"))
    print(row("---", "---", "---", "---"))
    for kind in CALIBRATIONS:
        guess, truth = predicted(kind)
        print(row(kind, f"{guess:.0f} s", f"{truth:.0f} s", f"{(guess / truth - 1) * 100:+.0f} %"))


def print_splays(costs: Costs, fleets: Sequence[int]) -> None:
    """What comes of hosts that begin by themselves."""
    print(row("hosts", "splay", "waits", "all in after", "longest wait", "busiest, a second", "retries", "gave up"))
    print(row(*["---"] * 8))
    for hosts in fleets:
        for splay_s in SPLAYS_S:
            for jitter in (True, False):
                outcome = simulate(Plan(hosts, splay_s, jitter=jitter), costs)
                waits = "drawn" if jitter else "fixed"
                print(row(f"{hosts:,}", splay_name(splay_s), waits, *results(outcome)))
            if not outcome.retries:
                break


def print_batches(costs: Costs) -> None:
    """What comes of hosts that are told to begin."""
    print(row("hosts", "`serial`", "`throttle`", "all in after", "longest wait", "busiest, a second", "retries", "gave up"))
    print(row(*["---"] * 8))
    for hosts, batches in BATCHES.items():
        for serial, throttle in batches:
            outcome = simulate(Plan(hosts, serial=serial, throttle=throttle), costs)
            print(row(f"{hosts:,}", f"{serial:,}", throttle, *results(outcome)))


def per_second(moments: Sequence[float], window_s: float) -> Line:
    """How many of these moments there are a second, window by window."""
    counts = collections.Counter(int(moment // window_s) for moment in moments)
    return [(index * window_s, counts[index] / window_s) for index in range(max(counts, default=0) + 2)]


def growing(moments: Sequence[float], points: int = 400) -> Line:
    """How many of these moments have passed, in at most so many points."""
    ordered = sorted(moments)
    step = max(1, len(ordered) // points)
    return [(0.0, 0)] + [(ordered[index], index + 1) for index in range(step - 1, len(ordered), step)]


def gnuplot(file: Path, title: str, axes: tuple[str, str], lines: Mapping[str, Line], more: str) -> None:
    """Draws lines into an SVG file."""
    data = "".join(
        f"$line{number} << END\n" + "".join(f"{x} {y}\n" for x, y in points) + "END\n"
        for number, points in enumerate(lines.values())
    )
    plots = ", ".join(f'$line{number} with lines lw 2 title "{name}"' for number, name in enumerate(lines))
    script = f"""{data}
set terminal svg size 720,360 enhanced background rgb "white" font "sans,13"
set output "{file}"
set title "{title}"
set xlabel "{axes[0]}"
set ylabel "{axes[1]}"
set key outside below
set grid
{more}
plot {plots}
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    print(f"Drew {file}")


def draw(costs: Costs, docs: Path) -> None:
    """Draws the pictures of docs/fleet.md."""
    ways = {"all at once": Plan(1_000), "within 2 minutes": Plan(1_000, 120), "50 at a time": Plan(1_000, 0, 1_000, 50)}
    outcomes = {name: simulate(plan, costs) for name, plan in ways.items()}
    arrivals = {name: per_second(outcome.arrivals, 2.0) for name, outcome in outcomes.items()}
    title = "1,000 hosts: requests at the authority"
    gnuplot(docs / "fleet-requests.svg", title, ("seconds", "requests a second"), arrivals, "")
    large = {splay_name(splay): simulate(Plan(100_000, splay), costs) for splay in (0, 120, 600, 1200)}
    entries = {f"splay {name}": growing(outcome.entries) for name, outcome in large.items()}
    title = "100,000 hosts: registered so far"
    gnuplot(docs / "fleet-registered.svg", title, ("seconds", "hosts"), entries, "set yrange [0:105000]")
    draw_splays(costs, docs)


def draw_splays(costs: Costs, docs: Path) -> None:
    """Draws what a splay does to the longest wait and to the retries."""
    splays = (1, 10, 60, 120, 300, 600, 900, 1200, 3600)
    outcomes = {hosts: [simulate(Plan(hosts, splay), costs) for splay in splays] for hosts in FLEETS}
    scale = "set logscale xy"
    pictures: dict[str, tuple[str, str, Callable[[Outcome], float]]] = {
        "fleet-all-in.svg": ("Time until all are in (hosts that gave up left out)", "seconds", lambda o: o.all_in_s),
        "fleet-longest-wait.svg": ("Longest wait of a host", "seconds", lambda o: o.longest_s),
        "fleet-retries.svg": ("Retries of a fleet", "retries, and one", lambda o: o.retries + 1),
    }
    for name, (title, axis, value) in pictures.items():
        lines = {
            f"{hosts:,} hosts": [(splay, value(outcome)) for splay, outcome in zip(splays, found)]
            for hosts, found in outcomes.items()
        }
        gnuplot(docs / name, title, ("splay in seconds", axis), lines, scale)


def main(arguments: Sequence[str]) -> None:
    """Prints and, when told so, draws."""
    costs = {kind: Costs.measured(MEASURED / small) for kind, (small, _) in CALIBRATIONS.items()}
    print_check()
    for kind, measured in costs.items():
        print(f"\n## The administrator's password is {kind}\n\n{measured}\n")
        print_splays(measured, FLEETS)
    print("\n## Batches\n")
    print_batches(costs["made"])
    if "--plot" in arguments:
        draw(costs["made"], paths.ROOT / "docs")


if __name__ == "__main__":
    main(sys.argv[1:])
