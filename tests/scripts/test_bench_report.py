"""What scripts/bench makes of its measurements: medians of pairs, and marks where a figure misses what is wanted."""

from __future__ import annotations

import sys
from pathlib import Path
from typing import Any

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "benchmarks"))

import plots  # noqa: E402
import report  # noqa: E402


def passes_row(case: str, usual: int, **more: Any) -> dict[str, Any]:
    """A row as passes.py prints it."""
    return {"case": case, "MB": 0, "usual": usual, "worst": usual, "runs": 20, "peak MiB": 13.0, "failed": 0} | more


def speed_row(name: str, repetition: int, megabytes: float) -> dict[str, Any]:
    """A row as the benchmark of reading prints it."""
    return {"name": name, "repetition": repetition, "bytes_per_second": megabytes * report.MEGABYTE}


def line_of(table: str, text: str) -> list[str]:
    """The cells of the one line that holds a text."""
    (line,) = [line for line in table.splitlines() if text in line]
    return [cell.strip() for cell in line.strip("|").split("|")]


@pytest.mark.parametrize(
    ("usual", "worst", "told"), [(2, 2, "2"), (2, 3, "2, at worst 3"), (3, 3, "**3**"), (3, 4, "**3, at worst 4**")]
)
def test_passes_beyond_what_is_wanted_are_marked(usual: int, worst: int, told: str) -> None:
    rows = [passes_row("discover, HTTP by address", usual, worst=worst)]
    table = report.tables({"passes-loopback": rows})
    assert line_of(table, "discover") == ["discover, HTTP by address", told, "2 / 2", "20"]


def test_a_run_that_fails_is_told_in_place_of_its_passes() -> None:
    rows = [passes_row("10 MB answer, HTTP", 60, MB=10, failed=3)]
    assert "**3 of 20 fail**" in line_of(report.passes_table({"passes-20ms": rows}, answers=True), "10 MB")


@pytest.mark.parametrize(("peak", "told"), [(70.0, "70"), (71.0, "**71**")])
def test_memory_beyond_what_is_wanted_is_marked(peak: float, told: str) -> None:
    rows = [passes_row("10 MB configuration file", 2, **{"MB": 10, "peak MiB": peak})]
    assert line_of(report.memory_table(rows), "10 MB") == ["10 MB configuration file", told, "70"]


def test_a_ratio_is_the_median_of_those_of_runs_that_followed_each_other() -> None:
    ours, peer = [10.0, 40.0, 90.0], [10.0, 20.0, 30.0]
    rows = [speed_row("read/tzregister/10000000", number, speed) for number, speed in enumerate(ours)]
    rows += [speed_row("read/SimpleIni/10000000", number, speed) for number, speed in enumerate(peer)]
    assert line_of(report.peers_table(report.Speeds(rows)), "SimpleIni") == ["", "SimpleIni", "20", "2.00", "1.2"]


@pytest.mark.parametrize(("last", "told"), [(80.0, "0.80"), (79.0, "**0.79**")])
def test_a_speed_that_falls_with_size_is_marked(last: float, told: str) -> None:
    rows = [speed_row("shape/one_section/1", 0, 100.0), speed_row("shape/one_section/10", 0, last)]
    assert line_of(report.growth_table(report.Speeds(rows)), "one section")[-1] == told


def test_a_plot_leaves_out_runs_that_failed() -> None:
    rows = [passes_row("1 MB answer, HTTP", 2, MB=1), passes_row("10 MB answer, HTTP", 60, MB=10, failed=1)]
    assert plots.series(rows, "answer, HTTP", "usual") == [(1, 2)]


def test_whatever_is_marked_is_accounted_for() -> None:
    page = report.table(["run", "peak"], [["a", "1"], ["20 MB answer, HTTP", "**4**"], ["an unknown", "**5**"]])
    told = report.missed(page).splitlines()
    assert [line.split(":")[0] for line in told] == ["- 20 MB answer, HTTP", "- an unknown"]
    assert told[1].endswith("The reason is not known yet.")
