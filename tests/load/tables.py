"""Prints the tables of docs/fleet.md from the simulation, and draws its pictures; see scripts/simulate."""

from __future__ import annotations

import collections
import dataclasses
import json
import subprocess
import sys
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path

import paths
from simulation import Costs, Machine, Outcome, Plan, simulate

_RESULTS = ("all in after", "longest wait", "busiest, a second", "retries", "gave up")
Line = Sequence[tuple[float, float]]

MEASURED = Path(__file__).with_name("measured")
FLEETS = (10, 1_000, 100_000)
SPLAYS_S = (0, 120, 600, 1200, 3600, 7200, 14400)
CHOSEN_SPLAYS_S = (0, 120, 3600, 7200, 14400)
# CPU seconds that bwrap and the program that watches a run take under scripts/load, by perf stat.
ROOT_S = 0.013
DRAWN_SPLAYS_S = (1, 60, 300, 600, 1200, 3600)
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
    costs = Costs.measured(small, near=True)
    costs = dataclasses.replace(costs, run_s=costs.run_s + ROOT_S)
    outcome = simulate(plan, costs, Machine(figures["cores"], hosts_too=True))
    return outcome.all_in_s, figures["elapsed_s"]


def table(*cells: str) -> list[str]:
    """The head of a table."""
    return [row(*cells), row(*["---"] * len(cells))]


def check_table() -> list[str]:
    """How far the simulation is from what was measured."""
    lines = table("the administrator's password", "simulated", "measured", "difference")
    for kind in CALIBRATIONS:
        guess, truth = predicted(kind)
        lines.append(row(kind, f"{guess:.0f} s", f"{truth:.0f} s", f"{(guess / truth - 1) * 100:+.0f} %"))
    return lines


def splay_table(costs: Costs, fleets: Sequence[int], splays: Sequence[float] = SPLAYS_S) -> list[str]:
    """What comes of hosts that begin by themselves, up to the splay at which nothing is tried again."""
    lines = table("hosts", "splay", "waits", *_RESULTS)
    for hosts in fleets:
        for splay_s in splays:
            drawn = simulate(Plan(hosts, splay_s), costs)
            lines.append(row(f"{hosts:,}", splay_name(splay_s), "drawn", *results(drawn)))
            if not drawn.retries:
                break
            if not splay_s:
                fixed = simulate(Plan(hosts, splay_s, jitter=False), costs)
                lines.append(row(f"{hosts:,}", splay_name(splay_s), "fixed", *results(fixed)))
    return lines


def batch_table(costs: Costs, fleets: Sequence[int]) -> list[str]:
    """What comes of hosts that are told to begin."""
    lines = table("hosts", "`serial`", "`throttle`", *_RESULTS)
    for hosts in fleets:
        for serial, throttle in BATCHES[hosts]:
            outcome = simulate(Plan(hosts, serial=serial, throttle=throttle), costs)
            lines.append(row(f"{hosts:,}", f"{serial:,}", throttle, *results(outcome)))
    return lines


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
    arrivals = {name: per_second(simulate(plan, costs).arrivals, 2.0) for name, plan in ways.items()}
    title = "1,000 hosts: requests at the authority"
    gnuplot(docs / "fleet-requests.svg", title, ("seconds", "requests a second"), arrivals, "")
    outcomes = {hosts: [simulate(Plan(hosts, splay), costs) for splay in DRAWN_SPLAYS_S] for hosts in FLEETS}
    entries = {f"splay {splay_name(outcome.plan.splay_s)}": growing(outcome.entries) for outcome in outcomes[100_000]}
    title = "100,000 hosts: registered so far"
    gnuplot(docs / "fleet-registered.svg", title, ("seconds", "hosts"), entries, "set xrange [0:4000]")
    draw_splays(outcomes, docs)


def draw_splays(outcomes: Mapping[int, Sequence[Outcome]], docs: Path) -> None:
    """Draws what a splay does to a fleet."""
    pictures: dict[str, tuple[str, str, Callable[[Outcome], float]]] = {
        "fleet-all-in.svg": ("Time until all are in (hosts that gave up left out)", "seconds", lambda o: o.all_in_s),
        "fleet-longest-wait.svg": ("Longest wait of a host", "seconds", lambda o: o.longest_s),
        "fleet-retries.svg": ("Retries of a fleet", "retries, and one", lambda o: o.retries + 1),
    }
    for name, (title, axis, value) in pictures.items():
        lines: dict[str, Line] = {
            f"{hosts:,} hosts": [(outcome.plan.splay_s, value(outcome)) for outcome in found]
            for hosts, found in outcomes.items()
        }
        gnuplot(docs / name, title, ("splay in seconds", axis), lines, "set logscale xy")


def main(arguments: Sequence[str]) -> None:
    """Prints and, when told so, draws."""
    made, chosen = (Costs.measured(MEASURED / small) for small, _ in CALIBRATIONS.values())
    tables: Sequence[tuple[str, Callable[[], list[str]]]] = (
        ("1,000 hosts, 200 at a time, on one machine with the authority", check_table),
        ("Hosts that begin by themselves", lambda: splay_table(made, FLEETS)),
        ("Hosts that are told to begin", lambda: batch_table(made, FLEETS)),
        ("With a password that a person chose", lambda: splay_table(chosen, FLEETS[1:], CHOSEN_SPLAYS_S)),
    )
    for title, lines in tables:
        print(f"## {title}\n", *lines(), "", sep="\n", flush=True)
    if "--plot" in arguments:
        draw(made, paths.ROOT / "docs")


if __name__ == "__main__":
    main(sys.argv[1:])
