"""Credential files, as they stand on a registered host."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from typing import Optional


@dataclass
class CredentialFile:
    """A component's configuration file with the account that it talks to the authority with.

    A value that is None is left out of the file.
    """

    path: Path
    url: Optional[str] = "http://127.0.0.1:9"
    login: Optional[str] = "agent_42"
    passwd: Optional[str] = "s3cret"
    keydir: Optional[str] = "/nowhere/keys"
    agentid: Optional[str] = "42"

    def write(self) -> None:
        """Writes the file, with a section and a comment that nobody asks for."""
        options = (
            ("Main", "agentid", self.agentid),
            ("spa", "URL", self.url),
            ("systemaccount", "login", self.login),
            ("systemaccount", "passwd", self.passwd),
            ("paths", "keydir", self.keydir),
        )
        lines = ["# written for a test", "[other]", "level=3"]
        for section, name, value in options:
            lines.append(f"[{section}]")
            # A value of blanks alone would keep them, so an empty one gets none.
            lines += [f"# {name}", f"{name} = {value}" if value else f"{name}="] if value is not None else []
        self.path.write_text("\n".join(lines) + "\n")
