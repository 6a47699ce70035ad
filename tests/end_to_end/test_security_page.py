"""Every row of docs/security.md names a test that exists."""

from __future__ import annotations

import re

import pytest

from harness.pages import DOCS, ROOT

PAGE = (DOCS / "security.md").read_text()
NAMED = sorted(set(re.findall(r"`([\w/]+\.(?:py|cc))(?:::(\w+))?`", PAGE)))


def test_every_row_about_attacks_names_its_test() -> None:
    tables = re.findall(r"^\|[^\n]*\| shown by \|\n\|[- |]+\|\n((?:\|[^\n]*\n)+)", PAGE, re.MULTILINE)
    rows = [row for table in tables for row in table.strip().split("\n")]
    assert len(tables) == 5 and len(rows) > 30
    assert [row for row in rows if not re.search(r"`[\w/]+\.(py|cc)(::\w+)?` \|$", row)] == []


@pytest.mark.parametrize("file, case", NAMED)
def test_a_test_that_is_named_exists(file: str, case: str) -> None:
    path = ROOT / file if "/" in file else ROOT / "tests" / "end_to_end" / file
    assert path.is_file()
    if case:
        assert f"\ndef {case}(" in path.read_text()
