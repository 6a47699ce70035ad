"""The options of the programs, and of everything that tells of them."""

from __future__ import annotations

import os
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BINARY = Path(os.environ["TZREGISTER_BINARY"])
MANUALS = BINARY.parent / "man"
PAGES = ("tzregister.8", "tzregister-enroll.8", "tzregister-authority.8", "qxregistry.cfg.5", "quorvex.cfg.5")
PROGRAMS = ("tzregister", "tzregister-enroll")

# Option => whether it takes a value; a short name beside its long one.
Options = dict[str, bool]


def program_options(program: str) -> Options:
    """What the program itself says."""
    command = [str(BINARY)] if program == "tzregister" else [sys.executable, "-I", str(BINARY.with_name(program))]
    done = subprocess.run([*command, "--help"], capture_output=True, text=True, check=True)
    pattern = r"^  (?:(-\w) \[ )?(--\w+)(?: \])?( arg)?(?:\s|$)"
    if program != "tzregister":
        pattern = r"^  (?:(-\w), )?(--[\w-]+)( [A-Z]+)?(?:\s|$)"
    rows = re.findall(pattern, done.stderr + done.stdout, re.MULTILINE)
    return {name: bool(value) for short, long, value in rows for name in (short, long) if name}


def rendered(page: str) -> str:
    """A manual as a reader sees it, without hyphenation."""
    environment = {**os.environ, "MANWIDTH": "200", "MAN_KEEP_FORMATTING": "", "LC_ALL": "C.UTF-8"}
    command = ["man", "--no-hyphenation", "--no-justification", "-P", "cat", "-l", str(MANUALS / page)]
    return subprocess.run(command, capture_output=True, text=True, check=True, env=environment).stdout


def manual_section(page: str, title: str) -> str:
    """What stands under a heading of a manual."""
    found = re.search(rf"^{title}\n(.*?)(?=^\S|\Z)", rendered(page), re.MULTILINE | re.DOTALL)
    assert found is not None, f"{page} has no {title}"
    return found[1]


def manual_options(program: str) -> Options:
    """What the program's manual says."""
    options: Options = {}
    for line in manual_section(f"{program}.8", "OPTIONS").split("\n"):
        found = re.fullmatch(r" {7}(-\S+?)( \w+)?(?:, (-\S+?)( \w+)?)?", line)
        if found is not None:
            names = [(found[1], found[2]), (found[3], found[4])]
            options |= {name: value is not None for name, value in names if name}
    return options


def readme_options() -> Options:
    """What the README's synopsis of tzregister says."""
    text = (ROOT / "README.md").read_text()
    synopsis = re.search(r"^```text synopsis\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
    assert synopsis is not None
    return {name: bool(value) for name, value in re.findall(r"(?<![\w-])(--?\w+)( [A-Z]+)?", synopsis[1])}
