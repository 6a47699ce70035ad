"""The script's reader of configuration files agrees with the format."""

from __future__ import annotations

import random

import pytest

from harness.config_model import Config
import tzregister_enroll as enroll

READ = {
    "  key =  a=b  ": {"key": "a=b"},
    "key=   ": {"key": "   "},
    "key=": {"key": ""},
    "KEY=1\nkey=2": {"key": "2"},
    "\tkey\t=\tv\r": {"key": "v\r"},
    "# note\n; note\n\n \t\r\nk=v": {"k": "v"},
}


@pytest.mark.parametrize("text, options", READ.items())
def test_options(text: str, options: dict[str, str]) -> None:
    assert enroll.read_configuration(f"[ Sec ] \t\r\n{text}\n") == {" sec ": options}


@pytest.mark.parametrize("text", ["k=v", "[s]\nnovalue", "[s]\n=v", "[]", "[s", "[s] x"])
def test_lines_that_are_refused(text: str) -> None:
    with pytest.raises(ValueError):
        enroll.read_configuration(text)


def test_it_reads_what_the_model_reads() -> None:
    pieces = ["[a]", "[B]", "[b]", "k=v", "K = w ", " x=  ", "# c", "", "y=a=b", "\t; d", "k2=\t"]
    draw = random.Random(1)
    for _ in range(300):
        text = "\n".join(["[a]", *draw.choices(pieces, k=draw.randrange(12))]) + "\n"
        assert enroll.read_configuration(Config(text).dump()) == enroll.read_configuration(text)


def test_sections_go_on_and_names_count_whatever_their_case() -> None:
    assert enroll.read_configuration("[A]\nx=1\n[b]\ny=2\n[a]\nz=3\n") == {"a": {"x": "1", "z": "3"}, "b": {"y": "2"}}
