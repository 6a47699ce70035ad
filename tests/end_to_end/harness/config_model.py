"""An independent model of configuration files and of their provisioning.

It answers what a template must become, so that files written from templates
that the test does not own can be compared byte for byte.
"""

from __future__ import annotations

import re
from dataclasses import dataclass, field
from typing import Optional

_BLANKS = " \t"

AGENT_PATHS = ("var", "keydir", "log", "temp", "snapshots", "rtdir", "pid", "progressdir", "resourcebundles")
CONTENT_ROUTER_PATHS = (
    ("ContentRouter", ("RouteTableLocation", "PrevRouteTableLocation")),
    ("Logging", ("LogPath",)),
    ("Spooler", ("Path",)),
    ("StorageDaemon", ("Storage", "Path", "ProcessedPath", "HistoryPath", "TmpPath", "DelLogPath", "Path")),
    ("SSL", ("CertFileName", "PrivateKeyFileName")),
)
CONTENT_ROUTER = 3


@dataclass
class Option:
    """One option as first spelled, with the comment lines above it."""

    name: str
    value: str
    comment: str = ""


@dataclass
class Section:
    """One section as first spelled; options are found whatever their case."""

    name: str
    comment: str = ""
    options: dict[str, Option] = field(default_factory=dict)


class Config:
    """A configuration file in memory."""

    def __init__(self, text: str = "") -> None:
        self.sections: dict[str, Section] = {}
        comment = ""
        current: Optional[Section] = None
        for line in (raw.lstrip(" \t\r") for raw in text.split("\n")):
            if line[:1] in ("#", ";"):
                comment += "\n" + line
            elif line.startswith("["):
                current = self.section(line[1 : line.index("]")])
                current.comment, comment = comment, ""
            elif line:
                assert current is not None, line
                name, value = (part.strip(_BLANKS) or part for part in line.split("=", 1))
                option = current.options.setdefault(name.lower(), Option(name, value))
                option.value, option.comment = value, comment or option.comment
                comment = ""

    def section(self, name: str) -> Section:
        """The section of this name, made when it is missing."""
        return self.sections.setdefault(name.lower(), Section(name))

    def get(self, section: str, option: str) -> Optional[str]:
        """An option's value; as in the tool, asking makes the section."""
        found = self.section(section).options.get(option.lower())
        return found.value if found else None

    def set(self, section: str, option: str, value: str) -> None:
        """Sets a value, the comment staying."""
        self.section(section).options.setdefault(option.lower(), Option(option, value)).value = value

    def dump(self) -> str:
        """The file's text: sections in order, options sorted."""
        text = ""
        for section in self.sections.values():
            text += _comment(section.comment) + f"[{section.name}]\n"
            for key in sorted(section.options):
                option = section.options[key]
                text += _comment(option.comment) + f"{option.name}={option.value}\n"
        return text


def _comment(block: str) -> str:
    """A comment block as it is written."""
    return block + "\n" if block else ""


def make_absolute(config: Config, template_id: int, storage_path: str) -> None:
    """Puts the storage path before every relative path option of the template."""
    table = CONTENT_ROUTER_PATHS if template_id == CONTENT_ROUTER else (("paths", AGENT_PATHS),)
    for section, options in table:
        for option in options:
            value = config.get(section, option)
            if value and not re.match(r"/|[A-Za-z]:/", value):
                separator = "" if storage_path.endswith("/") or not storage_path else "/"
                config.set(section, option, storage_path + separator + value)


def provisioned(template: str, template_id: int, storage_path: str, account: Optional[tuple[str, str]] = None) -> str:
    """What a template becomes, with this (login, stored password) when there is one."""
    config = Config(template)
    make_absolute(config, template_id, storage_path)
    if account is not None:
        config.set("systemaccount", "login", account[0])
        config.set("systemaccount", "passwd", account[1])
    return config.dump()
