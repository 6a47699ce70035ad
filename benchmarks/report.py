"""Tables, plots and the page that the measurements become."""

from __future__ import annotations

import os
import platform
import statistics
import subprocess
from pathlib import Path
from typing import Any, Iterable, Mapping, Optional, Sequence

import plots

Row = dict[str, Any]
Results = Mapping[str, list[Row]]

MEBIBYTE = 1 << 20
MEGABYTE = 1_000_000

# What is to be reached: passes on loopback and over the link.
MOST_PASSES = {
    "discover, HTTP by address": (2, 2),
    "discover, HTTP by name": (3, 3),
    "discover, HTTPS TLS 1.3": (3, 3),
    "discover, HTTPS TLS 1.2": (4, 4),
    "register, HTTP": (4, 4),
    "register, HTTPS TLS 1.3": (5, 5),
    "createds, 100 KB of rules, HTTP": (2, 2),
    "1 MB answer, HTTP": (2, 3),
    "10 MB answer, HTTP": (3, 3),
    "10 MB answer, HTTPS": (9, 9),
    "10 MB answer, compressed": (3, 3),
    "60 MB answer, HTTP": (8, None),
    "100 MB answer, HTTP": (10, None),
}
# Ours against a peer's at the same text: times as fast, at least.
LEAST_SPEED = {
    ("read", "SimpleIni", "10000000"): 1.2,
    ("config", "plain_map", "10000000"): 1.0,
    ("records", "tuned_map", "100000"): 1.5,
}
LEAST_GROWTH = 0.8
MOST_HEAP = 12.0
LINKS = {
    "passes-loopback": "loopback",
    "passes-20ms": "20 ms",
    "passes-20ms-root": "20 ms, root",
    "passes-100ms-root": "100 ms, root",
}


# Why a figure is left as it is, by a part of its line; the first that fits.
WHY_MISSED = {
    "| `certificate`": "a third of its instructions are the dynamic loader's, for libcurl and what that needs, of which "
    "`openssl` needs nothing. A program that loaded libcurl by itself, when it must, would be another kind of program.",
    "| `discover`": "the program holds the C++ library, which the C program beside it has no use for; the rest is level.",
    "tuned map": "a value is four blocks on the heap (field, name, value, node), as the records are laid down to be; "
    "the tuned map needs one or two. These blocks are the memory, and nearly all the time goes into taking and freeing them.",
    "SimpleIni": "reading is level. SimpleIni keeps views of one text; each value here is a text of its own.",
    "plain map": "names are compared without regard to case by the system's function, twice for each option.",
    "MB answer, HTTP": "whoever may not widen the receive buffer gets 3 MiB a pause; root's column has the rest.",
    "shape/": "a map's search goes deeper, and mostly outside of the caches, the more it holds.",
    "one value/": "the machine's own: copying the same text into new memory loses as much or more.",
    "MB configuration file": "many options, not one value: each is an entry of a map with three texts.",
}


def table(head: Sequence[str], rows: Iterable[Sequence[object]]) -> str:
    """A table as Markdown has it."""
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(str(cell) for cell in line) + " |" for line in lines)


def marked(text: str, missed: bool) -> str:
    """A figure, in bold where it misses what is to be reached."""
    return f"**{text}**" if missed else text


def one_run_table(rows: list[Row]) -> str:
    """One run beside a known program."""

    def cells(row: Row) -> Iterable[str]:
        yield row["case"]
        yield row["peer"]
        yield f"{row['most']:.1f}"
        for name in ("instructions", "ms"):
            yield marked(f"{row[f'ratio of {name}']:.2f}", row[f"ratio of {name}"] > row["most"])
        # Memory is to be held against the same request; the other pairs do different work.
        memory = row["ratio of KiB"]
        yield marked(f"{memory:.2f}", row["case"] == "`discover`" and memory > 1.0)

    head = ["run", "beside", "at most", "instructions", "processor time", "peak memory"]
    return table(head, [list(cells(row)) for row in rows])


def _passes(row: Optional[Row], most: Optional[int]) -> str:
    """The usual number, and the worst where it differs."""
    if row is None:
        return ""
    if row["failed"]:
        return marked(f"{row['failed']} of {row['runs']} fail", True)
    worst = "" if row["worst"] == row["usual"] else f", at worst {row['worst']}"
    return marked(f"{row['usual']}{worst}", most is not None and row["usual"] > most)


def passes_table(results: Results, answers: bool) -> str:
    """Passes over each link."""
    links = [link for link in LINKS if results.get(link)]
    by_link = {link: {row["case"]: row for row in results[link] if (row["MB"] > 0) == answers} for link in links}
    cases = [case for case in by_link[links[0]] if not answers or " answer" in case] if links else []
    rows = []
    for case in cases:
        most = dict(zip(LINKS, MOST_PASSES.get(case, ())))
        cells = [_passes(by_link[link].get(case), most.get(link)) for link in links]
        runs = max(by_link[link][case]["runs"] for link in links if case in by_link[link])
        wanted = [str(most.get(link) or "") for link in list(LINKS)[:2]]
        rows.append([case, *cells, " / ".join(wanted) if any(wanted) else "", runs])
    return table(["run", *(LINKS[link] for link in links), "at most", "runs"], rows)


def memory_table(rows: list[Row]) -> str:
    """Peak memory on loopback beside what is to be kept."""
    lines = []
    for row in rows:
        if row["MB"] == 0:
            continue
        most = 4 * row["MB"] * MEGABYTE / MEBIBYTE + 32
        lines.append([row["case"], marked(f"{row['peak MiB']:.0f}", row["peak MiB"] > most), f"{most:.0f}"])
    return table(["run", "peak MiB", "at most"], lines)


class Speeds:
    """Bytes a second of each text in each repetition."""

    def __init__(self, rows: list[Row]) -> None:
        self._speeds: dict[tuple[str, str, str], dict[int, float]] = {}
        self.heap: dict[tuple[str, str, str], float] = {}
        for row in rows:
            kind, who, size = row["name"].split("/")
            self._speeds.setdefault((kind, who, size), {})[row["repetition"]] = row["bytes_per_second"]
            if "heap_per_byte" in row:
                self.heap[kind, who, size] = row["heap_per_byte"]

    def of(self, kind: str) -> list[tuple[str, str]]:
        """Who did this work, at which sizes."""
        return [(who, size) for one, who, size in self._speeds if one == kind]

    def megabytes(self, kind: str, who: str, size: str) -> float:
        """The median."""
        return statistics.median(self._speeds[kind, who, size].values()) / MEGABYTE

    def ratio(self, ours: tuple[str, str, str], other: tuple[str, str, str]) -> float:
        """The median of the ratios of what ran in one repetition."""
        both = zip(self._speeds[ours].values(), self._speeds[other].values())
        return statistics.median(one / two for one, two in both)


WORKS = {
    "read": "read a configuration file",
    "config": "read and write it",
    "records": "read records of six columns",
}


def peers_table(speeds: Speeds) -> str:
    """Speed beside peers."""
    lines = []
    for kind, work in WORKS.items():
        for who, size in speeds.of(kind):
            if who == "tzregister":
                told = f"{work}, {int(size) // 1000} {'thousand of them' if kind == 'records' else 'KB'}"
                lines.append([told, "tzregister", f"{speeds.megabytes(kind, who, size):.0f}", "", ""])
                continue
            ratio = speeds.ratio((kind, "tzregister", size), (kind, who, size))
            least = LEAST_SPEED.get((kind, who, size))
            wanted = "" if least is None else f"{least:.1f}"
            times = marked(f"{ratio:.2f}", least is not None and ratio < least)
            lines.append(["", who.replace("_", " "), f"{speeds.megabytes(kind, who, size):.0f}", times, wanted])
    return table(["work", "who", "MB/s", "tzregister is times as fast", "at least"], lines)


def growth_table(speeds: Speeds) -> str:
    """Speed at each size of a shape beside that at the smallest."""
    lines = []
    for kind in ("one_value", "shape"):
        for who in dict.fromkeys(who for who, _ in speeds.of(kind)):
            sizes = [size for one, size in speeds.of(kind) if one == who]
            numbers = [f"{speeds.megabytes(kind, who, size):.0f}" for size in sizes]
            growth = speeds.ratio((kind, who, sizes[-1]), (kind, who, sizes[0]))
            cells = [*numbers, *[""] * (3 - len(numbers))]
            missed = growth < LEAST_GROWTH and who != "copy_alone"
            lines.append([f"{kind}/{who}".replace("_", " "), *cells, marked(f"{growth:.2f}", missed)])
    return table(["text", "MB/s", "ten times the text", "a hundred times", "last to first"], lines)


def heap_line(speeds: Speeds) -> str:
    """What a table of records takes."""
    heap = speeds.heap["records", "tzregister", "100000"]
    figure = marked(f"{heap:.1f}", heap > MOST_HEAP)
    return (
        f"Records of six columns take {figure} times their text in memory; at most {MOST_HEAP:.0f} are wanted.\n"
        "A million of them are refused: [transfers.md](transfers.md) says what a table may take."
    )


def sections(results: Results) -> dict[str, str]:
    """Every table that the results are enough for, by name."""
    found = {}
    if "one-run" in results:
        found["One run"] = one_run_table(results["one-run"])
    if "reading" in results:
        speeds = Speeds(results["reading"])
        found["Reading and writing"] = peers_table(speeds) + "\n\n" + heap_line(speeds)
        if speeds.of("shape"):
            found["Growth"] = growth_table(speeds)
    if any(link in results for link in LINKS):
        found["Passes of a request"] = passes_table(results, answers=False)
        found["Passes of a large answer"] = passes_table(results, answers=True)
    if "passes-loopback" in results:
        found["Memory"] = memory_table(results["passes-loopback"])
    return found


def tables(results: Results) -> str:
    """What is printed."""
    return "\n\n".join(f"{name}\n\n{text}" for name, text in sections(results).items())


def machine() -> str:
    """What kind of machine this is, and the versions that matter."""
    system = platform.freedesktop_os_release()["PRETTY_NAME"]
    names = ("curl", "openssl", "g++", "libsimpleini-dev", "libinih1", "libiniparser1", "libboost1.74-dev")
    query = ["dpkg-query", "-W", "-f", "${Package} ${Version}, ", *names]
    versions = subprocess.run(query, capture_output=True, text=True, check=False).stdout.rstrip(", ")
    return f"{os.cpu_count()} cores, {system}, Linux {platform.release().split('-')[0]}; {versions}."


def missed(tables_of_page: str) -> str:
    """Each line of the tables with a figure that misses what is wanted, and why that is left so."""
    lines = []
    for line in tables_of_page.splitlines():
        if line.startswith("|") and "**" in line:
            cells = [cell.strip() for cell in line.strip("|").split("|")]
            why = next((why for part, why in WHY_MISSED.items() if part in line), "The reason is not known yet.")
            lines.append(f"- {cells[0] or cells[1]}: {why}")
    return "\n".join(lines) if lines else "Nothing."


def write(results: Results, docs: Path) -> None:
    """Writes the page and its plots."""
    page = (Path(__file__).parent / "performance.md.in").read_text(encoding="utf-8")
    for name, text in sections(results).items():
        page = page.replace(f"@{name}@", text)
    page = page.replace("@missed@", missed(page)).replace("@machine@", machine())
    (docs / "performance.md").write_text(page, encoding="utf-8")
    draw_plots(results, docs)


def draw_plots(results: Results, docs: Path) -> None:
    """Speed, passes and memory over size."""
    speeds = Speeds(results["reading"])
    reading = {
        f"{named}: {who.replace('_', ' ')}": [
            (int(size) / MEGABYTE, speeds.megabytes(kind, who, size)) for one, size in speeds.of(kind) if one == who
        ]
        for kind, named in (("read", "read"), ("config", "read and write"))
        for who in dict.fromkeys(who for who, _ in speeds.of(kind))
        if who != "iniparser"
    }
    plots.draw(docs / "performance-speed.svg", "MB of configuration file", "MB/s", reading)
    kinds = ("answer, HTTP", "answer, HTTPS", "answer, compressed")
    passes = {
        f"{kind.split(', ')[1]}, {LINKS[link]}": plots.series(results[link], kind, "usual")
        for link in LINKS
        for kind in kinds
    }
    plots.draw(docs / "performance-passes.svg", "MB of answer", "passes", passes)
    works = ("answer, HTTP", "of routing tables", "configuration file", "configuration file of one value")
    memory = {work: plots.series(results["passes-loopback"], work, "peak MiB") for work in works}
    memory["4 times, and 32 MiB"] = [(size, 4 * size * MEGABYTE / MEBIBYTE + 32) for size in (1, 10, 60, 200)]
    plots.draw(docs / "performance-memory.svg", "MB", "peak MiB", memory)
