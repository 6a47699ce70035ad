#!/usr/bin/env python3
"""Writes what packages say of themselves, from CHANGELOG.md and what the build was told.

    package_docs.py CHANGELOG.md REVISION MAINTAINER LICENSE DIRECTORY

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
COPYRIGHT = """\
Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: tzregister
Upstream-Contact: {maintainer}

Files: *
Copyright: 2026 the authors of tzregister
License: {license}
 The licence is named here as the build of this package was told it. Where none is
 stated, ask whoever gave you the package what you may do with it.
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


def debian(package: str, revision: str, maintainer: str, text: str) -> str:
    """The changelog as Debian writes it."""
    entries = []
    for version, day, items in releases(text):
        body = "\n".join(wrapped(item, "  * ", "    ") for item in items)
        date = email.utils.format_datetime(day)
        entries.append(
            f"{package} ({version}-{revision}) stable; urgency=medium\n\n{body}\n\n -- {maintainer}  {date}\n"
        )
    return "\n".join(entries)


def rpm(maintainer: str, text: str) -> str:
    """The changelog as RPM writes it."""
    entries = []
    for version, day, items in releases(text):
        body = "\n".join(wrapped(item, "- ", "  ") for item in items)
        entries.append(f"* {day:%a %b %d %Y} {maintainer} - {version}-1\n{body}\n")
    return "\n".join(entries)


def write_compressed(file: Path, text: str) -> None:
    """The same bytes whenever it is written."""
    file.write_bytes(gzip.compress(text.encode(), 9, mtime=0))


def main() -> None:
    """Writes the files."""
    changelog, revision, maintainer, licence, directory = sys.argv[1:]
    text = Path(changelog).read_text()
    for component, package in PACKAGES.items():
        place = Path(directory) / component
        place.mkdir(parents=True, exist_ok=True)
        write_compressed(place / "changelog.gz", text)
        write_compressed(place / "changelog.Debian.gz", debian(package, revision, maintainer, text))
        (place / "copyright").write_text(COPYRIGHT.format(maintainer=maintainer, license=licence))
    (Path(directory) / "changelog.rpm").write_text(rpm(maintainer, text))


if __name__ == "__main__":
    main()
