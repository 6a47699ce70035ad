#!/usr/bin/env python3
"""Writes what packages say of themselves, from CHANGELOG.md and the project's name.

    package_docs.py CHANGELOG.md REVISION DIRECTORY

Makes changelog.gz, changelog.Debian.gz and copyright for each package below the
directory, and changelog.rpm.
"""

from __future__ import annotations

import datetime
import email.utils
import gzip
import re
import sys
from pathlib import Path

PACKAGES = {"tzregister": "tzregister", "authority": "tzregister-authority"}
MAINTAINER = "Quorvex developers <developers@quorvex.invalid>"
COPYRIGHT = """\
Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: tzregister
Upstream-Contact: {maintainer}

Files: *
Copyright: 2026 Quorvex developers
License: proprietary
 All rights reserved. For use with the Quorvex storage system.
"""


def releases(text: str) -> list[tuple[str, datetime.datetime, list[str]]]:
    """Version, day and items of every release, the newest first."""
    found = []
    for part in re.split(r"^## ", text, flags=re.MULTILINE)[1:]:
        heading = re.match(r"\[([0-9.]+)\] - (\d{4}-\d\d-\d\d)\n", part)
        if heading is not None:
            items = [" ".join(item.split()) for item in re.findall(r"^- ((?:.+\n)(?:  .+\n)*)", part, re.MULTILINE)]
            day = datetime.datetime.fromisoformat(f"{heading[2]}T12:00:00+00:00")
            found.append((heading[1], day, items))
    if not found:
        raise SystemExit("package_docs: CHANGELOG.md holds no release")
    return found


def wrapped(item: str, first: str, further: str) -> str:
    """An item in lines of 78 characters."""
    lines, line = [], first
    for word in item.split():
        if len(line) + len(word) > 77 and line not in (first, further):
            lines.append(line.rstrip())
            line = further
        line += f"{word} "
    return "\n".join([*lines, line.rstrip()])


def debian(package: str, revision: str, text: str) -> str:
    """The changelog as Debian writes it."""
    entries = []
    for version, day, items in releases(text):
        body = "\n".join(wrapped(item, "  * ", "    ") for item in items)
        date = email.utils.format_datetime(day)
        entries.append(
            f"{package} ({version}-{revision}) stable; urgency=medium\n\n{body}\n\n -- {MAINTAINER}  {date}\n"
        )
    return "\n".join(entries)


def rpm(text: str) -> str:
    """The changelog as RPM writes it."""
    entries = []
    for version, day, items in releases(text):
        body = "\n".join(wrapped(item, "- ", "  ") for item in items)
        entries.append(f"* {day:%a %b %d %Y} {MAINTAINER} - {version}-1\n{body}\n")
    return "\n".join(entries)


def main() -> None:
    """Writes the files."""
    changelog, revision, directory = Path(sys.argv[1]), sys.argv[2], Path(sys.argv[3])
    text = changelog.read_text()
    for component, package in PACKAGES.items():
        place = directory / component
        place.mkdir(parents=True, exist_ok=True)
        (place / "changelog.gz").write_bytes(gzip.compress(text.encode(), 9, mtime=0))
        (place / "changelog.Debian.gz").write_bytes(gzip.compress(debian(package, revision, text).encode(), 9, mtime=0))
        (place / "copyright").write_text(COPYRIGHT.format(maintainer=MAINTAINER))
    (directory / "changelog.rpm").write_text(rpm(text))


if __name__ == "__main__":
    main()
