"""Plots as SVG, drawn by gnuplot."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Any, Mapping, Sequence

Points = Sequence[tuple[float, float]]

_HEAD = """\
set terminal svg size 760,440 font 'sans-serif,12' background 'white'
set output '{file}'
set logscale xy
set grid
set key outside right noenhanced
set xlabel '{across}'
set ylabel '{up}'
"""


def series(rows: Sequence[Mapping[str, Any]], case: str, figure: str) -> Points:
    """A figure over the sizes of a case, whose rows are called "<size> MB <case>"."""
    return [(row["MB"], row[figure]) for row in rows if row["case"] == f"{row['MB']} MB {case}" and not row["failed"]]


def draw(file: Path, across: str, up: str, lines: Mapping[str, Points]) -> None:
    """Draws one line with marks for each name that has points; both axes are logarithmic."""
    named = {name: points for name, points in lines.items() if points}
    script = _HEAD.format(file=file, across=across, up=up)
    for number, points in enumerate(named.values()):
        text = "\n".join(f"{x} {y}" for x, y in points)
        script += f"$line{number} << END\n{text}\nEND\n"
    drawn = [f"$line{number} using 1:2 with linespoints title '{name}'" for number, name in enumerate(named)]
    script += "plot " + ", ".join(drawn) + "\n"
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
