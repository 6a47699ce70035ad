"""The pages for readers, as the tests read them."""

from __future__ import annotations

import re
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
DOCS = ROOT / "docs"


def section(text: str, title: str) -> str:
    """What stands under a heading of the second level, up to the next one."""
    _, found, rest = f"\n{text}".partition(f"\n## {title}\n")
    assert found, f"there is no section {title!r}"
    return rest.partition("\n## ")[0]


def examples(page: str) -> dict[str, str]:
    """The fenced blocks of a page under docs/ by the word behind their language."""
    text = (DOCS / page).read_text()
    return dict(re.findall(r"^```\w+ ([\w-]+)\n(.*?)^```$", text, re.DOTALL | re.MULTILINE))


def table(text: str) -> list[list[str]]:
    """The rows of the only table of a text, its two head lines left out."""
    lines = [line for line in text.split("\n") if line.startswith("|")]
    return [[cell.strip() for cell in line.strip("|").split(" | ")] for line in lines[2:]]


@dataclass
class Entry:
    """One message of docs/troubleshooting.md. A list by each of its names."""

    message: str
    facts: dict[str, str] = field(default_factory=dict)
    lists: dict[str, list[str]] = field(default_factory=dict)

    def lines(self) -> list[str]:
        """The message line by line, words in angle brackets standing for what differs."""
        return [self.message, *(line.strip("`") for line in self.lists.get("Further lines", []))]


def entries() -> dict[str, Entry]:
    """The entries of docs/troubleshooting.md by their headings."""
    text = (DOCS / "troubleshooting.md").read_text()
    found = [_entry(part) for part in re.split(r"^### ", text, flags=re.MULTILINE)[1:]]
    assert len({entry.message for entry in found}) == len(found), "a message has two entries"
    return {entry.message: entry for entry in found}


def _entry(text: str) -> Entry:
    """One entry from its text, which begins with the message."""
    heading, *lines = text.partition("\n## ")[0].rstrip("\n").split("\n")
    entry = Entry(heading[1:-1])
    name = ""
    assert heading == f"`{entry.message}`", heading
    name = ""
    for line in filter(None, lines):
        if line.startswith("  - "):
            entry.lists[name].append(line[4:])
            continue
        name, colon, value = line[2:].partition(":")
        assert line.startswith("- ") and colon, line
        if value:
            entry.facts[name] = value.strip()
        else:
            entry.lists[name] = []
    return entry
