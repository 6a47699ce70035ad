"""The manuals are well made and say what the programs do."""

from __future__ import annotations

import gzip
import os
import re
import subprocess

import pytest

from option_tables import (
    MANUALS,
    PAGES,
    PROGRAMS,
    ROOT,
    manual_options,
    manual_section,
    program_options,
    readme_options,
    rendered,
)

SECTIONS = {
    "8": ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "FILES", "ENVIRONMENT", "EXAMPLES"],
    "5": ["NAME", "DESCRIPTION", "FILES"],
}
LAST_SECTIONS = ["DIAGNOSTICS", "SECURITY", "SEE ALSO"]
DIAGNOSTICS = {"tzregister.8": "troubleshooting.md", "tzregister-enroll.8": "enrolling.md"}


@pytest.mark.parametrize("page", PAGES)
def test_mandoc_finds_nothing(page: str) -> None:
    done = subprocess.run(["mandoc", "-T", "lint", str(MANUALS / page)], capture_output=True, text=True, check=False)
    assert (done.stdout, done.stderr, done.returncode) == ("", "", 0)


@pytest.mark.parametrize("page", PAGES)
def test_man_warns_of_nothing(page: str) -> None:
    environment = {**os.environ, "MANWIDTH": "80", "LC_ALL": "C.UTF-8", "MANROFFSEQ": ""}
    command = ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", str(MANUALS / page)]
    done = subprocess.run(command, capture_output=True, text=True, env=environment, check=False)
    assert (done.stderr, done.returncode) == ("", 0)


def test_the_checks_find_what_is_wrong() -> None:
    broken = '.TH X 8\n.SH NAME\n.P\n.P\nx \\- y\n.RE\n.sp "a\n'
    done = subprocess.run(["mandoc", "-T", "lint"], input=broken, capture_output=True, text=True, check=False)
    assert "WARNING" in done.stdout


@pytest.mark.parametrize("page", PAGES)
def test_the_sections_are_there(page: str) -> None:
    headings = re.findall(r"^([A-Z][A-Z -]+)$", rendered(page), re.MULTILINE)
    wanted = SECTIONS[page[-1]]
    assert [heading for heading in headings if heading in wanted] == wanted
    assert [heading for heading in headings if heading in LAST_SECTIONS] == LAST_SECTIONS
    assert all(manual_section(page, heading).strip() for heading in headings)


@pytest.mark.parametrize("page", PAGES)
def test_version_and_date_are_the_releases(page: str) -> None:
    version = re.search(r"^project\(tzregister VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert version is not None
    release = re.search(rf"^## \[{version[1]}\] - (\S+)$", (ROOT / "CHANGELOG.md").read_text(), re.MULTILINE)
    assert release is not None
    assert re.search(rf"^tzregister {version[1]} +{release[1]} ", rendered(page), re.MULTILINE)


@pytest.mark.parametrize("page", PAGES)
def test_what_is_installed_is_the_page(page: str) -> None:
    assert gzip.decompress((MANUALS / f"{page}.gz").read_bytes()) == (MANUALS / page).read_bytes()


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_manual_lists_exactly_the_programs_options(program: str) -> None:
    options = program_options(program)
    assert len(options) > 15 and manual_options(program) == options


def test_the_readme_lists_exactly_the_programs_options() -> None:
    assert readme_options() == program_options("tzregister")


@pytest.mark.parametrize("page, source", DIAGNOSTICS.items())
def test_every_message_is_in_the_diagnostics(page: str, source: str) -> None:
    shown = manual_section(page, "DIAGNOSTICS")
    headings = re.findall(r"^### `(.*)`$", (ROOT / "docs" / source).read_text(), re.MULTILINE)
    assert len(headings) > 10
    for heading in headings:
        assert re.sub(r"<(\w+(?: \w+)*)>", r"\1", heading).rstrip() in re.sub(r"\s+", " ", shown), heading


@pytest.mark.parametrize("page", PAGES)
def test_no_marks_of_the_sources_are_left(page: str) -> None:
    shown = rendered(page)
    assert not re.search(r"\{\{|@PROJECT|\]\(|(?<!\*)\*\*[A-Za-z]|(?<!\w)`[A-Za-z]|\\[A-Za-z_]\w*\\", shown)
