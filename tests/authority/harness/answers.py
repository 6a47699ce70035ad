"""Reads the authority's answers."""

from __future__ import annotations

import re
import socket

HOST = socket.gethostname()
NOT_A_NUMBER = "must be a decimal number of at most 18 digits."
ONE_LINE = "one line of 1 to 255 characters in UTF-8 without control characters"

_ERROR_BLOCK = re.compile(
    r"\*\*\*ERROR\*\*\*\n(\d+)\nseverity: (\d)\nserver: (\S+)\nsource: (\S+)\ndescription: (.*)\n\*\*\*DONE\*\*\*\n"
)
_PLAIN = {"\\\\": "\\", "\\n": "\n", "\\r": "\r", "\\t": "\t"}


def unescape(value: str) -> str:
    """Undoes the escapes of a value."""
    return re.sub(
        r"\\(?:[\\nrt]|x[0-9a-f]{2})", lambda hit: _PLAIN.get(hit[0]) or chr(int(hit[0][2:], 16)), value
    )


def records(text: str) -> list[dict[str, str]]:
    """The records of a data answer, whose layout is checked on the way."""
    lines = text.split("\n")
    assert lines[0] == "***BEGIN***" and lines[-2:] == ["***DONE***", ""], text
    names, types, rows = lines[2].split("|"), lines[3].split("|"), lines[4:-2]
    assert int(lines[1]) == len(rows) and len(names) == len(types)
    assert all(row.count("|") == len(names) - 1 for row in rows)
    return [dict(zip(names, map(unescape, row.split("|")))) for row in rows]


def refusal(text: str) -> tuple[int, str]:
    """Number and description of an error block, which must be the whole text."""
    match = _ERROR_BLOCK.fullmatch(text)
    assert match is not None, text
    number, severity, server, _, description = match.groups()
    assert (severity, server) == ("7" if number == "1" else "5", HOST)
    return int(number), description


def options(text: str) -> dict[str, dict[str, str]]:
    """Sections and options of a configuration file."""
    sections: dict[str, dict[str, str]] = {}
    current: dict[str, str] = {}
    for line in text.splitlines():
        if line.startswith("["):
            current = sections.setdefault(line[1:-1], {})
        elif line and line[0] not in "#;":
            key, _, value = line.partition("=")
            current[key.strip()] = value.strip()
    return sections
