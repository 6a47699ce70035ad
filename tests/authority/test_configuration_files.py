"""Configuration files."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from harness.answers import NOT_A_NUMBER, options, records, refusal
from harness.authority import Authority, TEMPLATES
from harness.programs import AUTHORITY

PATHS = "var keydir log temp snapshots rtdir pid progressdir resourcebundles".split()
PATH_OPTIONS = {
    1: {"paths": PATHS},
    2: {"paths": PATHS},
    3: {
        "ContentRouter": ["RouteTableLocation", "PrevRouteTableLocation"],
        "Logging": ["LogPath"],
        "Spooler": ["Path"],
        "StorageDaemon": ["Storage", "Path", "ProcessedPath", "HistoryPath", "TmpPath", "DelLogPath"],
        "SSL": ["CertFileName", "PrivateKeyFileName"],
        "paths": ["keydir"],
    },
    6: {"paths": PATHS},
}


@pytest.mark.parametrize("template", TEMPLATES)
def test_a_configuration_file_is_the_template_filled_in(authority: Authority, template: int) -> None:
    authority.register()
    answer = authority.ask("configfile", action="create", agentid="1", configfiletemplateid=str(template))
    assert answer.split("\n")[1:4] == ["1", "returnvalue", "S"]
    content = records(answer)[0]["returnvalue"]
    shipped = (AUTHORITY / "templates" / f"{template}.cfg").read_text()
    filled = {"@SPA_URL@": authority.url, "@AGENT_ID@": "1", "@SYSTEM_LOGIN@": "agent1"}
    for mark, value in filled.items():
        shipped = shipped.replace(mark, value)
    assert content == shipped
    assert options(content)["spa"]["url"] == authority.url
    assert options(content)["systemaccount"] == {"login": "agent1", "passwd": ""}
    assert template == 6 or options(content)["main"]["agentid"] == "1"


@pytest.mark.parametrize("template", TEMPLATES)
def test_templates_hold_every_path_relative_and_absolute_ones(template: int) -> None:
    text = (AUTHORITY / "templates" / f"{template}.cfg").read_text()
    sections = options(text)
    values = [sections[section][option] for section, names in PATH_OPTIONS[template].items() for option in names]
    assert {value.startswith("/") for value in values} == {True, False}
    assert re.search("^#", text, re.M) and re.search("^;", text, re.M)
    assert template not in (1, 2) or sections["paths"]["keydir"] == "keys"


def test_a_component_without_an_agent_has_the_id_0_and_no_login(authority: Authority) -> None:
    answer = authority.ask("configfile", action="create", agentid="0", configfiletemplateid="3")
    sections = options(records(answer)[0]["returnvalue"])
    assert (sections["main"]["agentid"], sections["systemaccount"]["login"]) == ("0", "")


@pytest.mark.parametrize(
    ("agent", "template", "expected"),
    [
        ("0", "4", (7, "There is no configuration file template with the id 4.")),
        ("0", "0", (7, "There is no configuration file template with the id 0.")),
        ("0", "", (6, f'The field "configfiletemplateid" {NOT_A_NUMBER}')),
        ("5", "1", (7, "There is no agent with the id 5.")),
        ("-5", "1", (6, f'The field "agentid" {NOT_A_NUMBER}')),
    ],
)
def test_a_configuration_file_is_refused(
    authority: Authority, agent: str, template: str, expected: tuple[int, str]
) -> None:
    answer = authority.ask("configfile", action="create", agentid=agent, configfiletemplateid=template)
    assert refusal(answer) == expected
