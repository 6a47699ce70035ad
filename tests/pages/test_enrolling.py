"""docs/enrolling.md says what tzregister-enroll does and says."""

from __future__ import annotations

import ast
import re
from collections.abc import Iterator

import pytest

from harness.pages import DOCS, ROOT, section, table
from option_tables import program_options

PAGE = (DOCS / "enrolling.md").read_text()
SOURCE = ast.parse((ROOT / "enroll/tzregister_enroll.py").read_text())
MESSAGES = section(PAGE, "Enrolment messages")
HEADINGS = re.findall(r"^### `(.*)`$", MESSAGES, re.MULTILINE)
HEADINGS += [
    line
    for lines in re.findall(r"^- Further lines:\n((?:  - .*\n)+)", MESSAGES, re.MULTILINE)
    for line in re.findall("`(.*)`", lines)
]
# Stands for the words of another reason, or of tzregister.
OTHER_WORDS = "<step>: <reason>"


def test_the_table_lists_exactly_the_scripts_options() -> None:
    rows = table(section(PAGE, "Enrolment options"))
    listed = {name: value != "none" for names, value, _ in rows for name in re.findall("`([^`]+)`", names)}
    assert listed == program_options("tzregister-enroll")


def test_the_table_lists_exactly_the_scripts_statuses() -> None:
    status = next(node for node in SOURCE.body if isinstance(node, ast.ClassDef) and node.name == "Status")
    values = [ast.literal_eval(node.value) for node in status.body if isinstance(node, ast.Assign)]
    assert [int(row[0]) for row in table(section(PAGE, "What its status says"))] == sorted([*values, 2])


def wording(node: ast.expr) -> str:
    """A message's text, an X standing for what differs."""
    if isinstance(node, ast.Constant):
        return str(node.value)
    if isinstance(node, ast.JoinedStr):
        return "".join(wording(part) for part in node.values)
    return "X"


def reasons() -> Iterator[str]:
    """The reasons with which the script ends a run."""
    for node in ast.walk(SOURCE):
        if isinstance(node, ast.Call) and isinstance(node.func, ast.Name) and node.func.id in ("require", "Stop"):
            yield from (wording(argument) for argument in node.args[1:])


def everything_said() -> str:
    """Every text of the script."""
    texts = (node for node in ast.walk(SOURCE) if isinstance(node, (ast.Constant, ast.JoinedStr)))
    return "\n".join(wording(text) for text in texts)


def pattern(heading: str) -> str:
    """What a heading stands for; the paths in it are the script's defaults."""
    for path in ("/etc/qxregistry.cfg", "/usr/zenta/vrmo/qxag"):
        heading = heading.replace(path, "<path>")
    return ".+".join(re.escape(part) for part in re.split(r"<[^<>]+>", heading))


def test_every_reason_has_an_entry() -> None:
    found = [reason for reason in reasons() if reason not in ("X", "X: X")]
    assert len(found) > 25
    for reason in found:
        assert any(re.fullmatch(pattern(heading), reason) for heading in HEADINGS if heading != OTHER_WORDS), reason


@pytest.mark.parametrize("heading", HEADINGS)
def test_every_entry_is_of_something_said(heading: str) -> None:
    assert re.search(pattern(heading), everything_said())
