#!/usr/bin/env python3
"""Makes a manual page from its source, with parts of the pages under docs/ in it.

    make_page.py SOURCE.scd ROOT VERSION DATE PAGE

A line of the source that is one of these directives is replaced:

    {{text FILE "Section"}}         the section's prose, lists, tables and examples
    {{table FILE "Section"}}        the section's first table, as a list of terms
    {{options FILE "Section"}}      the same, for a table of options
    {{diagnostics FILE}}            the file's entries, whose headings are messages
    {{page FILE}}                   the whole file but its title
"""

from __future__ import annotations

import datetime
import gzip
import os
import re
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

_DIRECTIVE = re.compile(r'^\{\{(\w+) (\S+?)(?: "([^"]+)")?\}\}$', re.MULTILINE)
_FENCE = "```"
_LINE_BYTES = 78
# The dashes that begin an option: typed as they are, so no typographic hyphens.
_WORDS_DASHES = re.compile(r"(\\f[BIR]|(?<![\w']))(--?)(?=\w)")
_INLINE = re.compile(r"\*\*(?P<strong>.+?)\*\*|`(?P<code>[^`]+)`|\[(?P<link>[^]]*)\]\((?P<address>[^)]*)\)", re.DOTALL)


# --- Markdown to scdoc ----------------------------------------------------


def escaped(text: str) -> str:
    """Text that scdoc takes as it stands."""
    return re.sub(r"([\\_*#|\[\]~<>{}.+\-`!])", r"\\\1", text)


def inline(text: str) -> str:
    """A paragraph's text with its marks."""
    pieces, end = [], 0
    for found in _INLINE.finditer(text):
        pieces += [escaped(text[end : found.start()]), _marked(found)]
        end = found.end()
    return "".join([*pieces, escaped(text[end:])])


def _marked(found: re.Match[str]) -> str:
    if found["link"] is not None:
        return inline(found["link"])
    words = found["code"] or re.sub(r"`|\[([^]]*)\]\([^)]*\)", r"\1", found["strong"])
    return f"*{escaped(words)}*"


def cells(row: str) -> list[str]:
    """The cells of a table's line."""
    return [cell.strip() for cell in row.strip("|").split(" | ")]


def rows(text: str) -> list[list[str]]:
    """The rows of a text's first table, without its head."""
    found = re.search(r"(?:^\|.*\n?)+", text, re.MULTILINE)
    if found is None:
        raise SystemExit("make_page: a section has no table")
    return [cells(line) for line in found[0].splitlines()[2:]]


def term(head: str, body: str) -> str:
    """A term and its explanation."""
    return f"{head}\n\t{body}\n"


def term_list(text: str) -> str:
    """A table as terms, further columns joined."""
    return "\n".join(term(inline(row[0]), inline("; ".join(filter(None, row[1:])))) for row in rows(text))


def option_list(text: str) -> str:
    """A table of options: name, kind of value, what it does, and what is not told here."""
    return "\n".join(term(_option_head(row[0], row[1]), inline(_sentence(row[2]))) for row in rows(text))


def _option_head(names: str, kind: str) -> str:
    value = "" if kind == "none" else f" _{kind}_"
    return ", ".join(f"*{escaped(name)}*{value}" for name in re.findall(r"`([^`]+)`", names))


def _sentence(text: str) -> str:
    return text if text.endswith(".") else f"{text}."


def blocks(text: str) -> Iterator[list[str]]:
    """The text's blocks: paragraphs, lists, tables, fenced examples, headings."""
    block: list[str] = []
    fenced = False
    for line in text.splitlines():
        if line.startswith(_FENCE):
            fenced = not fenced
        if not line and not fenced:
            if block:
                yield block
            block = []
        else:
            block.append(line)
    if block:
        yield block


def block_text(block: list[str]) -> str:
    """One block in scdoc."""
    first = block[0]
    if any(line.startswith(_FENCE) for line in block):
        return _with_examples(block)
    if first.startswith("|"):
        return term_list("\n".join(block))
    if first.startswith("#"):
        return f"## {escaped(first.lstrip('# ').upper())}\n"
    if re.match(r"(-|\d+\.) ", first):
        return "\n".join(_items("\n".join(block))) + "\n"
    return inline(" ".join(block)) + "\n"


def _with_examples(block: list[str]) -> str:
    start = next(number for number, line in enumerate(block) if line.startswith(_FENCE))
    stop = next(number for number in range(start + 1, len(block)) if block[number].startswith(_FENCE))
    shown = [line.replace("\\", "\\\\") for line in block[start + 1 : stop]]
    before = block_text(block[:start]) + "\n" if block[:start] else ""
    after = "\n" + block_text(block[stop + 1 :]) if block[stop + 1 :] else ""
    return before + "\n".join([_FENCE, *shown, _FENCE]) + "\n" + after


def _items(text: str) -> Iterator[str]:
    for item in re.split(r"^(?=(?:-|\d+\.) )", text, flags=re.MULTILINE):
        if item:
            mark, _, words = item.partition(" ")
            yield ("- " if mark == "-" else f"{escaped(mark)} ") + inline(" ".join(words.split()))
            if mark != "-":
                yield ""


def diagnostics(text: str) -> str:
    """The entries whose headings are messages."""
    entries = re.findall(r"^### (.*)\n((?:(?!^##).*\n?)*)", text, re.MULTILINE)
    return "\n".join(_diagnostic(heading, body) for heading, body in entries)


def _diagnostic(heading: str, body: str) -> str:
    facts = dict(re.findall(r"^- (\w+(?: \w+)*): (.+)$", body, re.MULTILINE))
    kind = {"both": "passing or lasting", "none": "a notice"}.get(facts["Failure"], facts["Failure"])
    message = re.sub(
        r"<(\w+(?: \w+)*)>", r"*_\1_*", escaped(heading.strip("`")).replace("\\<", "<").replace("\\>", ">")
    )
    lines = [f"*{message}*".replace("**", ""), f"\t{inline(facts['Meaning'])} ({kind})"]
    for title, listed in re.findall(r"^- (Further lines|Causes|Check):\n((?:  - .*\n?)+)", body, re.MULTILINE):
        lines += ["", f"\t{title}:"] + [
            f"\t- {inline(item)}" for item in re.findall(r"^  - (.*)$", listed, re.MULTILINE)
        ]
    return "\n".join(lines) + "\n"


# --- Putting a page together ----------------------------------------------


def section(text: str, title: str) -> str:
    """What stands under a heading of the second level."""
    found = re.search(rf"^## {re.escape(title)}\n(.*?)(?=^## |\Z)", text, re.MULTILINE | re.DOTALL)
    if found is None:
        raise SystemExit(f"make_page: there is no section {title!r}")
    return found[1]


def included(root: Path, directive: re.Match[str]) -> str:
    """What stands in a directive's place."""
    kind, file, title = directive.groups()
    text = (root / file).read_text()
    text = section(text, title) if title else text.partition("\n")[2]
    if kind == "diagnostics":
        return diagnostics(text)
    if kind in ("table", "options"):
        return {"table": term_list, "options": option_list}[kind](text)
    return "\n".join(block_text(block) for block in blocks(text))


def page_source(source: str, root: Path, version: str) -> str:
    """The whole scdoc source."""
    text = _DIRECTIVE.sub(lambda directive: included(root, directive).rstrip("\n"), source)
    return re.sub(r"\n{3,}", "\n\n", text.replace("@PROJECT_VERSION@", version))


def tidied(roff: str) -> str:
    """scdoc's output with short lines and without the paragraph requests that do nothing."""
    while "\n.P\n.RE\n" in roff:
        roff = roff.replace("\n.P\n.RE\n", "\n.RE\n.P\n")
    kept: list[str] = []
    literal = False
    for line in roff.splitlines():
        literal = line == ".nf" or (literal and line != ".fi")
        if line == ".P" and kept and re.match(r"\.(P|SH|SS|TH)\b", kept[-1]):
            continue
        while re.match(r"\.(SH|SS)\b", line) and kept[-1] == ".P":
            kept.pop()
        if literal:
            kept.append(line.replace("-", r"\-"))
        else:
            kept += [line] if line.startswith((".", "'")) else wrapped(_WORDS_DASHES.sub(_dashes, line))
    while kept[-1] == ".P":
        kept.pop()
    return "\n".join(kept) + "\n"


def _dashes(found: re.Match[str]) -> str:
    return found[1] + found[2].replace("-", r"\-")


def wrapped(line: str) -> list[str]:
    """A line of text as lines of 78 bytes at most where blanks allow it; none begins like a request."""
    lines = [""]
    for word in line.split(" "):
        longer = f"{lines[-1]} {word}" if lines[-1] else word
        if len(longer.encode()) <= _LINE_BYTES or word.startswith((".", "'")) or not lines[-1]:
            lines[-1] = longer
        else:
            lines.append(word)
    return lines


def main() -> None:
    """Writes the page, and the page compressed beside it."""
    source, root, version, date, page = sys.argv[1:]
    text = page_source(Path(source).read_text(), Path(root), version)
    moment = datetime.datetime.fromisoformat(f"{date}T00:00:00+00:00")
    environment = {**os.environ, "SOURCE_DATE_EPOCH": str(int(moment.timestamp()))}
    made = subprocess.run(["scdoc"], input=text, capture_output=True, text=True, env=environment, check=False)
    if made.returncode != 0:
        raise SystemExit(f"make_page: {source}: {made.stderr}")
    content = tidied(made.stdout).encode()
    Path(page).write_bytes(content)
    Path(f"{page}.gz").write_bytes(gzip.compress(content, 9, mtime=0))


if __name__ == "__main__":
    main()
